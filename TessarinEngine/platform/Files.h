#pragma once

#include <filesystem>
#include <optional>

namespace Files {

// The user's cache folder: $XDG_CACHE_HOME, else $HOME/.cache, else the password database's home
// plus ".cache".
std::filesystem::path userCacheDirectory();

// Whether the path names a regular file (after following links). Never throws.
bool isRegularFile(const std::filesystem::path& path);

// The file's birth time where the file system records one (statx), else nothing. Never throws.
std::optional<double> creationDate(const std::filesystem::path& path);

} // namespace Files
