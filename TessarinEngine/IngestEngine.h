#pragma once

#include "TessarinEngine/TrackModels.h"

#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <vector>

// One file of a request with the thing the user dropped to bring it in.
struct IngestItem {
    std::filesystem::path path;
    std::filesystem::path dropHint;
};

// Turns a flat list of files into tracks that each mean one device. The value carries the sessions
// that are complete; everything else is a pure function of its arguments.
struct IngestEngine {
    std::set<std::string> completeShootSessions;
    std::set<std::string> proxyDirNames;

    // Groups the items by drop into first tracks (appended to `into`) and decides sessions. Reads
    // paths only, and the card files of RED media. Grows `completeShootSessions`.
    std::vector<TrackSource> ingestFlat(const std::vector<IngestItem>& items,
                                        std::vector<TrackSource> into);

    // Reads the metadata of every clip whose duration is still 0, a few clips at a time. The
    // callback runs on the calling thread once per clip, with the tracks as they stand.
    static std::vector<TrackSource>
    loadMetadata(std::vector<TrackSource> sources,
                 const std::function<void(const std::vector<TrackSource>&)>& onClipUpdated);

    // Makes each track mean one device.
    static std::vector<TrackSource> splitSourcesByDevice(std::vector<TrackSource> sources);
    // Ties the channel files of one recorder to a lead track.
    static std::vector<TrackSource> detectSiblingChannels(std::vector<TrackSource> sources);
    // Marks tracks that are one camera split over several folders.
    static std::vector<TrackSource> assignCameraGroups(std::vector<TrackSource> sources);
    // The final order of tracks: video before audio, natural name order within each.
    static std::vector<TrackSource> sortSources(std::vector<TrackSource> sources);
};
