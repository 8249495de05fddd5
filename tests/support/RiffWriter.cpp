#include "tests/support/RiffWriter.h"

#include <algorithm>
#include <stdexcept>

namespace RiffWriter {

namespace {

// `bytes` bytes of `v`, little-endian.
void put(Bytes& out, std::uint64_t v, int bytes) {
    for (int i = 0; i < bytes; ++i) {
        out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
    }
}

// A text field of `width` bytes, NUL-padded or cut.
void putText(Bytes& out, const std::string& s, std::size_t width) {
    for (std::size_t i = 0; i < width; ++i) {
        out.push_back(i < s.size() ? static_cast<std::uint8_t>(s[i]) : 0);
    }
}

} // namespace

Bytes wave(const std::vector<Chunk>& chunks) {
    Bytes body;
    putText(body, "WAVE", 4);
    for (const auto& chunk : chunks) {
        if (chunk.id.size() != 4) {
            throw std::invalid_argument("chunk id must have four characters");
        }
        putText(body, chunk.id, 4);
        put(body, chunk.declaredSize.value_or(static_cast<std::uint32_t>(chunk.content.size())), 4);
        body.insert(body.end(), chunk.content.begin(), chunk.content.end());
        if (chunk.content.size() % 2 == 1) {
            body.push_back(0);
        }
    }
    Bytes out;
    putText(out, "RIFF", 4);
    put(out, body.size(), 4);
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

Chunk fmt(int channels, int sampleRate, int bitsPerSample, std::uint16_t formatTag) {
    Chunk c{"fmt ", {}, std::nullopt};
    const int blockAlign = channels * bitsPerSample / 8;
    put(c.content, formatTag, 2);
    put(c.content, static_cast<std::uint64_t>(channels), 2);
    put(c.content, static_cast<std::uint64_t>(sampleRate), 4);
    put(c.content, static_cast<std::uint64_t>(sampleRate * blockAlign), 4);
    put(c.content, static_cast<std::uint64_t>(blockAlign), 2);
    put(c.content, static_cast<std::uint64_t>(bitsPerSample), 2);
    return c;
}

Chunk fmtExtensible(int channels, int sampleRate, int bitsPerSample, std::uint16_t subFormat) {
    Chunk c = fmt(channels, sampleRate, bitsPerSample, 0xFFFE);
    put(c.content, 22, 2);
    put(c.content, static_cast<std::uint64_t>(bitsPerSample), 2);
    put(c.content, 0, 4);
    // The GUID's first two bytes carry the format; the rest is the fixed base GUID.
    put(c.content, subFormat, 2);
    const std::uint8_t rest[14] = {0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x80,
                                   0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};
    c.content.insert(c.content.end(), std::begin(rest), std::end(rest));
    return c;
}

Chunk silence(int channels, int bitsPerSample, std::size_t frames) {
    return {"data", Bytes(frames * channels * bitsPerSample / 8, 0), std::nullopt};
}

Chunk bext(const Bext& f) {
    Chunk c{"bext", {}, std::nullopt};
    putText(c.content, f.description, 256);
    putText(c.content, f.originator, 32);
    putText(c.content, "", 32);
    putText(c.content, f.originationDate, 10);
    putText(c.content, f.originationTime, 8);
    put(c.content, f.timeReference, 8);
    put(c.content, 1, 2);
    // UMID, loudness fields and the reserved block.
    c.content.resize(602, 0);
    return c;
}

Chunk bextTruncated(const Bext& fields, std::size_t length) {
    Chunk c = bext(fields);
    c.content.resize(std::min(length, c.content.size()));
    return c;
}

Chunk text(const std::string& id, const std::string& content) {
    return {id, Bytes(content.begin(), content.end()), std::nullopt};
}

} // namespace RiffWriter
