#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "TessarinEngine/TrackModels.h"

namespace MediaMetadata {

// Everything ingest reads about one clip. Fields that cannot be read keep these defaults.
struct ClipMeta {
    double duration = 0;
    std::optional<float> fps;
    std::optional<std::string> device;
    std::optional<Date> date;
    ClockQuality quality = ClockQuality::none;
    int channels = 1;
    std::vector<int> channelMap;
    std::optional<std::pair<int, int>> size;
    std::optional<double> timecode;
};

// All metadata reads of one clip: duration, frame rate, device, recording clock, channel count,
// picture size, timecode (timecode track, then Sony NRTM, then BWF), then the channel indices.
// Never throws and never decodes media. Thread-safe.
ClipMeta readClipMeta(const std::filesystem::path& url);

} // namespace MediaMetadata
