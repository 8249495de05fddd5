#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// Builds RIFF/WAVE files byte by byte, including broken ones, for the readers' tests.
namespace RiffWriter {

using Bytes = std::vector<std::uint8_t>;

struct Chunk {
    std::string id; // four characters
    Bytes content;
    // The size field to write; the content's size when absent. A size that lies about the
    // content is how tests make broken files.
    std::optional<std::uint32_t> declaredSize;
};

// "RIFF", the total size, "WAVE", then the chunks in order, each padded to even length.
Bytes wave(const std::vector<Chunk>& chunks);

// A PCM "fmt " chunk (format tag 1), or another tag such as 3 (float).
Chunk fmt(int channels, int sampleRate, int bitsPerSample, std::uint16_t formatTag = 1);
// A WAVE_FORMAT_EXTENSIBLE "fmt " chunk whose sub-format is `subFormat`.
Chunk fmtExtensible(int channels, int sampleRate, int bitsPerSample, std::uint16_t subFormat);
// A "data" chunk of `frames` silent frames.
Chunk silence(int channels, int bitsPerSample, std::size_t frames);

struct Bext {
    std::string description;
    std::string originator;
    std::string originationDate; // "2023-07-01"
    std::string originationTime; // "14:25:30"
    std::uint64_t timeReference = 0;
};
// A full 602-byte "bext" chunk.
Chunk bext(const Bext& fields);
// A "bext" chunk cut to `length` bytes.
Chunk bextTruncated(const Bext& fields, std::size_t length);

Chunk text(const std::string& id, const std::string& content);

} // namespace RiffWriter
