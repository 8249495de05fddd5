#include "TessarinEngine/R3DHeader.h"

#include "TessarinEngine/platform/Files.h"
#include "TessarinEngine/platform/Text.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <string_view>
#include <vector>

namespace R3DHeader {

namespace {

using Bytes = std::span<const std::uint8_t>;

struct Record {
    std::uint8_t type = 0;
    std::uint8_t tag = 0;
    Bytes payload;
};

constexpr std::size_t kMarkerLimit = 512;
constexpr std::size_t kChainFirstStart = 64;
constexpr std::size_t kChainStartLimit = 512;
// A handful of records can line up by chance in any binary data; a real chain is longer.
constexpr std::size_t kShortestChain = 8;

constexpr std::uint8_t kTypeText = 16;
constexpr std::uint8_t kTypeFloat = 32;
constexpr std::uint8_t kTypeInteger = 96;
constexpr std::uint8_t kTypeIntegerAlt = 80;

std::optional<std::size_t> find(std::string_view ascii, Bytes bytes, std::size_t limit) {
    const std::size_t end = std::min(limit, bytes.size());
    if (ascii.empty() || ascii.size() > end) {
        return std::nullopt;
    }
    for (std::size_t p = 0; p + ascii.size() <= end; ++p) {
        if (std::memcmp(bytes.data() + p, ascii.data(), ascii.size()) == 0) {
            return p;
        }
    }
    return std::nullopt;
}

std::uint16_t be16(Bytes bytes, std::size_t offset) {
    return static_cast<std::uint16_t>((bytes[offset] << 8) | bytes[offset + 1]);
}

std::uint32_t be32(Bytes bytes, std::size_t offset) {
    return (static_cast<std::uint32_t>(bytes[offset]) << 24) |
           (static_cast<std::uint32_t>(bytes[offset + 1]) << 16) |
           (static_cast<std::uint32_t>(bytes[offset + 2]) << 8) |
           static_cast<std::uint32_t>(bytes[offset + 3]);
}

std::optional<double> timeBase(Bytes bytes) {
    const auto p = find("rdi", bytes, kMarkerLimit);
    if (!p || bytes.size() < *p + 24) {
        return std::nullopt;
    }
    const std::uint16_t denominator = be16(bytes, *p + 18);
    if (denominator != 1000 && denominator != 1001) {
        return std::nullopt;
    }
    const double value = static_cast<double>(be32(bytes, *p + 20)) / denominator;
    if (!(value > 1.0 && value < 500.0)) {
        return std::nullopt;
    }
    return value;
}

struct FrameSize {
    int w = 0;
    int h = 0;
};

std::optional<FrameSize> frameSize(Bytes bytes) {
    const auto p = find("rdi", bytes, kMarkerLimit);
    if (!p || bytes.size() < *p + 16) {
        return std::nullopt;
    }
    const std::uint32_t w = be32(bytes, *p + 8);
    const std::uint32_t h = be32(bytes, *p + 12);
    auto plausible = [](std::uint32_t v) {
        return v >= 128 && v <= 20000;
    };
    if (!plausible(w) || !plausible(h)) {
        return std::nullopt;
    }
    return FrameSize{static_cast<int>(w), static_cast<int>(h)};
}

// The length of the record at `p`, or nothing where the chain ends: fewer than 4 bytes left, a
// length below 4, or a record that would run past the end.
std::optional<std::size_t> recordLength(Bytes bytes, std::size_t p) {
    if (p + 4 > bytes.size()) {
        return std::nullopt;
    }
    const std::size_t length = be16(bytes, p);
    if (length < 4 || p + length > bytes.size()) {
        return std::nullopt;
    }
    return length;
}

std::vector<Record> walk(Bytes bytes, std::size_t from) {
    std::vector<Record> out;
    std::size_t p = from;
    while (auto length = recordLength(bytes, p)) {
        out.push_back({bytes[p + 2], bytes[p + 3], bytes.subspan(p + 4, *length - 4)});
        p += *length;
    }
    return out;
}

// The chain has no fixed start, so every start below 512 is tried and the longest chain wins (the
// earliest on equal length). Walks from different starts soon run into the same records, so the
// chain length from every position is worked out once, back to front, instead of walking each
// start to its end.
std::vector<Record> records(Bytes bytes) {
    const std::size_t n = bytes.size();
    const std::size_t lastStart = std::min(n, kChainStartLimit);
    if (lastStart <= kChainFirstStart) {
        return {};
    }
    std::vector<std::size_t> chainLength(n + 1, 0);
    for (std::size_t p = n; p-- > kChainFirstStart;) {
        if (auto length = recordLength(bytes, p)) {
            chainLength[p] = 1 + chainLength[p + *length];
        }
    }
    std::size_t bestStart = kChainFirstStart;
    for (std::size_t s = kChainFirstStart; s < lastStart; ++s) {
        if (chainLength[s] > chainLength[bestStart]) {
            bestStart = s;
        }
    }
    if (chainLength[bestStart] < kShortestChain) {
        return {};
    }
    return walk(bytes, bestStart);
}

std::optional<std::string> text(const Record& r) {
    if (r.type != kTypeText) {
        return std::nullopt;
    }
    const auto* begin = reinterpret_cast<const char*>(r.payload.data());
    std::string_view raw(begin, r.payload.size());
    raw = raw.substr(0, raw.find('\0'));
    if (raw.empty()) {
        return std::nullopt;
    }
    return Text::repairUtf8(raw);
}

std::optional<double> float32(const Record& r) {
    if (r.type != kTypeFloat || r.payload.size() < 4) {
        return std::nullopt;
    }
    const std::uint32_t bits = be32(r.payload, 0);
    float value;
    std::memcpy(&value, &bits, sizeof value);
    if (!std::isfinite(value)) {
        return std::nullopt;
    }
    return static_cast<double>(value);
}

std::optional<std::int64_t> uint32(const Record& r) {
    if ((r.type != kTypeInteger && r.type != kTypeIntegerAlt) || r.payload.size() < 4) {
        return std::nullopt;
    }
    return static_cast<std::int64_t>(be32(r.payload, 0));
}

} // namespace

std::optional<Metadata> read(Bytes bytes) {
    bytes = bytes.first(std::min(bytes.size(), kHeaderBytes));
    if (bytes.size() < 129 || std::memcmp(bytes.data() + 4, "RED2", 4) != 0) {
        return std::nullopt;
    }
    Metadata m;
    m.timeBase = timeBase(bytes);
    if (auto size = frameSize(bytes)) {
        m.width = size->w;
        m.height = size->h;
    }
    // The reel name is split over two records that may come in any order.
    std::optional<std::string> reelStart;
    std::optional<std::string> reelEnd;
    for (const auto& r : records(bytes)) {
        switch (r.tag) {
        case 6:
            m.mediaSerial = text(r);
            break;
        case 25:
            reelStart = text(r);
            break;
        case 26:
            reelEnd = text(r);
            break;
        case 27:
            m.clipNumber = text(r);
            break;
        case 37:
            m.firmware = text(r);
            break;
        case 50:
            m.bodySerial = text(r);
            break;
        case 86:
            m.ownFilename = text(r);
            break;
        case 102:
            m.recordFrameRate = float32(r);
            break;
        case 160:
            m.model = text(r);
            break;
        case 161:
            m.sensor = text(r);
            break;
        case 173:
            m.edgeTimecode = text(r);
            break;
        case 174:
            m.todTimecode = text(r);
            break;
        case 191:
            m.audioSampleRate = uint32(r);
            break;
        case 196:
            m.sidecarWAV = text(r);
            break;
        default:
            break;
        }
    }
    // With only one half present, that half is the reel.
    if (reelStart || reelEnd) {
        m.reel = reelStart.value_or("") + reelEnd.value_or("");
    }
    if (!m.recordFrameRate && !m.sidecarWAV && !m.model) {
        return std::nullopt;
    }
    return m;
}

std::optional<Metadata> read(const std::filesystem::path& url) {
    // A FIFO or device would block the read or never end: only regular files are opened.
    if (!Files::isRegularFile(url)) {
        return std::nullopt;
    }
    std::ifstream file(url, std::ios::binary);
    if (!file) {
        return std::nullopt;
    }
    std::vector<std::uint8_t> bytes(kHeaderBytes);
    file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (file.bad()) {
        return std::nullopt;
    }
    bytes.resize(static_cast<std::size_t>(file.gcount()));
    return read(Bytes(bytes));
}

} // namespace R3DHeader
