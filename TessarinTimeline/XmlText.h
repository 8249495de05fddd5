#pragma once

#include <string>
#include <string_view>

namespace XmlText {

// The text made safe for XML 1.0 content and attribute values: markup characters as entities, and
// the characters XML cannot hold at all (controls other than tab and line breaks) as U+FFFD, since
// Linux file names may carry them. The input is UTF-8.
std::string escape(std::string_view text);

} // namespace XmlText
