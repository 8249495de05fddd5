#pragma once

// Builds the first bytes of RED picture files for tests: signature, frame block and record chain.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

namespace R3DTestBytes {

struct Rec {
    std::uint8_t type = 0;
    std::uint8_t tag = 0;
    std::vector<std::uint8_t> payload;
};

inline Rec text(std::uint8_t tag, const std::string& s, bool terminate = true) {
    Rec r{16, tag, {s.begin(), s.end()}};
    if (terminate) {
        r.payload.push_back(0);
    }
    return r;
}

inline Rec be32Rec(std::uint8_t type, std::uint8_t tag, std::uint32_t v) {
    return {type,
            tag,
            {std::uint8_t(v >> 24), std::uint8_t(v >> 16), std::uint8_t(v >> 8), std::uint8_t(v)}};
}

inline Rec real(std::uint8_t tag, float v, std::uint8_t type = 32) {
    std::uint32_t bits;
    std::memcpy(&bits, &v, 4);
    return be32Rec(type, tag, bits);
}

// A record of a tag no reader knows.
inline Rec filler() {
    return {0, 0, {}};
}

struct Rdi {
    std::uint32_t width = 4096;
    std::uint32_t height = 2160;
    std::uint16_t denominator = 1001;
    std::uint32_t numerator = 24000;
};

inline void put32(std::vector<std::uint8_t>& b, std::size_t at, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        b[at + i] = std::uint8_t(v >> (24 - 8 * i));
    }
}

// `records` padded with unknown-tag fillers to `minRecords`, laid from `chainAt`; the frame block
// at offset 16 unless `rdi` is empty.
inline std::vector<std::uint8_t> header(std::vector<Rec> records, std::optional<Rdi> rdi = Rdi{},
                                        std::size_t minRecords = 8, std::size_t chainAt = 128,
                                        std::size_t total = 1024) {
    while (records.size() < minRecords) {
        records.push_back(filler());
    }
    std::vector<std::uint8_t> b(total, 0);
    std::memcpy(b.data() + 4, "RED2", 4);
    if (rdi) {
        std::memcpy(b.data() + 16, "rdi", 3);
        put32(b, 16 + 8, rdi->width);
        put32(b, 16 + 12, rdi->height);
        b[16 + 18] = std::uint8_t(rdi->denominator >> 8);
        b[16 + 19] = std::uint8_t(rdi->denominator);
        put32(b, 16 + 20, rdi->numerator);
    }
    std::size_t p = chainAt;
    for (const auto& r : records) {
        const std::size_t length = 4 + r.payload.size();
        if (p + length > b.size()) {
            b.resize(p + length, 0);
        }
        b[p] = std::uint8_t(length >> 8);
        b[p + 1] = std::uint8_t(length);
        b[p + 2] = r.type;
        b[p + 3] = r.tag;
        std::copy(r.payload.begin(), r.payload.end(), b.begin() + std::ptrdiff_t(p + 4));
        p += length;
    }
    return b;
}

inline void write(const std::filesystem::path& file, const std::vector<std::uint8_t>& bytes) {
    std::ofstream out(file, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
}

} // namespace R3DTestBytes
