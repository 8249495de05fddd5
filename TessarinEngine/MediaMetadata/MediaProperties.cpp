#include "TessarinEngine/MediaMetadata/ClipFile.h"
#include "TessarinEngine/platform/MediaProbe.h"

#include <algorithm>
#include <cmath>

namespace MediaMetadata {

std::optional<float> frameRate(Clip& clip) {
    if (const auto* braw = clip.braw()) {
        return static_cast<float>(braw->frameRate);
    }
    if (clip.wave()) {
        return std::nullopt;
    }
    const auto* video = clip.firstStream(MediaProbe::StreamKind::video);
    if (video == nullptr || !video->frameRate) {
        return std::nullopt;
    }
    return static_cast<float>(*video->frameRate);
}

std::optional<std::pair<int, int>> videoSize(Clip& clip) {
    if (const auto* braw = clip.braw(); braw && braw->width > 0 && braw->height > 0) {
        return std::pair{static_cast<int>(braw->width), static_cast<int>(braw->height)};
    }
    if (clip.wave()) {
        return std::nullopt;
    }
    const auto* video = clip.firstStream(MediaProbe::StreamKind::video);
    if (video == nullptr || video->width <= 0 || video->height <= 0) {
        return std::nullopt;
    }
    double width = video->width;
    double height = video->height;
    if (video->displayMatrix) {
        // The size as the transform maps it: (a*w + c*h, b*w + d*h), 16.16 fixed point.
        const auto& m = *video->displayMatrix;
        const double a = m[0] / 65536.0, b = m[1] / 65536.0;
        const double c = m[3] / 65536.0, d = m[4] / 65536.0;
        const double w = a * width + c * height;
        const double h = b * width + d * height;
        width = w;
        height = h;
    }
    return std::pair{static_cast<int>(std::lround(std::fabs(width))),
                     static_cast<int>(std::lround(std::fabs(height)))};
}

double duration(Clip& clip) {
    if (const auto* braw = clip.braw(); braw && braw->pictureDuration() > 0) {
        return braw->pictureDuration();
    }
    if (clip.wave()) {
        return clip.wave()->duration;
    }
    const auto* info = clip.probe();
    if (info == nullptr) {
        return 0;
    }
    if (info->duration) {
        return *info->duration;
    }
    double longest = 0;
    for (const auto& stream : info->streams) {
        longest = std::max(longest, stream.duration.value_or(0));
    }
    return longest;
}

int channelCount(Clip& clip) {
    if (clip.wave()) {
        return std::max(clip.wave()->channels, 1);
    }
    const auto* audio = clip.firstStream(MediaProbe::StreamKind::audio);
    return audio != nullptr && audio->channels > 0 ? audio->channels : 1;
}

std::vector<int> defaultChannelIndices(int channelCount) {
    std::vector<int> indices(static_cast<std::size_t>(std::max(channelCount, 1)));
    for (std::size_t i = 0; i < indices.size(); ++i) {
        indices[i] = static_cast<int>(i) + 1;
    }
    return indices;
}

std::vector<int> audioChannelIndices(Clip& clip, int channelCount) {
    if (!isBroadcastWaveExtension(clip.ext())) {
        return defaultChannelIndices(channelCount);
    }
    return readIXMLChannelIndices(clip.bytes(), channelCount);
}

std::optional<float> readFrameRate(const std::filesystem::path& url) {
    return withClip(url, std::optional<float>{}, frameRate);
}

std::optional<std::pair<int, int>> readVideoSize(const std::filesystem::path& url) {
    return withClip(url, std::optional<std::pair<int, int>>{}, videoSize);
}

double readDuration(const std::filesystem::path& url) {
    return withClip(url, 0.0, duration);
}

int readChannelCount(const std::filesystem::path& url) {
    return withClip(url, 1, channelCount);
}

std::vector<int> readAudioChannelIndices(const std::filesystem::path& url, int channelCount) {
    return withClip(url, defaultChannelIndices(channelCount),
                    [&](Clip& clip) { return audioChannelIndices(clip, channelCount); });
}

} // namespace MediaMetadata
