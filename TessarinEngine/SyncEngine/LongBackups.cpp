#include "TessarinEngine/SyncEngine/Run.h"

#include <algorithm>
#include <cmath>

namespace SyncEngine {

namespace {

// A recording this long (or files that chain into one this long) ran through the day.
constexpr double kLongBackup = 1800.0;
// Neighbouring files whose clocks differ from their lengths by more than this do not chain.
constexpr double kChainTolerance = 2.0;
// Clocks this far beyond each other's ends still count as overlapping.
constexpr double kOverlapMargin = 900.0;

// The longest of the track's region clips, the earlier on equal durations.
int longestClip(const Run& run, const std::vector<int>& clips, int si) {
    int best = clips.front();
    for (int ci : clips) {
        if (run.sources[si].clips[ci].duration > run.sources[si].clips[best].duration) {
            best = ci;
        }
    }
    return best;
}

} // namespace

bool isLongBackup(const Run& run, int si) {
    const auto clips = regionClipsOf(run, si);
    if (clips.empty()) {
        return false;
    }
    const auto& track = run.sources[si];
    if (clips.size() < 3) {
        double longest = 0;
        for (int ci : clips) {
            longest = std::max(longest, track.clips[ci].duration);
        }
        return longest >= kLongBackup;
    }
    double total = 0;
    for (int ci : clips) {
        total += track.clips[ci].duration;
    }
    if (total < kLongBackup) {
        return false;
    }
    for (std::size_t k = 1; k < clips.size(); ++k) {
        const auto& a = track.clips[clips[k - 1]];
        const auto& b = track.clips[clips[k]];
        if (a.clockQuality < ClockQuality::filename || b.clockQuality < ClockQuality::filename ||
            !a.recordingDate || !b.recordingDate) {
            return false;
        }
        if (std::abs((*b.recordingDate - *a.recordingDate) - a.duration) > kChainTolerance) {
            return false;
        }
    }
    logDetail(format("'%s': %d files chain by their own clock into one %lld-min recording — "
                     "treated as a long backup",
                     track.name.c_str(), static_cast<int>(clips.size()),
                     static_cast<long long>(total / 60.0)));
    return true;
}

bool clocksOverlapRef(const Run& run, int si) {
    std::vector<Date> track;
    std::vector<Date> ref;
    for (const auto& r : run.region.clips) {
        if (const auto& date = run.clip(r).recordingDate) {
            if (r.si == si) {
                track.push_back(*date);
            } else if (r.si == run.region.refTrack) {
                ref.push_back(*date);
            }
        }
    }
    if (track.empty() || ref.empty()) {
        return true;
    }
    const auto [minT, maxT] = std::minmax_element(track.begin(), track.end());
    const auto [minR, maxR] = std::minmax_element(ref.begin(), ref.end());
    return *minT - kOverlapMargin <= *maxR + kOverlapMargin &&
           *minR - kOverlapMargin <= *maxT + kOverlapMargin;
}

std::optional<double> probeBackupLinkage(Run& run, int si) {
    const auto clips = regionClipsOf(run, si);
    if (clips.empty()) {
        return std::nullopt;
    }
    const int longest = longestClip(run, clips, si);
    const auto& L = run.sources[si].clips[longest];
    if (!L.bandFeature || L.bandFeature->frames < 5) {
        return std::nullopt;
    }
    const std::string& name = run.sources[si].name;
    const double dur = L.duration;
    const double W = std::min(dur * 0.4, 45.0);
    std::vector<Match> votes;

    // Each window is asked of every ready clip on its own, so that one loud passage heard by one
    // clip cannot outvote the others by being found in a merged pool.
    if (W >= 10.0) {
        for (double fraction : {0.15, 0.45, 0.75}) {
            double start = std::max(dur * fraction - W * 0.5, 0.0);
            start = std::min(start, dur - W);
            if (start < 0) {
                continue;
            }
            const auto window = SpectralBands::slice(*L.bandFeature, start, W);
            if (!window) {
                continue;
            }
            for (int ready : run.region.readyTracks) {
                for (int ci : regionClipsOf(run, ready)) {
                    const std::vector<PoolSpan> one{spanOf(run, ClipRef{ready, ci})};
                    const auto m = bestMatch(one, window, -kWidest, kWidest);
                    if (m && m->score >= kStrongScore) {
                        votes.push_back(Match{m->pos - start, m->score, m->partner});
                    }
                }
            }
        }
    }
    std::vector<PoolSpan> pool;
    for (int ready : run.region.readyTracks) {
        for (int ci : regionClipsOf(run, ready)) {
            pool.push_back(spanOf(run, ClipRef{ready, ci}));
        }
    }
    if (const auto m = bestMatch(pool, L.bandFeature, -kWidest, kWidest);
        m && m->score >= kStrongScore) {
        votes.push_back(*m);
    }
    if (votes.empty()) {
        return std::nullopt;
    }

    const auto cluster = largestCluster(votes, kVoteClusterRadius);
    double pos = 0;
    if (cluster.size() >= 2) {
        pos = clusterConsensus(cluster).pos;
        logDetail(format("'%s' content consensus: %d/%d window votes clustered @ %llds",
                         name.c_str(), static_cast<int>(cluster.size()),
                         static_cast<int>(votes.size()), static_cast<long long>(pos)));
    } else {
        // A lone witness may be a chance likeness: only a very strong one is believed.
        Match best = votes.front();
        for (const auto& v : votes) {
            if (v.score > best.score) {
                best = v;
            }
        }
        const bool linking = best.score >= kSingleStrongScore;
        logDetail(format("'%s' single-witness probe: %d window(s) tried, best score=%.1f @ %.0fs "
                         "(need %.1f) — %s",
                         name.c_str(), static_cast<int>(votes.size()), best.score, best.pos,
                         static_cast<double>(kSingleStrongScore),
                         linking ? "linking" : "not enough, deferring"));
        if (!linking) {
            return std::nullopt;
        }
        pos = best.pos;
    }
    double ahead = 0;
    for (int ci : clips) {
        if (ci < longest) {
            ahead += run.sources[si].clips[ci].duration;
        }
    }
    return pos - ahead;
}

void placeBackupLinked(Run& run, int si, double offset) {
    double cursor = offset;
    for (int ci : regionClipsOf(run, si)) {
        auto& clip = run.sources[si].clips[ci];
        clip.startOffset = cursor;
        clip.syncStatus = SyncStatus::synced;
        clip.matchScore.reset();
        clip.placementPass = PlacementCode::linked;
        reportPlace(run, clip);
        run.placementLog[clip.id] =
            PlacementRecord{cursor, 0.0f, PlacementCode::linked, std::nullopt, std::nullopt};
        cursor += clip.duration;
        advanceProgress(run, clipName(clip));
    }
    run.region.readyTracks.insert(si);
}

void placeUnlinked(Run& run, int si) {
    double cursor = run.baseOffset;
    for (int ready : run.region.readyTracks) {
        for (int ci : regionClipsOf(run, ready)) {
            const auto& clip = run.sources[ready].clips[ci];
            cursor = std::max(cursor, clip.startOffset + clip.duration);
        }
    }
    const double start = cursor;
    const std::string note = "after '" + run.sources[run.region.refTrack].name + "'";
    for (int ci : regionClipsOf(run, si)) {
        auto& clip = run.sources[si].clips[ci];
        clip.startOffset = cursor;
        clip.syncStatus = SyncStatus::weak;
        clip.matchScore.reset();
        clip.placementPass = PlacementCode::unlinked;
        clip.placementNote = note;
        reportPlace(run, clip);
        run.placementLog[clip.id] =
            PlacementRecord{cursor, 0.0f, PlacementCode::unlinked, std::nullopt, std::nullopt};
        cursor += clip.duration;
        advanceProgress(run, clipName(clip));
    }
    run.region.readyTracks.insert(si);
    logDetail(format("unlinked long-backup '%s' @ %llds", run.sources[si].name.c_str(),
                     static_cast<long long>(start)));
}

} // namespace SyncEngine
