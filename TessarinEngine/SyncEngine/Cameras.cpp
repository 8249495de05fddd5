#include "TessarinEngine/SyncEngine/Run.h"

#include <algorithm>

namespace SyncEngine {

namespace {

int distinctTracks(const std::vector<ClipRef>& flat) {
    std::set<int> tracks;
    for (const auto& r : flat) {
        tracks.insert(r.si);
    }
    return static_cast<int>(tracks.size());
}

std::string groupLabel(const Run& run, const std::vector<int>& members) {
    std::string label;
    for (int si : members) {
        if (!label.empty()) {
            label += " + ";
        }
        label += run.sources[si].name;
    }
    return label;
}

} // namespace

void noteCameras(Run& run) {
    Region& region = run.region;
    const auto& ref = run.sources[region.refTrack];
    // A video reference must feed the pool where nothing else will at first.
    if (ref.type == SourceType::video && (region.audioTracks.empty() || region.camerasFirst)) {
        region.poolCameras.insert(region.refTrack);
    }
    for (int si : region.tracks) {
        if (si != region.refTrack) {
            region.otherTracks.push_back(si);
        }
    }
    for (int si : region.otherTracks) {
        const auto& group = run.sources[si].cameraGroup;
        if (!group) {
            continue;
        }
        auto it = std::find_if(region.cameraGroups.begin(), region.cameraGroups.end(),
                               [&](const auto& g) { return g.first == *group; });
        if (it == region.cameraGroups.end()) {
            region.cameraGroups.push_back({*group, {si}});
        } else {
            it->second.push_back(si);
        }
    }
    for (const auto& [name, members] : region.cameraGroups) {
        if (members.size() < 2) {
            continue;
        }
        const auto flat = orderedFlatClips(run, members);
        if (distinctTracks(flat) >= 2) {
            for (const auto& r : flat) {
                region.groupedTracks.insert(r.si);
            }
        }
    }
    for (int si : region.otherTracks) {
        const auto& track = run.sources[si];
        if (track.type == SourceType::video && !track.siblingOf && regionClipCount(run, si) > 0 &&
            !region.groupedTracks.contains(si)) {
            region.soloCameras.push_back(si);
        }
    }
    std::stable_sort(region.soloCameras.begin(), region.soloCameras.end(),
                     [&](int a, int b) { return maxClip(run, a) > maxClip(run, b); });
}

bool runCamerasFirst(Run& run) {
    Region& region = run.region;
    region.holdRecorders = true;
    refreshMatchSpans(run);
    logDetail(format(
        "cameras-first: pairing %d camera(s) against '%s' with %d other recorder(s) "
        "held out of the pool (%d span(s))",
        static_cast<int>(region.soloCameras.size()), run.sources[region.refTrack].name.c_str(),
        static_cast<int>(std::count_if(region.audioTracks.begin(), region.audioTracks.end(),
                                       [&](int si) { return si != region.refTrack; })),
        static_cast<int>(region.matchSpans.size())));
    for (int si : region.soloCameras) {
        if (run.cancelled()) {
            return false;
        }
        const auto result = syncOneTrack(run, si);
        region.readyTracks.insert(si);
        region.poolCameras.insert(si);
        region.doneCameras.insert(si);
        refreshMatchSpans(run);
        logDetail(format("camera '%s' paired against the camera backbone (%d matched) — added to "
                         "the pool",
                         run.sources[si].name.c_str(), result.matched));
    }
    for (const auto& [name, members] : region.cameraGroups) {
        if (members.size() < 2) {
            continue;
        }
        if (run.cancelled()) {
            return false;
        }
        const auto flat = orderedFlatClips(run, members);
        if (distinctTracks(flat) < 2) {
            continue;
        }
        const auto label = groupLabel(run, members);
        logDetail(format("camera group '%s' (cameras-first): %s", name.c_str(), label.c_str()));
        const auto spans = region.matchSpans;
        syncClipChain(run, flat, label, spans, spans);
        for (int si : members) {
            region.readyTracks.insert(si);
            region.poolCameras.insert(si);
        }
        region.doneGroups.insert(name);
        refreshMatchSpans(run);
    }
    region.holdRecorders = false;
    refreshMatchSpans(run);
    logDetail(format("cameras-first: camera backbone fixed (%d span(s)) — recorders are now placed "
                     "against it",
                     static_cast<int>(region.matchSpans.size())));
    return true;
}

bool runLateCameras(Run& run) {
    Region& region = run.region;
    std::vector<int> remaining;
    for (int si : region.soloCameras) {
        if (!region.doneCameras.contains(si)) {
            remaining.push_back(si);
        }
    }
    for (int si : remaining) {
        if (run.cancelled()) {
            return false;
        }
        const auto result = syncOneTrack(run, si);
        if (result.matched > 0) {
            region.readyTracks.insert(si);
            region.poolCameras.insert(si);
            refreshMatchSpans(run);
            logDetail(format("camera '%s' matched (%d clips) — added to the pool for the cameras "
                             "after it",
                             run.sources[si].name.c_str(), result.matched));
        } else if (remaining.size() >= 2) {
            // A lone camera has nothing else to be matched with, so it gets no retry.
            region.unmatchedCameras.push_back(si);
        }
    }
    if (region.unmatchedCameras.empty() || remaining.size() < 2) {
        return true;
    }
    region.excludeLavs = true;
    refreshMatchSpans(run);
    std::stable_sort(region.unmatchedCameras.begin(), region.unmatchedCameras.end(),
                     [&](int a, int b) { return maxClip(run, a) > maxClip(run, b); });
    for (int si : region.unmatchedCameras) {
        if (run.cancelled()) {
            return false;
        }
        const auto& name = run.sources[si].name;
        logDetail(format("retrying '%s' against the other cameras (lavs excluded)", name.c_str()));
        const auto result = syncOneTrack(run, si);
        refreshMatchSpans(run);
        if (result.matched > 0) {
            logDetail(format("'%s' matched on retry (%d clips)", name.c_str(), result.matched));
        }
    }
    region.excludeLavs = false;
    refreshMatchSpans(run);
    return true;
}

bool runLateGroups(Run& run) {
    Region& region = run.region;
    // The third pass of every group sees the pool as the group stage found it; the groups do not
    // feed each other.
    const auto pass3Spans = region.matchSpans;
    const auto pass1Spans = region.primarySpans;
    for (const auto& [name, members] : region.cameraGroups) {
        if (members.size() < 2 || region.doneGroups.contains(name)) {
            continue;
        }
        if (run.cancelled()) {
            return false;
        }
        const auto flat = orderedFlatClips(run, members);
        if (distinctTracks(flat) < 2) {
            continue;
        }
        const auto label = groupLabel(run, members);
        logDetail(format("camera group '%s': %s", name.c_str(), label.c_str()));
        syncClipChain(run, flat, label, pass1Spans, pass3Spans);
    }
    return true;
}

} // namespace SyncEngine
