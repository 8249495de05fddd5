#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>

// Property lists (binary or XML) through libplist.
namespace PropertyList {

// For a property list whose root is a dictionary: the string values it holds under `keys`, by
// key; keys it lacks or holds another type under are left out. Nothing when the bytes are no
// property list or its root is no dictionary.
std::optional<std::map<std::string, std::string>>
readDictionaryStrings(std::span<const std::uint8_t> bytes, std::span<const std::string_view> keys);

} // namespace PropertyList
