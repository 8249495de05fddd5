#include "TessarinEngine/IngestEngine.h"

// Pass-through stages until ingest is built: no file becomes a track yet, so a run ends with the
// run-level error for a request without media.

std::vector<TrackSource> IngestEngine::ingestFlat(const std::vector<IngestItem>&,
                                                  std::vector<TrackSource> into) {
    return into;
}

std::vector<TrackSource> IngestEngine::loadMetadata(
    std::vector<TrackSource> sources,
    const std::function<void(const std::vector<TrackSource>&)>& onClipUpdated) {
    for (const auto& track : sources) {
        for (std::size_t i = 0; i < track.clips.size(); ++i) {
            if (onClipUpdated) {
                onClipUpdated(sources);
            }
        }
    }
    return sources;
}

std::vector<TrackSource> IngestEngine::splitSourcesByDevice(std::vector<TrackSource> sources) {
    return sources;
}

std::vector<TrackSource> IngestEngine::detectSiblingChannels(std::vector<TrackSource> sources) {
    return sources;
}

std::vector<TrackSource> IngestEngine::assignCameraGroups(std::vector<TrackSource> sources) {
    return sources;
}

std::vector<TrackSource> IngestEngine::sortSources(std::vector<TrackSource> sources) {
    return sources;
}
