#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

// A walker over the chunks of a RIFF/WAVE buffer (little-endian). It works on bytes only, so the
// same code reads a mapped file and a fuzzer's buffer.
namespace Riff {

using Bytes = std::span<const std::uint8_t>;

struct Chunk {
    std::string id;                 // the four identifier bytes as they stand
    std::uint32_t declaredSize = 0; // the size field, which may claim more than the buffer holds
    std::uint64_t offset = 0;       // of the chunk header within the buffer
    Bytes content;                  // at most declaredSize bytes: fewer where the buffer ends first
};

// Whether the bytes start with "RIFF" and carry "WAVE" at offset 8.
bool isWave(Bytes bytes);

// Visits the chunks after the 12-byte header in buffer order until `visit` returns false or the
// buffer ends. Odd sizes are padded to even, as writers pad chunks. A size that runs past the end
// yields the bytes there are and ends the walk. Nothing is visited unless isWave().
void forEachChunk(Bytes bytes, const std::function<bool(const Chunk&)>& visit);

// The first chunk with this identifier (compared exactly), or nothing.
std::optional<Chunk> findChunk(Bytes bytes, std::string_view id);

// The fields of a "fmt " chunk. For WAVE_FORMAT_EXTENSIBLE (0xFFFE) `subFormat` is the format tag
// held in the first two bytes of the sub-format GUID, else equal to `formatTag`.
struct Format {
    std::uint16_t formatTag = 0;
    std::uint16_t channels = 0;
    std::uint32_t sampleRate = 0;
    std::uint32_t byteRate = 0;
    std::uint16_t blockAlign = 0;
    std::uint16_t bitsPerSample = 0;
    std::uint16_t subFormat = 0;
};

// Parses the content of a "fmt " chunk; nothing when it is shorter than the 16 bytes of its
// fixed part.
std::optional<Format> readFormat(Bytes content);

std::uint16_t readU16(Bytes bytes, std::size_t offset);
std::uint32_t readU32(Bytes bytes, std::size_t offset);
std::uint64_t readU64(Bytes bytes, std::size_t offset);

} // namespace Riff
