#include "TessarinEngine/EnvelopeCache.h"

#include "TessarinEngine/EngineLog.h"
#include "TessarinEngine/platform/Files.h"

#include <algorithm>
#include <bit>
#include <cctype>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <string_view>

namespace EnvelopeCache {

namespace {

constexpr std::uint32_t kBandsVersion = 6;
constexpr std::uint32_t kEnvelopeVersion = 4;
constexpr double kMaxAgeSeconds = 604800;            // 7 days
constexpr std::int64_t kCeilingBytes = 2147483648LL; // 2 GiB

struct DirState {
    std::mutex mutex;
    std::filesystem::path dir;
};

DirState& dirState() {
    static DirState state;
    return state;
}

// Little-endian on disk whatever the host; the cache files stay valid across machines.
void putU32(std::vector<std::uint8_t>& out, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
    }
}

void putFloats(std::vector<std::uint8_t>& out, const std::vector<float>& values) {
    for (float f : values) {
        std::uint32_t bits;
        std::memcpy(&bits, &f, 4);
        putU32(out, bits);
    }
}

std::uint32_t getU32(const std::uint8_t* p) {
    return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
           static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

bool isLowerHex(std::string_view text) {
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

// Whether a name is one the cache writes: "{key}", "{key}.bands", or either with a temporary
// suffix. The prune touches nothing else.
bool isCacheName(std::string_view name) {
    constexpr std::size_t kKeyLength = 16;
    if (name.size() < kKeyLength || !isLowerHex(name.substr(0, kKeyLength))) {
        return false;
    }
    name.remove_prefix(kKeyLength);
    if (name.starts_with(".bands")) {
        name.remove_prefix(6);
    }
    if (name.starts_with(Files::kReplacementMark)) {
        name.remove_prefix(Files::kReplacementMark.size());
        return name.size() == 6 && std::all_of(name.begin(), name.end(), [](char c) {
                   return std::isalnum(static_cast<unsigned char>(c)) != 0;
               });
    }
    return name.empty();
}

} // namespace

std::filesystem::path cacheDir() {
    auto& s = dirState();
    std::lock_guard lock(s.mutex);
    return s.dir;
}

void setCacheDir(std::filesystem::path dir) {
    auto& s = dirState();
    std::lock_guard lock(s.mutex);
    s.dir = std::move(dir);
}

std::optional<std::string> cacheKey(const std::filesystem::path& url) {
    const auto st = Files::status(url);
    if (!st) {
        return std::nullopt;
    }
    // Nanoseconds: a file rewritten within the same second with the same size is another file.
    const std::string text =
        url.string() + "|" + std::to_string(st->size) + "|" + std::to_string(st->modifiedNs);
    // FNV-1a: unlike a multiply-and-add hash, texts of equal length that differ in two bytes
    // ("Ab" and "BA") do not meet.
    std::uint64_t h = 0xcbf29ce484222325ULL;
    for (unsigned char c : text) {
        h = (h ^ c) * 0x100000001b3ULL;
    }
    char key[17];
    std::snprintf(key, sizeof key, "%016" PRIx64, h);
    return std::string(key);
}

std::optional<SpectralBands::Feature> decodeBands(std::span<const std::uint8_t> bytes) {
    std::size_t pos = 0;
    std::uint32_t header[3];
    for (auto& word : header) {
        if (bytes.size() - pos < 4) {
            return std::nullopt;
        }
        word = getU32(bytes.data() + pos);
        pos += 4;
    }
    if (header[0] != kBandsVersion || header[2] > INT_MAX) {
        return std::nullopt;
    }
    // No feature has more than a handful of bands; a count in the millions with no frames would
    // fit the byte test and still cost gigabytes of empty bands, so such a file is foreign.
    constexpr std::uint32_t kMaxBands = 1024;
    if (header[1] > kMaxBands) {
        return std::nullopt;
    }
    const std::uint64_t bandCount = header[1];
    const std::uint64_t frames = header[2];
    const std::uint64_t runBytes = frames * 4;
    if (bandCount > 0 && (bytes.size() - pos) / bandCount < runBytes) {
        return std::nullopt;
    }
    SpectralBands::Feature::Bands bands(bandCount);
    for (auto& band : bands) {
        band.resize(frames);
        if (runBytes > 0) {
            std::memcpy(band.data(), bytes.data() + pos, runBytes);
        }
        pos += runBytes;
    }
    if (std::endian::native != std::endian::little) {
        for (auto& band : bands) {
            for (auto& f : band) {
                std::uint32_t bits;
                std::memcpy(&bits, &f, 4);
                bits = getU32(reinterpret_cast<const std::uint8_t*>(&bits));
                std::memcpy(&f, &bits, 4);
            }
        }
    }
    return SpectralBands::Feature(std::move(bands), static_cast<int>(frames));
}

std::vector<std::uint8_t> encodeBands(const SpectralBands::Feature& feature) {
    std::vector<std::uint8_t> out;
    out.reserve(12 + feature.bandCount() * static_cast<std::size_t>(feature.frames) * 4);
    putU32(out, kBandsVersion);
    putU32(out, static_cast<std::uint32_t>(feature.bandCount()));
    putU32(out, static_cast<std::uint32_t>(feature.frames));
    for (std::size_t b = 0; b < feature.bandCount(); ++b) {
        putFloats(out, feature.band(b));
    }
    return out;
}

std::optional<SpectralBands::Feature> loadBands(const std::filesystem::path& url) {
    auto key = cacheKey(url);
    if (!key) {
        return std::nullopt;
    }
    // A file too large for memory, planted under the entry's name, is a miss like any other.
    try {
        auto bytes = Files::readRegularFile(cacheDir() / (*key + ".bands"));
        if (!bytes) {
            return std::nullopt;
        }
        return decodeBands(*bytes);
    } catch (const std::bad_alloc&) {
        return std::nullopt;
    }
}

void saveBands(const std::filesystem::path& url, const SpectralBands::Feature& feature) {
    auto key = cacheKey(url);
    if (!key) {
        return;
    }
    // Counts past 32 bits cannot be written in this format.
    if (feature.bandCount() > UINT32_MAX || feature.frames < 0) {
        return;
    }
    const auto dir = cacheDir();
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    Files::replaceFile(dir / (*key + ".bands"), encodeBands(feature));
}

std::vector<std::uint8_t> serialize(const std::vector<float>& preview,
                                    const std::vector<float>& envelope) {
    std::vector<std::uint8_t> out;
    out.reserve(12 + 4 * (preview.size() + envelope.size()));
    putU32(out, kEnvelopeVersion);
    putU32(out, static_cast<std::uint32_t>(preview.size()));
    putFloats(out, preview);
    putU32(out, static_cast<std::uint32_t>(envelope.size()));
    putFloats(out, envelope);
    return out;
}

void saveEnvelope(const std::filesystem::path& url, const std::vector<float>& envelope) {
    auto key = cacheKey(url);
    if (!key) {
        return;
    }
    const auto dir = cacheDir();
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    Files::replaceFile(dir / *key, serialize({}, envelope));
}

PruneResult prune(Date now) {
    struct Entry {
        std::filesystem::path url;
        std::int64_t size = 0;
        double touched = 0;
    };
    const auto dir = cacheDir();
    std::vector<Entry> entries;
    std::error_code ec;
    std::filesystem::directory_iterator it(dir, ec);
    if (ec) {
        return {};
    }
    for (; it != std::filesystem::directory_iterator(); it.increment(ec)) {
        if (ec) {
            return {};
        }
        // Only our own files: a user's file, a folder or a link is left alone and not counted.
        // A link is seen as the link.
        if (!isCacheName(it->path().filename().string())) {
            continue;
        }
        const auto st = Files::status(it->path(), false);
        if (!st || !st->regular) {
            continue;
        }
        entries.push_back({it->path(), st->size, static_cast<double>(st->accessedNs) / 1e9});
    }

    PruneResult result;
    // unlink removes the name itself: were it swapped for a link since, the link goes, never
    // what it points to.
    auto removeEntry = [&](const Entry& e) {
        if (Files::removeName(e.url)) {
            result.removed += 1;
            result.bytesFreed += e.size;
            return true;
        }
        return false;
    };

    const double cutoff = now - kMaxAgeSeconds;
    std::vector<Entry> survivors;
    for (const auto& e : entries) {
        if (e.touched < cutoff) {
            removeEntry(e);
        } else {
            survivors.push_back(e);
        }
    }

    std::int64_t total = 0;
    for (const auto& e : survivors) {
        total += e.size;
    }
    if (total > kCeilingBytes) {
        std::stable_sort(survivors.begin(), survivors.end(),
                         [](const Entry& a, const Entry& b) { return a.touched < b.touched; });
        for (const auto& e : survivors) {
            if (total <= kCeilingBytes) {
                break;
            }
            if (removeEntry(e)) {
                total -= e.size;
            }
        }
    }

    if (result.removed >= 1) {
        char line[256];
        std::snprintf(line, sizeof line,
                      "[Cache] pruned %d entr%s (%.0f MB) \u2014 older than %.0f days or over the "
                      "%.0f GB ceiling",
                      result.removed, result.removed == 1 ? "y" : "ies",
                      static_cast<double>(result.bytesFreed) / 1048576.0, 7.0, 2.0);
        EngineLog::log(line);
    }
    return result;
}

} // namespace EnvelopeCache
