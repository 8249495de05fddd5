#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Collation {

// Natural file-name order: runs of digits compare as numbers ("A2" before "A10") and case is
// ignored. Negative, zero or positive like strcmp. Thread-safe. Texts must be valid UTF-8.
int compare(std::string_view a, std::string_view b);

// A byte string whose plain comparison gives the same order as `compare`, for sorting many names
// without converting each of them at every comparison. Thread-safe.
std::string sortKey(std::string_view text);

// Whether two texts are equal once case is folded ("a.WAV" and "A.wav").
bool equalsIgnoringCase(std::string_view a, std::string_view b);

// Full Unicode case mapping, independent of the user's locale.
std::string lowercased(std::string_view text);
std::string uppercased(std::string_view text);

// The first `count` user-perceived characters (grapheme clusters) of the text; a cluster is never
// split, so an accented letter or an emoji with modifiers counts once.
std::string prefixCharacters(std::string_view text, std::size_t count);

} // namespace Collation
