#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

// Small text operations on UTF-8 that need Unicode's character classes. Inputs that are not
// well-formed UTF-8 are repaired first (each bad sequence becomes U+FFFD).
namespace Unicode {

// Removes control characters (general category Cc) wherever they stand.
std::string dropControls(std::string_view text);

// Trims white space and line breaks from both ends.
std::string trimWhitespace(std::string_view text);

// Trims control characters from both ends.
std::string trimControls(std::string_view text);

// Trims control characters, white space and line breaks from both ends.
std::string trimControlsAndWhitespace(std::string_view text);

// Upper case by the root locale's full mapping ("ß" becomes "SS").
std::string upper(std::string_view text);

// Lower case by the root locale's full mapping.
std::string lower(std::string_view text);

// The bytes read as ISO Latin 1, written as UTF-8.
std::string fromLatin1(std::span<const std::uint8_t> bytes);

// The bytes as UTF-8 when they are well-formed UTF-8, else read as ISO Latin 1.
std::string fromUtf8OrLatin1(std::span<const std::uint8_t> bytes);

// Big-endian UTF-16 as UTF-8; unpaired surrogates become U+FFFD and an odd last byte is dropped.
std::string fromUtf16BigEndian(std::span<const std::uint8_t> bytes);

} // namespace Unicode
