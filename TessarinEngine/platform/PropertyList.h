#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>

// Property lists (binary or XML) through libplist.
namespace PropertyList {

// The string values of a property list whose root is a dictionary, by key; values of other types
// are left out. Nothing when the bytes are no property list or its root is no dictionary.
std::optional<std::map<std::string, std::string>>
readStringDictionary(std::span<const std::uint8_t> bytes);

} // namespace PropertyList
