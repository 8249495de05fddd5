#pragma once

// Builds the first bytes of RED picture files for tests: signature, frame block and record chain.

#include "tests/support/MediaFixtures.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace R3DTestBytes {

// A record; the empty one has a tag no reader knows.
struct Rec {
    std::uint8_t type = 0;
    std::uint8_t tag = 0;
    std::vector<std::uint8_t> payload;
};

inline Rec text(std::uint8_t tag, const std::string& s, bool terminate = true) {
    return {16, tag, {s.c_str(), s.c_str() + s.size() + (terminate ? 1 : 0)}};
}

inline Rec be32Rec(std::uint8_t type, std::uint8_t tag, std::uint32_t v) {
    return {type,
            tag,
            {std::uint8_t(v >> 24), std::uint8_t(v >> 16), std::uint8_t(v >> 8), std::uint8_t(v)}};
}

inline Rec real(std::uint8_t tag, float v, std::uint8_t type = 32) {
    return be32Rec(type, tag, std::bit_cast<std::uint32_t>(v));
}

struct Rdi {
    std::uint32_t width = 4096;
    std::uint32_t height = 2160;
    std::uint16_t denominator = 1001;
    std::uint32_t numerator = 24000;
};

// 1024 bytes (more if the records need them): `records` padded with empty records to
// `minRecords`, laid from `chainAt`; the frame block at offset 16 unless `rdi` is empty.
inline std::vector<std::uint8_t> header(std::vector<Rec> records, std::optional<Rdi> rdi = Rdi{},
                                        std::size_t minRecords = 8, std::size_t chainAt = 128) {
    records.resize(std::max(records.size(), minRecords));
    std::vector<std::uint8_t> b(1024, 0);
    auto put = [&b](std::size_t at, std::uint32_t v, int bytes) {
        for (int i = 0; i < bytes; ++i) {
            b[at + i] = std::uint8_t(v >> (8 * (bytes - 1 - i)));
        }
    };
    std::memcpy(b.data() + 4, "RED2", 4);
    if (rdi) {
        std::memcpy(b.data() + 16, "rdi", 3);
        put(16 + 8, rdi->width, 4);
        put(16 + 12, rdi->height, 4);
        put(16 + 18, rdi->denominator, 2);
        put(16 + 20, rdi->numerator, 4);
    }
    std::size_t p = chainAt;
    for (const auto& r : records) {
        const std::size_t length = 4 + r.payload.size();
        b.resize(std::max(b.size(), p + length), 0);
        put(p, std::uint32_t(length << 16 | r.type << 8 | r.tag), 4);
        std::copy(r.payload.begin(), r.payload.end(), b.begin() + std::ptrdiff_t(p + 4));
        p += length;
    }
    return b;
}

inline void write(const std::filesystem::path& file, const std::vector<std::uint8_t>& bytes) {
    MediaFixtures::writeBytes(file, bytes);
}

} // namespace R3DTestBytes
