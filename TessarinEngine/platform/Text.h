#pragma once

#include <string>
#include <string_view>

namespace Text {

// Whether the bytes are well-formed UTF-8 (no overlong forms, no surrogates).
bool isValidUtf8(std::string_view bytes);

// The text with every ill-formed byte sequence replaced by U+FFFD.
std::string repairUtf8(std::string_view bytes);

} // namespace Text
