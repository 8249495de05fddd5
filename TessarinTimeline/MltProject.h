#pragma once

#include "TessarinTimeline/FrameLayout.h"

#include <string>

namespace MltProject {

// The timeline as an MLT XML project, the native format of Shotcut and Kdenlive: a profile at
// the timeline's rate and picture size, one producer per media file carrying the clip's verdict,
// placement and explanation, a black background, one playlist per track (video tracks first) with
// blanks for gaps, a tractor that composites the video tracks and mixes every track's sound, and a
// bin playlist that lists the clips with no place on a track. A clip with drift plays through a
// time-warp producer at the speed that cancels it.
std::string write(const Timeline& timeline);

} // namespace MltProject
