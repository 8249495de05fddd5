#pragma once

#include <cstdint>
#include <filesystem>
#include <istream>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

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

// The bytes of a regular file, read to its end; nothing for anything else. A link is not
// followed, and a FIFO or device is never waited on. Never throws but for memory.
std::optional<std::vector<std::uint8_t>> readRegularFile(const std::filesystem::path& path);

// What replaceFile adds to the file's name for its temporary file, before six random letters
// and digits: "{name}.tmp-" and six characters.
inline constexpr std::string_view kReplacementMark = ".tmp-";

// Writes `bytes` to a new temporary file beside `path` and renames it over `path`: a reader never
// meets half a file, and whatever sat under the name (a link, a FIFO) is replaced, never opened
// or written through. Returns whether it worked; a failure leaves no temporary file behind.
bool replaceFile(const std::filesystem::path& path, std::span<const std::uint8_t> bytes);

// Opens /dev/null on whichever of descriptors 0, 1 and 2 is closed, so that no file opened later
// takes one of their numbers (event lines would then land in it). Call first thing at start.
void openStandardDescriptors();

// What the file system says of a name: its size, when it was last written and last read (in
// nanoseconds since 1970), and whether it is a regular file. `followLinks` false describes a link
// itself. Nothing when the name cannot be looked at. Never throws.
struct Status {
    std::int64_t size = 0;
    std::int64_t modifiedNs = 0;
    std::int64_t accessedNs = 0;
    bool regular = false;
};
std::optional<Status> status(const std::filesystem::path& path, bool followLinks = true);

// The extension of the last part of a path, without its dot, in lower case ("WAV" and "wav" are
// one extension); a trailing separator is no part. Empty when there is none.
std::string lowerExtension(const std::filesystem::path& path);

// Everything a stream gives up to its end (standard input, a pipe); nothing when reading fails.
std::optional<std::string> readAll(std::istream& in);

// Removes the name itself: a link goes, never what it points to. False when nothing was removed.
bool removeName(const std::filesystem::path& path);

// A file descriptor closed on every way out of the scope that opened it; -1 holds nothing.
struct Descriptor {
    explicit Descriptor(int opened) : fd(opened) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor();
    int fd = -1;
};

} // namespace Files
