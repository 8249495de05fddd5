#pragma once

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace TimelineFixtures {

// One clip of a hand-made event stream.
struct Clip {
    std::string path;
    std::string track;
    std::string mediaType;
    double start = 0;
    double duration = 0;
    std::string status = "synced";
    std::optional<double> frameRate;
    std::optional<double> driftPpm;
    std::optional<std::pair<int, int>> size;

    Clip() = default;
    Clip(std::string path_, std::string track_, std::string mediaType_, double start_,
         double duration_, std::string status_ = "synced",
         std::optional<double> frameRate_ = std::nullopt,
         std::optional<double> driftPpm_ = std::nullopt,
         std::optional<std::pair<int, int>> size_ = std::nullopt)
        : path(std::move(path_)), track(std::move(track_)), mediaType(std::move(mediaType_)),
          start(start_), duration(duration_), status(std::move(status_)), frameRate(frameRate_),
          driftPpm(driftPpm_), size(size_) {}
};

inline nlohmann::ordered_json resultEvent(const Clip& c) {
    nlohmann::json e = {
        {"type", "result"},          {"path", c.path},
        {"session", "/shoot/Day 1"}, {"track", c.track},
        {"mediaType", c.mediaType},  {"startOffset", c.start},
        {"duration", c.duration},    {"syncStatus", c.status},
        {"matchScore", 9.5},         {"placement", "A1"},
        {"audioUsability", "ok"},    {"explanation", "Strong audio match \u00B7 score 9.5"},
        {"channelCount", 2}};
    if (c.frameRate) {
        e["frameRate"] = *c.frameRate;
    }
    if (c.size) {
        e["pixelWidth"] = c.size->first;
        e["pixelHeight"] = c.size->second;
    }
    if (c.driftPpm) {
        e["driftPpm"] = *c.driftPpm;
    }
    return e;
}

// The event stream of a finished run over the clips: progress, results, done, one a line.
inline std::string eventStream(const std::vector<Clip>& clips) {
    std::string out = R"({"type":"progress","phase":"metadata","fraction":1})"
                      "\n";
    double end = 0;
    std::vector<std::string> tracks;
    for (const auto& c : clips) {
        out += resultEvent(c).dump() + "\n";
        end = std::max(end, c.start + c.duration);
        if (std::find(tracks.begin(), tracks.end(), c.track) == tracks.end()) {
            tracks.push_back(c.track);
        }
    }
    out += nlohmann::ordered_json{{"type", "done"},
                                  {"trackCount", tracks.size()},
                                  {"clipCount", clips.size()},
                                  {"timelineDuration", end}}
               .dump() +
           "\n";
    return out;
}

// A small shoot at 23.976 fps: an audio track listed first (the picture must still put video
// first), two cameras, gaps everywhere, one failed clip, and one camera clip of another rate.
inline std::vector<Clip> smallShoot() {
    const std::pair<int, int> hd{1920, 1080};
    return {
        {"/shoot/Day 1/Sound/T001.WAV", "Sound", "audio", 0.0, 100.0},
        {"/shoot/Day 1/Sound/T002.WAV", "Sound", "audio", 110.0, 60.0},
        {"/shoot/Day 1/CamA/A001.MOV", "CamA", "video", 5.02, 35.0, "synced", 23.976, {}, hd},
        {"/shoot/Day 1/CamA/A002.MOV", "CamA", "video", 55.5, 40.0, "weak", 23.976, {}, hd},
        {"/shoot/Day 1/CamA/A003 #&.MOV", "CamA", "video", 120.013, 30.0, "failed", 23.976, {}, hd},
        {"/shoot/Day 1/CamB/C0001.MP4",
         "CamB",
         "video",
         12.3,
         30.0,
         "synced",
         25.0,
         {},
         std::pair{3840, 2160}},
        {"/shoot/Day 1/CamB/C0002.MP4", "CamB", "video", 70.04, 45.0, "synced", 23.976, {}, hd},
    };
}

inline std::string unescape(std::string text) {
    const std::pair<std::string, std::string> entities[] = {
        {"&lt;", "<"}, {"&gt;", ">"}, {"&quot;", "\""}, {"&apos;", "'"}, {"&amp;", "&"}};
    for (const auto& [entity, plain] : entities) {
        for (auto at = text.find(entity); at != std::string::npos; at = text.find(entity, at + 1)) {
            text.replace(at, entity.size(), plain);
        }
    }
    return text;
}

// The first tag of a line of the writers' markup (one element a line): its name, attributes and
// the text after it up to the next tag.
struct Tag {
    std::string name;
    std::map<std::string, std::string> attributes;
    std::string text;
};

inline Tag firstTag(const std::string& line) {
    Tag tag;
    const auto at = line.find('<');
    const auto end = line.find('>', at);
    if (at == std::string::npos || end == std::string::npos) {
        return tag;
    }
    const std::string inside = line.substr(at + 1, end - at - 1);
    auto i = inside.find_first_of(" /");
    tag.name = inside.substr(0, i);
    while (i != std::string::npos && (i = inside.find('=', i)) != std::string::npos) {
        const auto name = inside.rfind(' ', i) + 1;
        const auto close = inside.find('"', i + 2);
        tag.attributes[inside.substr(name, i - name)] =
            unescape(inside.substr(i + 2, close - i - 2));
        i = close + 1;
    }
    tag.text = unescape(line.substr(end + 1, line.find('<', end) - end - 1));
    return tag;
}

} // namespace TimelineFixtures
