#include "TessarinEngine/MediaMetadata/ClipFile.h"
#include "TessarinEngine/platform/QuickTime.h"

namespace MediaMetadata {

namespace {

std::optional<double> timecodeOfMovie(const QuickTime::Movie& movie, Bytes file) {
    auto sample = QuickTime::readTimecodeSample(movie, file);
    if (!sample || sample->frameQuanta == 0) {
        return std::nullopt;
    }
    return static_cast<double>(sample->frameNumber) / sample->frameQuanta;
}

std::optional<double> movieTimecode(Clip& clip) {
    const auto* movie = clip.movie();
    if (movie == nullptr) {
        return std::nullopt;
    }
    return timecodeOfMovie(*movie, clip.bytes());
}

std::optional<double> bwfTimecode(Clip& clip) {
    if (!isBroadcastWaveExtension(clip.ext())) {
        return std::nullopt;
    }
    return readBWFTimecode(clip.bytes());
}

} // namespace

std::optional<double> startTimecode(Clip& clip) {
    if (auto tc = movieTimecode(clip)) {
        return tc;
    }
    if (auto tc = readSonyNRTMTimecode(clip.bytes())) {
        return tc;
    }
    return bwfTimecode(clip);
}

std::optional<double> readStartTimecode(const std::filesystem::path& url) {
    return withClip(url, std::optional<double>{}, startTimecode);
}

std::optional<double> readMovieTimecode(const std::filesystem::path& url) {
    return withClip(url, std::optional<double>{}, movieTimecode);
}

std::optional<double> readSonyNRTMTimecode(const std::filesystem::path& url) {
    return withClip(url, std::optional<double>{},
                    [](Clip& clip) { return readSonyNRTMTimecode(clip.bytes()); });
}

std::optional<double> readBWFTimecode(const std::filesystem::path& url) {
    return withClip(url, std::optional<double>{}, bwfTimecode);
}

std::optional<double> readMovieTimecode(Bytes movieFile) {
    auto movie = QuickTime::readMovie(movieFile);
    return movie ? timecodeOfMovie(*movie, movieFile) : std::nullopt;
}

} // namespace MediaMetadata
