#include "fuzz/Targets.h"

#include "TessarinEngine/EnvelopeCache.h"
#include "TessarinEngine/MediaMetadata.h"
#include "TessarinEngine/R3DHeader.h"
#include "TessarinEngine/platform/QuickTime.h"
#include "TessarinEngineCLI/Request.h"

#include <algorithm>
#include <array>
#include <span>
#include <string>

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

const std::array<Entry, 7> kTargets = {{
    {"request", request},
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
