#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace Files {

// The user's cache folder: $XDG_CACHE_HOME, else $HOME/.cache, else the password database's home
// plus ".cache".
std::filesystem::path userCacheDirectory();

// Whether the path names a regular file (after following links). Never throws.
bool isRegularFile(const std::filesystem::path& path);

// The file's birth time where the file system records one (statx), else nothing. Never throws.
std::optional<double> creationDate(const std::filesystem::path& path);

// Everything that reading the file gives up to its end: a regular file, a pipe (a shell's
// process substitution, /dev/stdin) or a device. Nothing for a folder, or when the file cannot
// be opened or a read fails. Blocks while a pipe's writer has not finished.
std::optional<std::string> readToEnd(const std::filesystem::path& path);

// Opens /dev/null on whichever of descriptors 0, 1 and 2 is closed, so that no file opened later
// takes one of their numbers (event lines would then land in it). Call first thing at start.
void openStandardDescriptors();

} // namespace Files
