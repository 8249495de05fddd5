#include "TessarinEngine/SyncEngine/PeakTiming.h"
#include "TessarinEngine/SyncEngine/Run.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <map>

namespace SyncEngine {

namespace {

// Only a clip that heard this much of a reference clip may vote on where it lies.
constexpr double kLeastOverlap = 10.0;
// A reference clip is laid by a whole-second clock, and joined to the clip before it when their
// clocks are under 2 s apart: it may be off by about a second, and never by more than this.
constexpr double kLargestMove = 60.0;
// Smaller moves are the rounding of the band frames, not an error of the clock.
constexpr double kSmallestMove = 0.04;
constexpr std::size_t kLeastVotes = 2;
constexpr double kWindowShare = 0.4;
constexpr double kWindowMax = 45.0;
constexpr double kWindowMin = 4.0;
// Below this overlap the whole overlap is one window.
constexpr double kWholeOverlapBelow = 25.0;
constexpr double kWindowCentres[] = {0.15, 0.45, 0.75};

struct Interval {
    double from = 0;
    double to = 0;
};

Interval spanOfClip(const ClipItem& clip) {
    return {clip.startOffset, clip.startOffset + clip.duration};
}

// The stretches of the overlap of clip x with the reference clip, in seconds into x, whose audio
// is sought in the reference clip.
std::vector<Interval> overlapWindows(const ClipItem& x, const Interval& overlap) {
    const double length = overlap.to - overlap.from;
    const double start = overlap.from - x.startOffset;
    if (length < kWholeOverlapBelow) {
        return {{start, start + length}};
    }
    const double w = std::min(length * kWindowShare, kWindowMax);
    std::vector<Interval> windows;
    for (double centre : kWindowCentres) {
        const double from = std::clamp(length * centre - w / 2, 0.0, length - w);
        windows.push_back({start + from, start + from + w});
    }
    return windows;
}

// Votes for where the reference clip `refCi` begins, from the clips of other devices that heard
// it but were placed against another reference clip.
std::vector<Match> votesFor(const Run& run, int refCi) {
    const Region& region = run.region;
    const auto& refClip = run.sources[region.refTrack].clips[refCi];
    if (!refClip.bandFeature || refClip.bandFeature->frames < 5) {
        return {};
    }
    const Interval ref = spanOfClip(refClip);
    std::vector<Match> votes;
    for (const auto& r : region.clips) {
        if (r.si == region.refTrack) {
            continue;
        }
        const auto& x = run.clip(r);
        const auto entry = run.placementLog.find(x.id);
        if (entry == run.placementLog.end() || !entry->second.partner ||
            entry->second.partner->si != region.refTrack || entry->second.partner->ci == refCi ||
            !x.bandFeature || x.audioUsability != AudioUsability::ok) {
            continue;
        }
        const Interval span = spanOfClip(x);
        const Interval overlap{std::max(span.from, ref.from), std::min(span.to, ref.to)};
        if (overlap.to - overlap.from < kLeastOverlap) {
            continue;
        }
        for (const auto& w : overlapWindows(x, overlap)) {
            if (w.to - w.from < kWindowMin) {
                continue;
            }
            const auto slice = SpectralBands::slice(*x.bandFeature, w.from, w.to - w.from);
            if (!slice || slice->frames >= refClip.bandFeature->frames) {
                continue;
            }
            // Where the window begins in the reference clip if both lie where they are laid.
            const double expected = x.startOffset + w.from - refClip.startOffset;
            const auto found = searchPeaks(
                *slice, *refClip.bandFeature, expected - kLargestMove, expected + kLargestMove,
                std::min(kSearchOverlap, kSearchOverlapShare * (w.to - w.from)), kBestPeakOnly,
                kSearchSeparation);
            if (!found.empty()) {
                votes.push_back(Match{x.startOffset + w.from - found.front().offsetSeconds,
                                      found.front().score, r});
            }
        }
    }
    return votes;
}

// Moves a clip and, with it, every clip that was placed against it.
void moveWithDependents(Run& run, ClipRef moved, double delta,
                        const std::multimap<ClipRef, ClipRef>& dependents) {
    std::vector<ClipRef> todo{moved};
    std::set<ClipRef> done;
    while (!todo.empty()) {
        const ClipRef r = todo.back();
        todo.pop_back();
        if (!done.insert(r).second) {
            continue;
        }
        auto& clip = run.clip(r);
        clip.startOffset += delta;
        reportPlace(run, clip);
        const auto [from, to] = dependents.equal_range(r);
        for (auto it = from; it != to; ++it) {
            todo.push_back(it->second);
        }
    }
}

// After the reference clip `ci` moved, the clips of the reference it now overlaps are pushed clear
// of it, each with every clip placed against it: one recorder writes one file at a time, and a
// neighbour joined to the moved clip by their clocks shares the error the move corrected.
void pushNeighbours(Run& run, int ci, double delta,
                    const std::multimap<ClipRef, ClipRef>& dependents) {
    const Region& region = run.region;
    auto& clips = run.sources[region.refTrack].clips;
    std::vector<int> order(region.refClips.begin(), region.refClips.end());
    std::stable_sort(order.begin(), order.end(),
                     [&](int a, int b) { return clips[a].startOffset < clips[b].startOffset; });
    const auto at = std::find(order.begin(), order.end(), ci);
    if (at == order.end()) {
        return;
    }
    if (delta > 0) {
        double end = clips[ci].startOffset + clips[ci].duration;
        for (auto it = at + 1; it != order.end(); ++it) {
            const double overlap = end - clips[*it].startOffset;
            if (overlap <= kSmallestMove) {
                break;
            }
            moveWithDependents(run, ClipRef{region.refTrack, *it}, overlap, dependents);
            end = clips[*it].startOffset + clips[*it].duration;
        }
    } else {
        double start = clips[ci].startOffset;
        for (auto it = std::make_reverse_iterator(at); it != order.rend(); ++it) {
            const double overlap = clips[*it].startOffset + clips[*it].duration - start;
            if (overlap <= kSmallestMove) {
                break;
            }
            moveWithDependents(run, ClipRef{region.refTrack, *it}, -overlap, dependents);
            start = clips[*it].startOffset;
        }
    }
}

} // namespace

void checkReferenceByAudio(Run& run) {
    const Region& region = run.region;
    if (region.refClips.size() < 2) {
        return;
    }
    auto& refTrack = run.sources[region.refTrack];
    for (int ci : region.refClips) {
        const auto votes = votesFor(run, ci);
        const auto cluster = largestCluster(votes, kVoteAverageRadius);
        if (cluster.size() < kLeastVotes) {
            continue;
        }
        const Match consensus = clusterConsensus(cluster);
        const double delta = consensus.pos - refTrack.clips[ci].startOffset;
        if (consensus.score < kStrongScore || std::abs(delta) <= kSmallestMove ||
            std::abs(delta) > kLargestMove) {
            continue;
        }
        std::multimap<ClipRef, ClipRef> dependents;
        for (const auto& r : region.clips) {
            const auto entry = run.placementLog.find(run.clip(r).id);
            if (entry != run.placementLog.end() && entry->second.partner) {
                dependents.emplace(*entry->second.partner, r);
            }
        }
        moveWithDependents(run, ClipRef{region.refTrack, ci}, delta, dependents);
        pushNeighbours(run, ci, delta, dependents);
        logDetail(format("ref '%s' clip '%s' moved %+.2fs: %d votes of clips placed against the "
                         "other reference clips agree (score=%.1f) — its own clock was never "
                         "audio-verified",
                         refTrack.name.c_str(), clipName(refTrack.clips[ci]).c_str(), delta,
                         static_cast<int>(cluster.size()), consensus.score));
    }
}

} // namespace SyncEngine
