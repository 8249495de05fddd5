#include "TessarinTimeline/EventStream.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;

std::optional<std::string> textField(const json& e, const char* key) {
    auto it = e.find(key);
    if (it == e.end() || !it->is_string()) {
        return std::nullopt;
    }
    return it->get<std::string>();
}

std::optional<double> numberField(const json& e, const char* key) {
    auto it = e.find(key);
    if (it == e.end() || !it->is_number()) {
        return std::nullopt;
    }
    const double value = it->get<double>();
    if (!std::isfinite(value)) {
        return std::nullopt;
    }
    return value;
}

std::optional<int> integerField(const json& e, const char* key) {
    auto it = e.find(key);
    if (it == e.end() || !it->is_number_integer()) {
        return std::nullopt;
    }
    const auto value = it->get<long long>();
    if (value < 0 || value > 1'000'000'000) {
        return std::nullopt;
    }
    return static_cast<int>(value);
}

std::optional<float> floatField(const json& e, const char* key) {
    if (auto value = numberField(e, key)) {
        return static_cast<float>(*value);
    }
    return std::nullopt;
}

// A result with every field the layout needs, or the name of the first one missing. Optional
// fields of the wrong type are dropped like unknown ones: the clip still has a place.
std::variant<TimelineClip, std::string> readResult(const json& e) {
    TimelineClip clip;
    ResultEvent& r = clip.result;
    auto path = textField(e, "path");
    auto track = textField(e, "track");
    auto mediaType = textField(e, "mediaType");
    auto start = numberField(e, "startOffset");
    auto duration = numberField(e, "duration");
    auto status = textField(e, "syncStatus");
    if (!path || path->empty()) {
        return std::string("path");
    }
    if (!track) {
        return std::string("track");
    }
    if (!mediaType || (*mediaType != "video" && *mediaType != "audio")) {
        return std::string("mediaType");
    }
    // Positions beyond a hundred days are no shoot's; they would overflow frame counts.
    constexpr double kLongest = 1e7;
    if (!start || std::abs(*start) > kLongest) {
        return std::string("startOffset");
    }
    if (!duration || *duration < 0 || *duration > kLongest) {
        return std::string("duration");
    }
    if (!status) {
        return std::string("syncStatus");
    }
    r.path = *path;
    r.track = *track;
    r.mediaType = *mediaType;
    r.startOffset = *start;
    r.duration = *duration;
    r.syncStatus = *status;
    r.session = textField(e, "session").value_or("");
    r.matchScore = floatField(e, "matchScore");
    r.placement = textField(e, "placement");
    r.audioUsability = textField(e, "audioUsability").value_or("ok");
    r.explanation = textField(e, "explanation").value_or("");
    r.channelCount = integerField(e, "channelCount").value_or(1);
    r.frameRate = floatField(e, "frameRate");
    if (r.frameRate && *r.frameRate <= 0) {
        r.frameRate.reset();
    }
    r.pixelWidth = integerField(e, "pixelWidth");
    r.pixelHeight = integerField(e, "pixelHeight");
    r.picturePath = textField(e, "picturePath");
    r.pictureDuration = numberField(e, "pictureDuration");
    r.recordFrameRate = floatField(e, "recordFrameRate");
    r.conformFrameRate = floatField(e, "conformFrameRate");
    clip.driftPpm = numberField(e, "driftPpm");
    return clip;
}

std::string lineText(std::size_t number) {
    return "line " + std::to_string(number);
}

} // namespace

namespace EventStream {

std::variant<Timeline, StreamFault> readTimeline(std::string_view text) {
    struct Line {
        std::size_t number;
        std::string_view text;
    };
    std::vector<Line> lines;
    std::size_t number = 0;
    for (std::size_t pos = 0; pos < text.size();) {
        auto end = text.find('\n', pos);
        if (end == std::string_view::npos) {
            end = text.size();
        }
        auto line = text.substr(pos, end - pos);
        ++number;
        if (line.find_first_not_of(" \t\r") != std::string_view::npos) {
            lines.push_back({number, line});
        }
        pos = end + 1;
    }

    Timeline timeline;
    std::vector<TimelineClip> clips;
    std::optional<std::string> runError;
    bool done = false;
    for (std::size_t i = 0; i < lines.size() && !done; ++i) {
        const auto& line = lines[i];
        const json e = json::parse(line.text, nullptr, false);
        if (e.is_discarded()) {
            // A run that was stopped leaves half a line behind it.
            if (i + 1 == lines.size()) {
                return StreamFault{lineText(line.number) +
                                   " is cut short: the engine's run did not finish"};
            }
            return StreamFault{lineText(line.number) + " is not JSON"};
        }
        if (!e.is_object()) {
            return StreamFault{lineText(line.number) + " is not an event object"};
        }
        const auto type = textField(e, "type");
        if (type == "result") {
            auto clip = readResult(e);
            if (auto* missing = std::get_if<std::string>(&clip)) {
                return StreamFault{lineText(line.number) + ": a result without a usable \"" +
                                   *missing + "\""};
            }
            clips.push_back(std::get<TimelineClip>(std::move(clip)));
        } else if (type == "error") {
            if (!e.contains("path")) {
                runError = textField(e, "message").value_or("");
            }
        } else if (type == "done") {
            auto tracks = integerField(e, "trackCount");
            auto count = integerField(e, "clipCount");
            auto duration = numberField(e, "timelineDuration");
            if (!tracks || !count || !duration) {
                return StreamFault{lineText(line.number) + ": a done event without its totals"};
            }
            timeline.done = DoneEvent{*tracks, *count, *duration};
            done = true;
        }
    }

    if (!done) {
        if (runError) {
            return StreamFault{"the engine's run failed (\"" + *runError +
                               "\"): there is no timeline"};
        }
        return StreamFault{"no done event: the engine's run did not finish"};
    }
    if (clips.empty()) {
        return StreamFault{"no result events: there is no clip to lay out"};
    }

    timeline.session = clips.front().result.session;
    for (auto& clip : clips) {
        auto it = std::find_if(timeline.tracks.begin(), timeline.tracks.end(),
                               [&](const TimelineTrack& t) { return t.name == clip.result.track; });
        if (it == timeline.tracks.end()) {
            const auto type =
                clip.result.mediaType == "video" ? SourceType::video : SourceType::audio;
            timeline.tracks.push_back({clip.result.track, type, {}});
            it = std::prev(timeline.tracks.end());
        }
        it->clips.push_back(std::move(clip));
    }
    std::stable_partition(timeline.tracks.begin(), timeline.tracks.end(),
                          [](const TimelineTrack& t) { return t.type == SourceType::video; });
    return timeline;
}

} // namespace EventStream
