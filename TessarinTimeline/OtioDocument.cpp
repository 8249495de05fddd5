#include "TessarinTimeline/OtioDocument.h"

#include <nlohmann/json.hpp>

namespace {

// Keys stay in the order written, so the file reads like the documented shape.
using json = nlohmann::ordered_json;

json rationalTime(double frames, double rate) {
    return {{"OTIO_SCHEMA", "RationalTime.1"}, {"rate", rate}, {"value", frames}};
}

json timeRange(double start, double duration, double rate) {
    return {{"OTIO_SCHEMA", "TimeRange.1"},
            {"start_time", rationalTime(start, rate)},
            {"duration", rationalTime(duration, rate)}};
}

json clipItem(const LaidClip& c, double rate) {
    const auto& r = c.clip->result;
    const std::string media = r.picturePath.value_or(r.path);
    json tessarin = {{"verdict", r.syncStatus},
                     {"placement", r.placement ? json(*r.placement) : json(nullptr)},
                     {"explanation", r.explanation},
                     {"matchScore", r.matchScore ? json(*r.matchScore) : json(nullptr)}};
    json item = {
        {"OTIO_SCHEMA", "Clip.1"},
        {"name", FrameLayout::clipName(r)},
        {"source_range", timeRange(static_cast<double>(c.in), static_cast<double>(c.length), rate)},
        {"media_reference",
         {{"OTIO_SCHEMA", "ExternalReference.1"},
          {"target_url", OtioDocument::fileUrl(media)},
          {"available_range", timeRange(0, static_cast<double>(c.playedFrames), rate)}}},
        {"metadata", {{"tessarin", tessarin}}}};
    if (c.clip->driftPpm) {
        // The source range counts frames as they land on the timeline; the warp says how fast
        // the media runs under them.
        item["metadata"]["tessarin"]["driftPpm"] = *c.clip->driftPpm;
        item["effects"] = json::array({{{"OTIO_SCHEMA", "LinearTimeWarp.1"},
                                        {"name", "drift"},
                                        {"effect_name", "LinearTimeWarp"},
                                        {"time_scalar", c.speed},
                                        {"metadata", json::object()}}});
    }
    return item;
}

} // namespace

namespace OtioDocument {

std::string fileUrl(const std::string& path) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string url = "file://";
    for (char ch : path) {
        const auto c = static_cast<unsigned char>(ch);
        const bool plain = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                           (c >= '0' && c <= '9') || c == '-' || c == '.' || c == '_' || c == '~' ||
                           c == '/';
        if (plain) {
            url += ch;
        } else {
            url += '%';
            url += kHex[c >> 4];
            url += kHex[c & 15];
        }
    }
    return url;
}

std::string write(const Timeline& timeline) {
    const auto laid = FrameLayout::layOut(timeline);
    const double rate = laid.format.rate.fps();
    json tracks = json::array();
    for (const auto& lane : laid.tracks) {
        json items = json::array();
        std::int64_t cursor = 0;
        for (const auto& c : lane.clips) {
            if (c.start > cursor) {
                items.push_back(
                    {{"OTIO_SCHEMA", "Gap.1"},
                     {"source_range", timeRange(0, static_cast<double>(c.start - cursor), rate)}});
            }
            items.push_back(clipItem(c, rate));
            cursor = c.end();
        }
        tracks.push_back({{"OTIO_SCHEMA", "Track.1"},
                          {"name", lane.track->name},
                          {"kind", lane.track->type == SourceType::video ? "Video" : "Audio"},
                          {"children", std::move(items)}});
    }
    const json document = {
        {"OTIO_SCHEMA", "Timeline.1"},
        {"name", FrameLayout::timelineName(timeline)},
        {"global_start_time", nullptr},
        {"tracks",
         {{"OTIO_SCHEMA", "Stack.1"}, {"name", "tracks"}, {"children", std::move(tracks)}}}};
    return document.dump(2) + "\n";
}

} // namespace OtioDocument
