#include "TessarinEngine/platform/Riff.h"

#include <algorithm>
#include <cassert>

namespace Riff {

namespace {

bool hasTag(Bytes bytes, std::size_t offset, std::string_view tag) {
    return bytes.size() >= offset + tag.size() &&
           std::equal(tag.begin(), tag.end(), bytes.begin() + static_cast<std::ptrdiff_t>(offset),
                      [](char a, std::uint8_t b) { return static_cast<std::uint8_t>(a) == b; });
}

} // namespace

std::uint16_t readU16(Bytes bytes, std::size_t offset) {
    assert(offset + 2 <= bytes.size());
    return static_cast<std::uint16_t>(bytes[offset] | bytes[offset + 1] << 8);
}

std::uint32_t readU32(Bytes bytes, std::size_t offset) {
    assert(offset + 4 <= bytes.size());
    return static_cast<std::uint32_t>(bytes[offset]) |
           static_cast<std::uint32_t>(bytes[offset + 1]) << 8 |
           static_cast<std::uint32_t>(bytes[offset + 2]) << 16 |
           static_cast<std::uint32_t>(bytes[offset + 3]) << 24;
}

std::uint64_t readU64(Bytes bytes, std::size_t offset) {
    return static_cast<std::uint64_t>(readU32(bytes, offset)) |
           static_cast<std::uint64_t>(readU32(bytes, offset + 4)) << 32;
}

bool isWave(Bytes bytes) {
    return bytes.size() >= 12 && hasTag(bytes, 0, "RIFF") && hasTag(bytes, 8, "WAVE");
}

void forEachChunk(Bytes bytes, const std::function<bool(const Chunk&)>& visit) {
    if (!isWave(bytes)) {
        return;
    }
    // 64-bit offsets: a 4 GiB size plus its padding cannot wrap.
    std::uint64_t offset = 12;
    while (offset + 8 <= bytes.size()) {
        Chunk chunk;
        chunk.id.assign(reinterpret_cast<const char*>(bytes.data() + offset), 4);
        chunk.declaredSize = readU32(bytes, offset + 4);
        chunk.offset = offset;
        const std::uint64_t start = offset + 8;
        const std::uint64_t end = std::min<std::uint64_t>(start + chunk.declaredSize, bytes.size());
        chunk.content = bytes.subspan(start, end - start);
        if (!visit(chunk)) {
            return;
        }
        offset = start + chunk.declaredSize + (chunk.declaredSize & 1u);
    }
}

std::optional<Chunk> findChunk(Bytes bytes, std::string_view id) {
    std::optional<Chunk> found;
    forEachChunk(bytes, [&](const Chunk& chunk) {
        if (chunk.id == id) {
            found = chunk;
            return false;
        }
        return true;
    });
    return found;
}

std::optional<Format> readFormat(Bytes content) {
    if (content.size() < 16) {
        return std::nullopt;
    }
    Format f;
    f.formatTag = readU16(content, 0);
    f.channels = readU16(content, 2);
    f.sampleRate = readU32(content, 4);
    f.byteRate = readU32(content, 8);
    f.blockAlign = readU16(content, 12);
    f.bitsPerSample = readU16(content, 14);
    f.subFormat = f.formatTag;
    // WAVEFORMATEXTENSIBLE: cbSize at 16, then valid bits, channel mask, and the GUID at 24.
    if (f.formatTag == 0xFFFE && content.size() >= 26) {
        f.subFormat = readU16(content, 24);
    }
    return f;
}

} // namespace Riff
