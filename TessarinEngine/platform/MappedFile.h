#pragma once

#include "TessarinEngine/platform/Date.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>

// A regular file mapped read-only into memory, so every parser of a clip works on one byte span
// and the file is opened once. Only the pages a parser touches are read from disk.
// The mapping is guarded: should the file shrink while it is mapped (a copy over it, a card
// being rewritten), a read past its new end sees zeros instead of ending the process, and
// damaged() says so from then on. A caller reads, then asks damaged() before trusting anything.
class MappedFile {
public:
    // Maps the file; nothing for a path that is missing or names anything but a regular file
    // (directory, FIFO, device), or when it cannot be opened. Opening never blocks, so a FIFO
    // cannot hang the caller. An empty file maps to an empty span.
    static std::optional<MappedFile> open(const std::filesystem::path& path);

    MappedFile(MappedFile&& other) noexcept;
    MappedFile& operator=(MappedFile&& other) noexcept;
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;
    ~MappedFile();

    std::span<const std::uint8_t> bytes() const { return {data_, size_}; }
    // The file's birth time where the file system records one.
    std::optional<Date> creationDate() const { return created_; }
    std::optional<Date> modificationDate() const { return modified_; }
    // Whether a read met a part of the file that was gone: what was read is not the file.
    bool damaged() const;

private:
    MappedFile() = default;
    void release();

    const std::uint8_t* data_ = nullptr;
    std::size_t size_ = 0;
    int guard_ = -1;
    std::optional<Date> created_;
    std::optional<Date> modified_;
};
