#include "TessarinEngine/EngineLog.h"
#include "TessarinEngine/IngestEngine.h"
#include "TessarinEngine/IngestEngine/Helpers.h"
#include "TessarinEngine/WorkerWindow.h"
#include "TessarinEngine/platform/LocalTime.h"

#include <unordered_map>

namespace {

// Clips read at once. Each read already runs its own reads side by side, so the width stays fixed
// whatever the processor count: more would only queue on the disk.
constexpr std::size_t kReadWindow = 4;

struct WorkItem {
    Uuid id;
    std::filesystem::path url;
};

struct ReadResult {
    Uuid id;
    MediaMetadata::ClipMeta meta;
};

void applyMeta(ClipItem& clip, const MediaMetadata::ClipMeta& meta) {
    clip.duration = meta.duration;
    clip.frameRate = meta.fps;
    clip.deviceName = meta.device;
    clip.recordingDate = meta.date;
    clip.clockQuality = meta.quality;
    clip.clockOffsetMinutes = meta.clockOffsetMinutes;
    clip.channelCount = meta.channels;
    clip.audioChannelIndices = meta.channelMap;
    clip.startTimecode = meta.timecode;
    // A RED take's size comes from its header; a reader that finds none must not erase it.
    if (meta.size) {
        clip.pixelWidth = meta.size->first;
        clip.pixelHeight = meta.size->second;
    }
}

void logClocks(const TrackSource& track) {
    std::optional<Date> earliest;
    std::optional<Date> latest;
    ClockQuality best = ClockQuality::none;
    int dated = 0;
    for (const auto& clip : track.clips) {
        if (!clip.recordingDate) {
            continue;
        }
        const Date d = *clip.recordingDate;
        earliest = earliest ? std::min(*earliest, d) : d;
        latest = latest ? std::max(*latest, d) : d;
        best = dated == 0 ? clip.clockQuality : std::max(best, clip.clockQuality);
        ++dated;
    }
    if (dated == 0) {
        EngineLog::log("[Ingest] clock track '" + track.name + "': no dates");
        return;
    }
    EngineLog::log(
        "[Ingest] clock track '" + track.name + "': quality=" + std::string(toString(best)) + " " +
        LocalTime::format(*earliest, "HH:mm") + "–" + LocalTime::format(*latest, "HH:mm") + " (" +
        std::to_string(dated) + "/" + std::to_string(track.clips.size()) + " dated)");
}

} // namespace

std::vector<TrackSource> IngestEngine::loadMetadata(
    std::vector<TrackSource> sources,
    const std::function<void(const std::vector<TrackSource>&)>& onClipUpdated) {
    return loadMetadata(std::move(sources), onClipUpdated, MediaMetadata::readClipMeta);
}

std::vector<TrackSource> IngestEngine::loadMetadata(
    std::vector<TrackSource> sources,
    const std::function<void(const std::vector<TrackSource>&)>& onClipUpdated,
    const MetadataReader& readMeta) {
    std::vector<WorkItem> work;
    std::unordered_map<Uuid, ClipRef> where;
    for (std::size_t si = 0; si < sources.size(); ++si) {
        const auto& clips = sources[si].clips;
        for (std::size_t ci = 0; ci < clips.size(); ++ci) {
            where.try_emplace(clips[ci].id, ClipRef{static_cast<int>(si), static_cast<int>(ci)});
            if (clips[ci].duration == 0) {
                work.push_back({clips[ci].id, clips[ci].url});
            }
        }
    }

    // At most `kReadWindow` reads run at once and they start in list order; a throwing callback
    // stops the window.
    WorkerWindow::run<ReadResult>(
        work.size(), kReadWindow,
        [&](std::size_t index) {
            MediaMetadata::ClipMeta meta;
            try {
                meta = readMeta(work[index].url);
            } catch (...) {
                meta = {};
            }
            return ReadResult{work[index].id, std::move(meta)};
        },
        [&](std::size_t, ReadResult result) {
            auto found = where.find(result.id);
            if (found == where.end()) {
                return true;
            }
            const auto [si, ci] = found->second;
            applyMeta(sources[si].clips[ci], result.meta);
            recomputeOffsets(static_cast<std::size_t>(si), sources);
            if (onClipUpdated) {
                onClipUpdated(sources);
            }
            return true;
        });

    for (const auto& track : sources) {
        logClocks(track);
    }
    return sources;
}

TrackSource IngestEngine::recomputeOffsets(TrackSource source) {
    double offset = 0;
    for (auto& clip : source.clips) {
        clip.startOffset = offset;
        offset += clip.duration;
    }
    return source;
}

void IngestEngine::recomputeOffsets(std::size_t si, std::vector<TrackSource>& sources) {
    sources[si] = recomputeOffsets(std::move(sources[si]));
}

std::vector<TrackSource> IngestEngine::sortSources(std::vector<TrackSource> sources) {
    std::vector<std::string> keys;
    keys.reserve(sources.size());
    for (const auto& s : sources) {
        keys.push_back(Collation::sortKey(s.name));
    }
    std::vector<std::size_t> order(sources.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
        if (sources[a].type != sources[b].type) {
            return sources[a].type == SourceType::video;
        }
        return keys[a] < keys[b];
    });
    std::vector<TrackSource> sorted;
    sorted.reserve(sources.size());
    for (auto i : order) {
        sorted.push_back(std::move(sources[i]));
    }
    return sorted;
}
