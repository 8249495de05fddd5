#include "tests/support/RiffWriter.h"

#include <algorithm>
#include <fstream>
#include <stdexcept>

namespace RiffWriter {

namespace {

void putU16(Bytes& out, std::uint16_t v) {
    out.push_back(static_cast<std::uint8_t>(v));
    out.push_back(static_cast<std::uint8_t>(v >> 8));
}

void putU32(Bytes& out, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
    }
}

void putText(Bytes& out, const std::string& s) {
    out.insert(out.end(), s.begin(), s.end());
}

// A fixed-width text field, NUL-padded or cut.
void putField(Bytes& out, const std::string& s, std::size_t width) {
    for (std::size_t i = 0; i < width; ++i) {
        out.push_back(i < s.size() ? static_cast<std::uint8_t>(s[i]) : 0);
    }
}

} // namespace

Bytes wave(const std::vector<Chunk>& chunks) {
    Bytes body;
    putText(body, "WAVE");
    for (const auto& chunk : chunks) {
        if (chunk.id.size() != 4) {
            throw std::invalid_argument("chunk id must have four characters");
        }
        putText(body, chunk.id);
        putU32(body, chunk.declaredSize.value_or(static_cast<std::uint32_t>(chunk.content.size())));
        body.insert(body.end(), chunk.content.begin(), chunk.content.end());
        if (chunk.content.size() % 2 == 1) {
            body.push_back(0);
        }
    }
    Bytes out;
    putText(out, "RIFF");
    putU32(out, static_cast<std::uint32_t>(body.size()));
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

Chunk fmt(int channels, int sampleRate, int bitsPerSample, std::uint16_t formatTag) {
    Chunk c{"fmt ", {}, std::nullopt};
    const int blockAlign = channels * bitsPerSample / 8;
    putU16(c.content, formatTag);
    putU16(c.content, static_cast<std::uint16_t>(channels));
    putU32(c.content, static_cast<std::uint32_t>(sampleRate));
    putU32(c.content, static_cast<std::uint32_t>(sampleRate * blockAlign));
    putU16(c.content, static_cast<std::uint16_t>(blockAlign));
    putU16(c.content, static_cast<std::uint16_t>(bitsPerSample));
    return c;
}

Chunk fmtExtensible(int channels, int sampleRate, int bitsPerSample, std::uint16_t subFormat) {
    Chunk c = fmt(channels, sampleRate, bitsPerSample, 0xFFFE);
    putU16(c.content, 22);
    putU16(c.content, static_cast<std::uint16_t>(bitsPerSample));
    putU32(c.content, 0);
    // The GUID's first two bytes carry the format; the rest is the fixed base GUID.
    putU16(c.content, subFormat);
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
    putField(c.content, f.description, 256);
    putField(c.content, f.originator, 32);
    putField(c.content, "", 32);
    putField(c.content, f.originationDate, 10);
    putField(c.content, f.originationTime, 8);
    putU32(c.content, static_cast<std::uint32_t>(f.timeReference));
    putU32(c.content, static_cast<std::uint32_t>(f.timeReference >> 32));
    putU16(c.content, 1);
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
    return {id, toBytes(content), std::nullopt};
}

Bytes toBytes(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

void writeFile(const std::filesystem::path& file, const Bytes& bytes) {
    std::ofstream out(file, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
    if (!out) {
        throw std::runtime_error("cannot write " + file.string());
    }
}

} // namespace RiffWriter
