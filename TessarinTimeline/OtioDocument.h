#pragma once

#include "TessarinTimeline/FrameLayout.h"

#include <string>

namespace OtioDocument {

// The timeline as an OpenTimelineIO document (JSON): a stack of tracks, video first, each a
// sequence of gaps and clips whose durations add up to every clip's position, counted in frames
// at the timeline's rate. Clips refer to their media by file URL and carry the engine's verdict,
// placement, explanation and score as metadata; a clip with drift carries the linear time warp
// that cancels it. Failed clips are left out.
std::string write(const Timeline& timeline);

// A file URL for an absolute path: every byte outside the unreserved set and '/' written as %XX.
std::string fileUrl(const std::string& path);

} // namespace OtioDocument
