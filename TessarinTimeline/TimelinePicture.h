#pragma once

#include "TessarinTimeline/EventStream.h"

#include <string>

namespace TimelinePicture {

// The timeline as an SVG picture for people: a title with the done event's totals, a legend of
// the verdict colours with their counts, a ruler in minutes, and one lane per track (video
// first) in which each clip is a bar from its start to its end, coloured by verdict. Time runs at
// no less than 1 pixel per 5 s. Every bar of 60 pixels or more carries its file name (shortened
// around "…" where it does not fit) and no two labels overlap: text is set in a monospace face,
// at 11 px but for the title, whose characters are taken as 6.7 px wide (two such cells for wide
// East Asian characters).
std::string write(const Timeline& timeline);

} // namespace TimelinePicture
