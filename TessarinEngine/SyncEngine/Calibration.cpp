#include "TessarinEngine/SyncEngine/PeakTiming.h"
#include "TessarinEngine/SyncEngine/Run.h"

#include <algorithm>
#include <cmath>

namespace SyncEngine {

namespace {

// A take this close to where the backup puts it is left alone: the clock was right.
constexpr double kLeastCorrection = 0.15;
// A larger disagreement is more likely a wrong match than a clock that far off within a day.
constexpr double kLargestCorrection = 60.0;

} // namespace

// The reference was laid by its own clock, never proved by audio. A long backup is one continuous
// recording, so where it hears a take is where that take really lies.
void calibrateSegmentIfNeeded(Run& run, int take, int backup) {
    Region& region = run.region;
    if (region.calibratedTakes.contains(take) || !region.hasFullClock || !region.refEpoch ||
        take < 0 || take >= static_cast<int>(region.takes.size()) || region.takes[take].empty()) {
        return;
    }
    region.calibratedTakes.insert(take);

    auto& refTrack = run.sources[region.refTrack];
    int refCi = region.takes[take].front();
    for (int ci : region.takes[take]) {
        if (refTrack.clips[ci].duration > refTrack.clips[refCi].duration) {
            refCi = ci;
        }
    }
    const auto& refClip = refTrack.clips[refCi];
    if (!refClip.recordingDate || !refClip.bandFeature || refClip.bandFeature->frames < 5) {
        return;
    }

    const auto backupClips = regionClipsOf(run, backup);
    if (backupClips.empty()) {
        return;
    }
    const auto& backupTrack = run.sources[backup];
    int backCi = backupClips.front();
    for (int ci : backupClips) {
        if (backupTrack.clips[ci].duration > backupTrack.clips[backCi].duration) {
            backCi = ci;
        }
    }
    const auto& backClip = backupTrack.clips[backCi];
    if (!backClip.bandFeature || refClip.bandFeature->frames >= backClip.bandFeature->frames) {
        return;
    }

    const double dur = refClip.duration;
    const double W = std::min(dur * 0.4, 45.0);
    if (W < 10.0) {
        return;
    }
    std::vector<Match> votes;
    for (double fraction : {0.15, 0.45, 0.75}) {
        double start = std::max(dur * fraction - W * 0.5, 0.0);
        start = std::min(start, dur - W);
        if (start < 0) {
            continue;
        }
        const auto window = SpectralBands::slice(*refClip.bandFeature, start, W);
        if (!window || window->frames >= backClip.bandFeature->frames) {
            continue;
        }
        const auto found = searchPeaks(*window, *backClip.bandFeature, -kWidest, kWidest,
                                       kSearchOverlap, kBestPeakOnly, kSearchSeparation);
        if (!found.empty()) {
            votes.push_back(Match{backClip.startOffset + found.front().offsetSeconds - start,
                                  found.front().score, ClipRef{backup, backCi}});
        }
    }

    const auto cluster = largestCluster(votes, kVoteClusterRadius);
    if (cluster.size() < 2) {
        return;
    }
    const Match consensus = clusterConsensus(cluster);
    const float bestScore = consensus.score;
    if (bestScore < kStrongScore) {
        return;
    }
    const double target = consensus.pos;
    const double delta = target - refClip.startOffset;
    if (!(std::abs(delta) > kLeastCorrection && std::abs(delta) < kLargestCorrection)) {
        return;
    }
    for (int ci : region.takes[take]) {
        auto& clip = refTrack.clips[ci];
        clip.startOffset += delta;
        if (run.onPlace) {
            run.onPlace(clip.id, clip.startOffset, SyncStatus::synced);
        }
    }
    logDetail(format("ref '%s' take %d/%d calibrated %+.2fs against '%s' content (score=%.1f) — "
                     "its own clock was never audio-verified",
                     refTrack.name.c_str(), take + 1, static_cast<int>(region.takes.size()), delta,
                     backupTrack.name.c_str(), bestScore));
}

} // namespace SyncEngine
