#include "TessarinEngine/MediaMetadata/ClipFile.h"

#include "TessarinEngine/platform/MappedFile.h"
#include "TessarinEngine/platform/Riff.h"
#include "TessarinEngine/platform/Unicode.h"

#include <algorithm>
#include <charconv>

namespace MediaMetadata {

std::string_view asText(Bytes bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// Readers trim what they find, and an empty name counts as none.
std::optional<std::string> nonEmpty(std::optional<std::string> text) {
    if (!text) {
        return std::nullopt;
    }
    auto trimmed = Unicode::trimWhitespace(*text);
    if (trimmed.empty()) {
        return std::nullopt;
    }
    return trimmed;
}

// "a" and "b" joined by a blank where both exist, else the one there is.
std::optional<std::string> joined(const std::optional<std::string>& a,
                                  const std::optional<std::string>& b) {
    if (a && b) {
        return *a + " " + *b;
    }
    return a ? a : b;
}

std::optional<long long> parseDecimal(std::string_view digits) {
    long long value = 0;
    auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (error != std::errc{} || end != digits.data() + digits.size()) {
        return std::nullopt;
    }
    return value;
}

bool isOneOf(const std::string& ext, std::initializer_list<std::string_view> list) {
    return std::find(list.begin(), list.end(), ext) != list.end();
}

bool isMovieExtension(const std::string& ext) {
    return isOneOf(ext, {"mov", "mp4", "m4v"});
}

bool isBroadcastWaveExtension(const std::string& ext) {
    return isOneOf(ext, {"wav", "bwf", "wave"});
}

std::optional<WaveShape> readWaveShape(Bytes bytes) {
    std::optional<Riff::Format> format;
    std::optional<Riff::Chunk> data;
    Riff::forEachChunk(bytes, [&](const Riff::Chunk& chunk) {
        if (chunk.id == "fmt " && !format) {
            format = Riff::readFormat(chunk.content);
        } else if (chunk.id == "data" && !data) {
            data = chunk;
        }
        return !(format && data);
    });
    constexpr std::uint16_t kPcm = 1;
    constexpr std::uint16_t kFloat = 3;
    if (!format || !data || (format->subFormat != kPcm && format->subFormat != kFloat) ||
        format->blockAlign == 0 || format->sampleRate == 0) {
        return std::nullopt;
    }
    // A recorder that stopped before fixing its sizes leaves a data size past the end; what
    // the file holds is what plays.
    const auto frames = data->content.size() / format->blockAlign;
    return WaveShape{format->channels, static_cast<double>(frames) / format->sampleRate};
}

std::optional<Clip> openClip(const std::filesystem::path& url) {
    auto file = MappedFile::open(url);
    if (!file) {
        return std::nullopt;
    }
    return Clip(url, std::move(*file));
}

ClipMeta readClipMeta(const std::filesystem::path& url) {
    ClipMeta unread;
    unread.channelMap = defaultChannelIndices(unread.channels);
    return withClip(url, unread, [](Clip& clip) {
        ClipMeta meta;
        meta.duration = duration(clip);
        meta.fps = frameRate(clip);
        meta.device = deviceInfo(clip);
        const auto clock = recordingClock(clip);
        meta.date = clock.date;
        meta.quality = clock.quality;
        meta.clockOffsetMinutes = clock.offsetMinutes;
        meta.channels = channelCount(clip);
        meta.size = videoSize(clip);
        meta.timecode = startTimecode(clip);
        meta.channelMap = audioChannelIndices(clip, meta.channels);
        return meta;
    });
}

} // namespace MediaMetadata
