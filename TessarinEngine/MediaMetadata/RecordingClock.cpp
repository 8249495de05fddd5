#include "TessarinEngine/MediaMetadata/ClipFile.h"
#include "TessarinEngine/platform/LocalTime.h"
#include "TessarinEngine/platform/Regex.h"

#include <cmath>

namespace MediaMetadata {

namespace {

std::optional<Date> readAssetCreationDate(Clip& clip) {
    if (clip.isRiffWave()) {
        return std::nullopt;
    }
    const auto* info = clip.probe();
    if (info == nullptr) {
        return std::nullopt;
    }
    // The creation date item a camera or phone writes, the user-data date, then the movie
    // header's own creation time; the tracks' times last.
    for (const char* key : {"com.apple.quicktime.creationdate", "date", "creation_time"}) {
        if (auto it = info->metadata.find(key); it != info->metadata.end()) {
            if (auto date = LocalTime::fromIso8601(it->second)) {
                return date;
            }
        }
    }
    for (const auto& stream : info->streams) {
        if (auto it = stream.metadata.find("creation_time"); it != stream.metadata.end()) {
            if (auto date = LocalTime::fromIso8601(it->second)) {
                return date;
            }
        }
    }
    return std::nullopt;
}

// A recorder writes its origination time in whole seconds and the same clock to the sample as the
// time reference. Where the reference names the same second of the day, its fraction is the part
// of the second the origination time leaves out; a reference that names another second is a
// timecode of its own (jammed elsewhere) and says nothing about this clock.
Date withTimeReferenceFraction(Date origination, std::optional<double> timeReference) {
    constexpr double kDay = 86400.0;
    if (!timeReference || !std::isfinite(*timeReference) || *timeReference < 0 ||
        !std::isfinite(origination)) {
        return origination;
    }
    const double whole = std::floor(*timeReference);
    const double secondOfDay = std::fmod(std::floor(origination), kDay);
    if (std::fmod(whole, kDay) != (secondOfDay < 0 ? secondOfDay + kDay : secondOfDay) ||
        origination != std::floor(origination)) {
        return origination;
    }
    return origination + (*timeReference - whole);
}

} // namespace

// Only a Sony XML date keeps the zone it was written in; the other sources give none.
RecordingClock recordingClock(Clip& clip) {
    if (isOneOf(clip.ext(), {"wav", "wave"})) {
        if (auto date = readBWFOriginationDate(clip.bytes())) {
            return {withTimeReferenceFraction(*date, readBWFTimecode(clip.bytes())),
                    ClockQuality::embedded, std::nullopt};
        }
    }
    if (isMovieExtension(clip.ext())) {
        if (auto zoned = sonyXMLClock(clip.bytes())) {
            return {zoned->date, ClockQuality::embedded, zoned->offsetMinutes};
        }
    }
    if (auto date = dateFromFilename(clip.url().filename().string())) {
        return {date, ClockQuality::filename, std::nullopt};
    }
    if (auto date = readAssetCreationDate(clip)) {
        return {date, ClockQuality::asset, std::nullopt};
    }
    if (auto date = clip.file().creationDate()) {
        return {date, ClockQuality::filesystem, std::nullopt};
    }
    if (auto date = clip.file().modificationDate()) {
        return {date, ClockQuality::filesystem, std::nullopt};
    }
    return {};
}

RecordingClock readRecordingClock(const std::filesystem::path& url) {
    return withClip(url, RecordingClock{}, recordingClock);
}

std::optional<Date> dateFromFilename(std::string_view name) {
    static const Regex::Pattern stamp("(\\d{8})_(\\d{6})$");
    const std::string stem = std::filesystem::path(name).stem().string();
    auto m = stamp.firstMatch(stem);
    if (!m) {
        return std::nullopt;
    }
    const std::string_view day = (*m)[1];
    const std::string_view time = (*m)[2];
    auto field = [](std::string_view text, std::size_t at, std::size_t n) {
        return parseDecimal(text.substr(at, n));
    };
    auto year = field(day, 0, 4), month = field(day, 4, 2), dom = field(day, 6, 2);
    auto hour = field(time, 0, 2), minute = field(time, 2, 2), second = field(time, 4, 2);
    if (!year || !month || !dom || !hour || !minute || !second) {
        return std::nullopt;
    }
    return LocalTime::fromLocal({static_cast<int>(*year), static_cast<int>(*month),
                                 static_cast<int>(*dom), static_cast<int>(*hour),
                                 static_cast<int>(*minute), static_cast<double>(*second)});
}

} // namespace MediaMetadata
