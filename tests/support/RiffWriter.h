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

// `bytes` bytes of `v`, little-endian.
inline void put(Bytes& out, std::uint64_t v, int bytes) {
    for (int i = 0; i < bytes; ++i) {
        out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
    }
}

// A text field of `width` bytes, NUL-padded or cut.
inline void putText(Bytes& out, const std::string& s, std::size_t width) {
    for (std::size_t i = 0; i < width; ++i) {
        out.push_back(i < s.size() ? static_cast<std::uint8_t>(s[i]) : 0);
    }
}

// "RIFF", the total size, "WAVE", then the chunks in order, each padded to even length.
inline Bytes wave(const std::vector<Chunk>& chunks) {
    Bytes body;
    putText(body, "WAVE", 4);
    for (const auto& chunk : chunks) {
        putText(body, chunk.id, 4);
        put(body, chunk.declaredSize.value_or(static_cast<std::uint32_t>(chunk.content.size())), 4);
        body.insert(body.end(), chunk.content.begin(), chunk.content.end());
        body.resize(body.size() + chunk.content.size() % 2, 0);
    }
    Bytes out;
    putText(out, "RIFF", 4);
    put(out, body.size(), 4);
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

// A PCM "fmt " chunk.
inline Chunk fmt(int channels, int sampleRate, int bitsPerSample) {
    Chunk c{"fmt ", {}, std::nullopt};
    const int blockAlign = channels * bitsPerSample / 8;
    put(c.content, 1, 2);
    put(c.content, static_cast<std::uint64_t>(channels), 2);
    put(c.content, static_cast<std::uint64_t>(sampleRate), 4);
    put(c.content, static_cast<std::uint64_t>(sampleRate * blockAlign), 4);
    put(c.content, static_cast<std::uint64_t>(blockAlign), 2);
    put(c.content, static_cast<std::uint64_t>(bitsPerSample), 2);
    return c;
}

// A WAVE_FORMAT_EXTENSIBLE "fmt " chunk whose sub-format is `subFormat` (3 for float).
inline Chunk fmtExtensible(int channels, int sampleRate, int bitsPerSample,
                           std::uint16_t subFormat) {
    Chunk c = fmt(channels, sampleRate, bitsPerSample);
    c.content[0] = 0xFE;
    c.content[1] = 0xFF;
    put(c.content, 22, 2);
    put(c.content, static_cast<std::uint64_t>(bitsPerSample), 2);
    put(c.content, 0, 4);
    // The GUID's first two bytes carry the format; the rest is the fixed base GUID.
    put(c.content, subFormat, 2);
    c.content.insert(c.content.end(), {0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x80, 0x00, 0x00, 0xAA,
                                       0x00, 0x38, 0x9B, 0x71});
    return c;
}

// A "data" chunk of `frames` silent frames.
inline Chunk silence(int channels, int bitsPerSample, std::size_t frames) {
    return {"data", Bytes(frames * channels * bitsPerSample / 8, 0), std::nullopt};
}

struct Bext {
    std::string description;
    std::string originator;
    std::string originationDate; // "2023-07-01"
    std::string originationTime; // "14:25:30"
    std::uint64_t timeReference = 0;
};

// A "bext" chunk, 602 bytes long unless cut to `length`.
inline Chunk bext(const Bext& f, std::size_t length = 602) {
    Chunk c{"bext", {}, std::nullopt};
    putText(c.content, f.description, 256);
    putText(c.content, f.originator, 32);
    putText(c.content, "", 32);
    putText(c.content, f.originationDate, 10);
    putText(c.content, f.originationTime, 8);
    put(c.content, f.timeReference, 8);
    // Version, then the UMID, loudness fields and the reserved block.
    put(c.content, 1, 2);
    c.content.resize(length, 0);
    return c;
}

inline Chunk text(const std::string& id, const std::string& content) {
    return {id, Bytes(content.begin(), content.end()), std::nullopt};
}

} // namespace RiffWriter
