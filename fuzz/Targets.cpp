#include "fuzz/Targets.h"

#include "TessarinEngine/EnvelopeCache.h"
#include "TessarinEngine/MediaMetadata.h"
#include "TessarinEngine/R3DHeader.h"
#include "TessarinEngine/platform/QuickTime.h"
#include "TessarinEngineCLI/Request.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace FuzzTargets {

namespace {

void request(const std::uint8_t* data, std::size_t size) {
    auto r = decodeRequest(std::string_view(reinterpret_cast<const char*>(data), size));
    if (r) {
        // Touch what was decoded, so a bad item shows up here and not later.
        std::size_t total = 0;
        for (const auto& item : r->items) {
            total += item.path.size() + item.dropHint.size();
        }
        (void)total;
    }
}

void bands(const std::uint8_t* data, std::size_t size) {
    auto f = EnvelopeCache::decodeBands(std::span<const std::uint8_t>(data, size));
    if (f) {
        // What was read must write back to the bytes it came from (compared as bytes: a NaN in
        // the file is still the same NaN).
        auto again = EnvelopeCache::encodeBands(*f);
        if (again.size() > size || !std::equal(again.begin(), again.end(), data)) {
            __builtin_trap();
        }
    }
}

using Bytes = std::span<const std::uint8_t>;

// The chunk walkers of Broadcast WAV files: dates, names, channel indices and the timecode search.
void riff(const std::uint8_t* data, std::size_t size) {
    const Bytes bytes(data, size);
    (void)MediaMetadata::readBWFOriginationDate(bytes);
    (void)MediaMetadata::readBWFOriginator(bytes);
    (void)MediaMetadata::readBWFTimecode(bytes);
    for (int channels : {1, 2, 8}) {
        auto indices = MediaMetadata::readIXMLChannelIndices(bytes, channels);
        if (indices.empty()) {
            __builtin_trap(); // at least one number, always
        }
    }
}

// The box reader and every step that walks atoms.
void quicktime(const std::uint8_t* data, std::size_t size) {
    const Bytes bytes(data, size);
    (void)QuickTime::readDeviceAtoms(bytes);
    if (auto movie = QuickTime::readMovie(bytes)) {
        (void)QuickTime::readTimecodeSample(*movie, bytes);
        for (const auto& track : movie->tracks) {
            int budget = 1000;
            QuickTime::forEachSample(track, bytes,
                                     [&](const QuickTime::Sample&) { return --budget > 0; });
        }
    }
    (void)MediaMetadata::readMovieTimecode(bytes);
    (void)MediaMetadata::readTimedMetadataDevice(bytes);
    (void)MediaMetadata::readQuickTimeDeviceAtoms(bytes);
    (void)MediaMetadata::sonyNonRealTimeMetaXML(bytes);
    (void)MediaMetadata::readSonyNRTMTimecode(bytes);
    (void)MediaMetadata::extractCameraAttributesModel(bytes);
}

// The searches for camera XML at the end of a file and in sidecar documents.
void sonyxml(const std::uint8_t* data, std::size_t size) {
    const Bytes bytes(data, size);
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    (void)MediaMetadata::readSonyXMLDate(bytes);
    (void)MediaMetadata::readXMLBox(bytes);
    (void)MediaMetadata::parseCameraFromXML(text);
    (void)MediaMetadata::sonyNRTMTimecodeFromXML(text);
}

// iXML channel indices for every channel count a recorder writes.
void ixml(const std::uint8_t* data, std::size_t size) {
    const Bytes bytes(data, size);
    for (int channels = 1; channels <= 16; channels *= 2) {
        auto indices = MediaMetadata::readIXMLChannelIndices(bytes, channels);
        if (indices.empty()) {
            __builtin_trap();
        }
    }
}

void r3d(const std::uint8_t* data, std::size_t size) {
    (void)R3DHeader::read(Bytes(data, size));
}

// Request paths as the run takes them: the input is a request, or else a path and a drop hint
// split at the first line feed. A path with a NUL is refused; every other one comes out absolute,
// relative ones below the working folder without "." or empty components.
void paths(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    std::vector<RequestItem> items;
    if (auto r = decodeRequest(text)) {
        items = r->items;
    } else {
        const auto cut = std::min(text.find('\n'), text.size());
        items.push_back({std::string(text.substr(0, cut)),
                         std::string(text.substr(std::min(cut + 1, text.size())))});
    }
    const std::filesystem::path working = "/work/shoot day 1";
    for (const auto& item : items) {
        const auto resolved = resolveItem(item, working);
        const bool nul = item.path.find('\0') != std::string::npos ||
                         item.dropHint.find('\0') != std::string::npos;
        if (resolved.has_value() == nul) {
            __builtin_trap();
        }
        if (!resolved) {
            continue;
        }
        for (const auto& [given, out] :
             {std::pair{&item.path, &resolved->path}, {&item.dropHint, &resolved->dropHint}}) {
            const std::filesystem::path p(*out);
            if (!p.is_absolute()) {
                __builtin_trap();
            }
            if (std::filesystem::path(*given).is_absolute()) {
                if (*given != *out) {
                    __builtin_trap();
                }
                continue;
            }
            if (!out->starts_with(working.string())) {
                __builtin_trap();
            }
            for (const auto& part : std::filesystem::path(*out)) {
                if (part.empty() || part == ".") {
                    __builtin_trap();
                }
            }
        }
    }
}

// A folder made once per process for the cache target, removed at exit.
struct HostileFolder {
    std::filesystem::path dir;
    HostileFolder() {
        std::string name =
            (std::filesystem::temp_directory_path() / "tessarin-fuzz-XXXXXX").string();
        if (::mkdtemp(name.data()) == nullptr) {
            std::abort();
        }
        dir = name;
        std::filesystem::create_directories(dir / "cache");
        std::ofstream(dir / "clip.wav") << "media";
        std::ofstream(dir / "outside") << "a user's file";
    }
    ~HostileFolder() {
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    }
};

// Feature files read from a folder an attacker filled: the first byte says what lies under the
// entry's name (our file holding the rest, a link to a file holding it, a FIFO or a folder).
// Only our own regular file may be read, as its bytes decode; nothing may hang, and the write
// that follows replaces the name without touching what a link pointed to.
void cachedir(const std::uint8_t* data, std::size_t size) {
    static HostileFolder folder;
    if (size == 0) {
        return;
    }
    const auto previous = EnvelopeCache::cacheDir();
    EnvelopeCache::setCacheDir(folder.dir / "cache");
    const auto clip = folder.dir / "clip.wav";
    const auto key = EnvelopeCache::cacheKey(clip);
    if (!key) {
        std::abort();
    }
    const auto entry = folder.dir / "cache" / (*key + ".bands");
    const auto target = folder.dir / "target";
    std::error_code ec;
    std::filesystem::remove_all(entry, ec);
    const std::vector<std::uint8_t> content(data + 1, data + size);
    auto writeTo = [&](const std::filesystem::path& file) {
        std::ofstream(file, std::ios::binary)
            .write(reinterpret_cast<const char*>(content.data()),
                   static_cast<std::streamsize>(content.size()));
    };
    const int kind = data[0] % 4;
    switch (kind) {
    case 0:
        writeTo(entry);
        break;
    case 1:
        writeTo(target);
        std::filesystem::create_symlink(target, entry, ec);
        break;
    case 2:
        ::mkfifo(entry.c_str(), 0600);
        break;
    default:
        std::filesystem::create_directory(entry, ec);
    }
    const auto loaded = EnvelopeCache::loadBands(clip);
    if (kind != 0 && loaded) {
        __builtin_trap();
    }
    // Compared as bytes: a NaN in the file is still the same NaN.
    const auto decoded = EnvelopeCache::decodeBands(content);
    if (kind == 0 &&
        (loaded.has_value() != decoded.has_value() ||
         (loaded && EnvelopeCache::encodeBands(*loaded) != EnvelopeCache::encodeBands(*decoded)))) {
        __builtin_trap();
    }
    EnvelopeCache::saveBands(clip, SpectralBands::Feature({{1.0f, 2.0f}}, 2));
    if (kind == 1) {
        std::ifstream in(target, std::ios::binary);
        if (std::vector<std::uint8_t>(std::istreambuf_iterator<char>(in), {}) != content) {
            __builtin_trap();
        }
    }
    EnvelopeCache::setCacheDir(previous);
}

const std::array<Entry, 9> kTargets = {{
    {"request", request},
    {"paths", paths},
    {"cachedir", cachedir},
    {"bands", bands},
    {"riff", riff},
    {"quicktime", quicktime},
    {"sonyxml", sonyxml},
    {"ixml", ixml},
    {"r3d", r3d},
}};

} // namespace

const Entry* begin() {
    return kTargets.data();
}

const Entry* end() {
    return kTargets.data() + kTargets.size();
}

const Entry* find(std::string_view name) {
    for (const auto& t : kTargets) {
        if (t.name == name) {
            return &t;
        }
    }
    return nullptr;
}

} // namespace FuzzTargets
