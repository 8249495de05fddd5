#pragma once

#include <filesystem>

namespace Files {

// The user's cache folder: $XDG_CACHE_HOME, else $HOME/.cache, else the password database's home
// plus ".cache".
std::filesystem::path userCacheDirectory();

// Whether the path names a regular file (after following links). Never throws.
bool isRegularFile(const std::filesystem::path& path);

} // namespace Files
