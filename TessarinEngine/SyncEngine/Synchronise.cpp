#include "TessarinEngine/SyncEngine.h"
#include "TessarinEngine/SyncEngine/Run.h"

#include <algorithm>
#include <map>
#include <thread>

namespace SyncEngine {

namespace {

// Recorders this long are one-take witnesses of a whole day; they become the reference.
constexpr double kLongAudio = 2700.0;
// Lavalier-like recorders: many short takes on one actor.
constexpr double kLavMaxClip = 1200.0;
constexpr double kLongCameraClip = 60.0;
constexpr double kRegionGap = 2.0;

std::string lastComponentOrDash(const std::string& path) {
    if (path.empty()) {
        return "—";
    }
    std::string s = path;
    while (s.size() > 1 && s.back() == '/') {
        s.pop_back();
    }
    const auto slash = s.rfind('/');
    return slash == std::string::npos || s.size() == 1 ? s : s.substr(slash + 1);
}

std::string regionOf(const TrackSource& track, const ClipItem& clip) {
    if (clip.dayRegion) {
        return *clip.dayRegion;
    }
    if (track.dayRegion) {
        return *track.dayRegion;
    }
    return "default";
}

bool regionKeyBefore(const std::string& a, const std::string& b) {
    const bool dayA = a.starts_with("day-");
    const bool dayB = b.starts_with("day-");
    if (dayA != dayB) {
        return dayA;
    }
    return a < b;
}

double sessionDur(const std::vector<TrackSource>& sources, const std::vector<int>& tracks) {
    double total = 0;
    for (int si : tracks) {
        for (const auto& clip : sources[si].clips) {
            total += clip.duration;
        }
    }
    return total;
}

void logTrackLines(const std::vector<TrackSource>& sources) {
    for (const auto& track : sources) {
        int withBands = 0;
        double longest = 0;
        for (const auto& clip : track.clips) {
            if (clip.bandFeature && clip.bandFeature->frames >= 5) {
                ++withBands;
            }
            longest = std::max(longest, clip.duration);
        }
        logDetail(format("track '%s' [session=%s region=%s]: %d clips, bands=%d, dur[max=%.0f]",
                         track.name.c_str(), lastComponentOrDash(track.session).c_str(),
                         track.dayRegion ? track.dayRegion->c_str() : "—",
                         static_cast<int>(track.clips.size()), withBands, longest));
    }
}

// The stages of one region, in their order of trust. Returns false when cancelled.
bool runRegion(Run& run) {
    Region& region = run.region;
    region.refTrack = chooseReference(run);
    if (!layoutReference(run)) {
        return false;
    }
    region.readyTracks.insert(region.refTrack);
    noteCameras(run);

    if (region.camerasFirst && !region.soloCameras.empty()) {
        if (!runCamerasFirst(run)) {
            return false;
        }
    }

    for (int si : region.tracks) {
        const auto& track = run.sources[si];
        if (si == region.refTrack || track.type != SourceType::audio || track.siblingOf) {
            continue;
        }
        if (run.cancelled()) {
            return false;
        }
        if (isLongBackup(run, si) && !clocksOverlapRef(run, si)) {
            if (const auto offset = probeBackupLinkage(run, si)) {
                placeBackupLinked(run, si, *offset);
                logDetail(format("long-backup '%s' clock disagreed with the ref but the audio "
                                 "agrees — linked by content @ %llds",
                                 run.sources[si].name.c_str(), static_cast<long long>(*offset)));
                for (int take = 0; take < static_cast<int>(region.takes.size()); ++take) {
                    calibrateSegmentIfNeeded(run, take, si);
                }
                refreshMatchSpans(run);
            } else {
                region.unlinkedBackups.push_back(si);
            }
            continue;
        }
        syncOneTrack(run, si);
        region.readyTracks.insert(si);
        refreshMatchSpans(run);
    }

    refreshMatchSpans(run);
    logDetail(format("region '%s' primary audio pool: %d segment(s) (ready=%s)",
                     region.name.c_str(), static_cast<int>(region.matchSpans.size()),
                     readyNames(run).c_str()));
    region.primarySpans = region.matchSpans;

    for (int si : region.unlinkedBackups) {
        if (run.cancelled()) {
            return false;
        }
        placeUnlinked(run, si);
    }
    refreshMatchSpans(run);
    logDetail(format("region '%s' full audio pool: %d segment(s)", region.name.c_str(),
                     static_cast<int>(region.matchSpans.size())));

    if (!runChannelTracks(run)) {
        return false;
    }
    if (!runLateCameras(run) || !runLateGroups(run)) {
        return false;
    }
    refillUnmatched(run);
    checkReferenceByAudio(run);
    return true;
}

} // namespace

Run::Run(std::vector<TrackSource> tracks, const ProgressCallback& progress,
         const PlaceCallback& place, const std::atomic<bool>* cancelFlag)
    : sources(std::move(tracks)), onProgress(progress), onPlace(place), cancel(cancelFlag) {
    int clips = 0;
    for (const auto& track : sources) {
        clips += static_cast<int>(track.clips.size());
    }
    totalClips = std::max(clips, 1);
    progressStep = 0.999 / totalClips;
    width = std::max(static_cast<int>(std::thread::hardware_concurrency()), 2);
}

std::uint64_t regionKey(int si, int ci) {
    return (static_cast<std::uint64_t>(static_cast<std::uint32_t>(si)) << 32) |
           static_cast<std::uint32_t>(ci);
}

bool inRegion(const Run& run, int si, int ci) {
    return run.region.keys.contains(regionKey(si, ci));
}

double maxClip(const Run& run, int si) {
    double longest = 0;
    const auto& clips = run.sources[si].clips;
    for (int ci = 0; ci < static_cast<int>(clips.size()); ++ci) {
        if (inRegion(run, si, ci)) {
            longest = std::max(longest, clips[ci].duration);
        }
    }
    return longest;
}

int regionClipCount(const Run& run, int si) {
    return static_cast<int>(regionClipsOf(run, si).size());
}

std::vector<int> regionClipsOf(const Run& run, int si) {
    std::vector<int> out;
    const int n = static_cast<int>(run.sources[si].clips.size());
    for (int ci = 0; ci < n; ++ci) {
        if (inRegion(run, si, ci)) {
            out.push_back(ci);
        }
    }
    return out;
}

std::string clipName(const ClipItem& clip) {
    return clip.url.stem().string();
}

void advanceProgress(Run& run, const std::string& label, double share) {
    run.progressFraction = std::min(run.progressFraction + run.progressStep * share, 0.999);
    if (run.onProgress) {
        run.onProgress(run.progressFraction, label);
    }
}

void reportPlace(Run& run, const ClipItem& clip) {
    if (run.onPlace) {
        run.onPlace(clip.id, clip.startOffset, clip.syncStatus);
    }
}

void beginRegion(Run& run, std::string name, std::vector<ClipRef> clips) {
    run.region = Region{};
    Region& region = run.region;
    region.name = std::move(name);
    region.clips = std::move(clips);
    std::set<int> tracks;
    for (const auto& ref : region.clips) {
        region.keys.insert(regionKey(ref.si, ref.ci));
        tracks.insert(ref.si);
    }
    region.tracks.assign(tracks.begin(), tracks.end());

    for (int si : region.tracks) {
        const auto& track = run.sources[si];
        const double longest = maxClip(run, si);
        if (track.type == SourceType::audio && !track.siblingOf) {
            region.audioTracks.push_back(si);
            if (longest >= kLongAudio) {
                region.longAudio.push_back(si);
            }
            if (regionClipCount(run, si) > 2 && longest < kLavMaxClip) {
                region.lavTracks.insert(si);
            }
        }
        if (track.type == SourceType::video && !track.siblingOf && longest >= kLongCameraClip) {
            bool hearable = false;
            for (int ci : regionClipsOf(run, si)) {
                const auto& clip = track.clips[ci];
                hearable = hearable || (clip.audioUsability == AudioUsability::ok &&
                                        clip.bandFeature && clip.bandFeature->frames > 4);
            }
            if (hearable) {
                region.longCameras.push_back(si);
            }
        }
    }
    for (int si : region.longAudio) {
        if (!region.bestLong || maxClip(run, *region.bestLong) < maxClip(run, si)) {
            region.bestLong = si;
        }
    }
    const auto cameras = region.longCameras.size();
    region.camerasFirst =
        cameras > 2 || (cameras == 2 && (region.audioTracks.empty() || !region.lavTracks.empty()));
}

std::vector<TrackSource> synchronise(std::vector<TrackSource> sources,
                                     const ProgressCallback& onProgress,
                                     const PlaceCallback& onPlace,
                                     const std::atomic<bool>* cancel) {
    if (sources.size() < 2) {
        return sources;
    }
    // The working copy shares the band data with the input, so keeping the input for a cancelled
    // run costs only the records.
    Run run(sources, onProgress, onPlace, cancel);
    logTrackLines(run.sources);

    std::vector<std::pair<std::string, std::vector<int>>> sessions;
    for (int si = 0; si < static_cast<int>(run.sources.size()); ++si) {
        const auto& session = run.sources[si].session;
        auto it = std::find_if(sessions.begin(), sessions.end(),
                               [&](const auto& s) { return s.first == session; });
        if (it == sessions.end()) {
            sessions.push_back({session, {si}});
        } else {
            it->second.push_back(si);
        }
    }
    std::stable_sort(sessions.begin(), sessions.end(), [&](const auto& a, const auto& b) {
        return sessionDur(run.sources, a.second) > sessionDur(run.sources, b.second);
    });
    logTop(format("%d session(s) [proto ref-track]", static_cast<int>(sessions.size())));

    for (const auto& [session, tracks] : sessions) {
        if (run.cancelled()) {
            return sources;
        }
        std::vector<std::pair<std::string, std::vector<ClipRef>>> regions;
        for (int si : tracks) {
            const auto& track = run.sources[si];
            for (int ci = 0; ci < static_cast<int>(track.clips.size()); ++ci) {
                const auto key = regionOf(track, track.clips[ci]);
                auto it = std::find_if(regions.begin(), regions.end(),
                                       [&](const auto& r) { return r.first == key; });
                if (it == regions.end()) {
                    regions.push_back({key, {ClipRef{si, ci}}});
                } else {
                    it->second.push_back(ClipRef{si, ci});
                }
            }
        }
        std::sort(regions.begin(), regions.end(),
                  [](const auto& a, const auto& b) { return regionKeyBefore(a.first, b.first); });

        for (auto& [name, clips] : regions) {
            if (run.cancelled()) {
                return sources;
            }
            beginRegion(run, name, clips);
            if (!runRegion(run)) {
                return sources;
            }
            double end = 0;
            for (const auto& ref : run.region.clips) {
                const auto& clip = run.clip(ref);
                end = std::max(end, clip.startOffset + clip.duration);
            }
            run.baseOffset = end + kRegionGap;
        }
        run.baseOffset += kRegionGap;
    }

    for (auto& track : run.sources) {
        for (auto& clip : track.clips) {
            const auto entry = run.placementLog.find(clip.id);
            if (entry != run.placementLog.end() && entry->second.partner) {
                clip.placedAgainst = run.clip(*entry->second.partner).id;
            }
        }
    }
    resolveOverlaps(run.sources);
    normaliseOffsets(run.sources);
    logLayoutAndDone(run);
    return std::move(run.sources);
}

} // namespace SyncEngine
