#include "TessarinEngine/SyncEngine/Run.h"
#include "TessarinEngine/WorkerWindow.h"

#include <algorithm>
#include <cmath>
#include <map>

namespace SyncEngine {

namespace {

// Many clips over a long stretch of footage that all land in one short stretch of the pool have
// found one loud passage (a generator, a song), not their places.
constexpr std::size_t kHotSpotMinSeeds = 3;
constexpr double kHotSpotMinFootage = 300.0;
constexpr double kHotSpotSpreadShare = 0.3;
// A probe result may lie this far outside the bracket of its strong neighbours and still count.
constexpr double kProbeOrderTolerance = 3.0;
constexpr double kNoUpperBracket = 1e12;

} // namespace

std::optional<HotSpot> findHotSpot(const std::map<int, Match>& seeds,
                                   const std::vector<double>& prefixDur) {
    if (seeds.size() < kHotSpotMinSeeds) {
        return std::nullopt;
    }
    const int first = seeds.begin()->first;
    const int last = seeds.rbegin()->first;
    const double footage = prefixDur[last] - prefixDur[first];
    const double spread = std::abs(seeds.rbegin()->second.pos - seeds.begin()->second.pos);
    if (footage > kHotSpotMinFootage && spread < footage * kHotSpotSpreadShare) {
        return HotSpot{footage, spread};
    }
    return std::nullopt;
}

namespace {

// The whole-pool window probe for a track whose Pass 1 found no anchor. Places seeds as anchors,
// or returns true when they form a hot spot.
bool seedFromWholePool(Run& run, ChainState& chain, const std::vector<PoolSpan>& pool,
                       const std::string& trackName) {
    std::vector<int> candidates;
    for (int k = 0; k < static_cast<int>(chain.clips.size()); ++k) {
        if (chain.clips[k].duration >= kShortestMatched) {
            candidates.push_back(k);
        }
    }
    std::map<int, Match> seeds;
    WorkerWindow::run<std::optional<Match>>(
        candidates.size(), static_cast<std::size_t>(std::max(run.width, 1)),
        [&](std::size_t j) {
            const auto& clip = chain.clips[candidates[j]];
            return multiWindowMatch(clip.bandFeature, clip.duration, -kWidest, kWidest, pool, true);
        },
        [&](std::size_t j, std::optional<Match> m) {
            if (run.cancelled()) {
                return false;
            }
            if (m && m->score >= kStrongScore) {
                seeds[candidates[j]] = *m;
            }
            return true;
        });

    if (const auto spot = findHotSpot(seeds, chain.prefixDur)) {
        logDetail(format("track '%s': %d clips spanning %.0f min of footage all correlate to a "
                         "%.0f s window — a hot spot in the pool, not a chain. Laying the whole "
                         "track by its own clock.",
                         trackName.c_str(), static_cast<int>(seeds.size()), spot->footage / 60.0,
                         spot->spread));
        return true;
    }
    std::vector<ChainAnchor> pairs;
    for (const auto& [k, m] : seeds) {
        pairs.push_back(ChainAnchor{k, m.pos});
    }
    const auto chosen = longestConsistentChain(pairs, chain.prefixDur, kChainSlack);
    for (int k : chosen) {
        const Match m = seeds.at(k);
        chain.placed.insert(k);
        chain.strong.insert(k);
        chain.posOf[k] = m.pos;
        run.placementLog[chain.clips[k].id] = PlacementRecord{
            m.pos, evidenceScore(run, m), PlacementCode::A1w, m.partner, std::nullopt};
        chain.setClip(run, k, m.pos, Placement::matched);
    }
    if (!chosen.empty()) {
        logDetail(format("track '%s': no Pass 1 anchor — seeded %d/%d from an unbracketed "
                         "whole-pool window probe",
                         trackName.c_str(), static_cast<int>(chosen.size()),
                         static_cast<int>(seeds.size())));
    }
    return false;
}

// The whole-pool probe of one clip: an unbracketed search, believed only where it keeps the order
// of the strong chain.
void probeOneClip(Run& run, ChainState& chain, int k, const std::vector<PoolSpan>& pool) {
    const auto& clip = chain.clips[k];
    const auto m = multiWindowMatch(clip.bandFeature, clip.duration, -kWidest, kWidest, pool, true);
    if (!m || m->score < kWeakScore) {
        return;
    }
    double lo = 0.0;
    double hi = kWidest;
    const auto after = chain.strong.lower_bound(k);
    if (after != chain.strong.begin()) {
        const int a = *std::prev(after);
        lo = chain.posOf.at(a) + chain.clips[a].duration;
    }
    const auto next = chain.strong.upper_bound(k);
    if (next != chain.strong.end()) {
        hi = chain.posOf.at(*next) - clip.duration;
    }
    const std::string name = clipName(clip);
    if (lo - kProbeOrderTolerance <= m->pos && m->pos <= hi + kProbeOrderTolerance) {
        const double hi2 = hi > kNoUpperBracket ? m->pos : hi;
        chain.acceptFill(run, k, *m, std::max(lo, 0.0), hi2, PlacementCode::A4);
        const auto it = chain.posOf.find(k);
        const double shown = it != chain.posOf.end() ? it->second : m->pos;
        logDetail(format("'%s' found by whole-pool probe @ %.1fs score=%.1f — no bracket",
                         name.c_str(), shown, static_cast<double>(m->score)));
        return;
    }
    const std::string bracket =
        hi > kNoUpperBracket ? format("after %.0fs", lo) : format("%.0f…%.0f", lo, hi);
    logDetail(format("'%s' whole-pool probe @ %.1fs score=%.1f — out of order with the strong "
                     "chain (%s), ignored",
                     name.c_str(), m->pos, static_cast<double>(m->score), bracket.c_str()));
}

} // namespace

TrackResult syncOneTrack(Run& run, int si) {
    std::vector<ClipRef> refs;
    for (int ci : regionClipsOf(run, si)) {
        refs.push_back(ClipRef{si, ci});
    }
    if (refs.empty()) {
        return {};
    }
    // All passes of one call see the pool as it stood at the start.
    const std::vector<PoolSpan> pool = run.region.matchSpans;
    const std::string trackName = run.sources[si].name;
    ChainState chain;
    chain.init(run, refs);
    chain.checkSpans = &pool;
    const int n = static_cast<int>(chain.clips.size());

    const auto jobs = buildPass1Jobs(run, chain, pool);
    runPass1(run, chain, jobs, pool);

    std::vector<ChainAnchor> pairs;
    for (int k = 0; k < n; ++k) {
        if (const auto it = chain.hits.find(k); it != chain.hits.end()) {
            pairs.push_back(ChainAnchor{k, it->second.pos});
        }
    }
    const auto anchors = longestConsistentChain(pairs, chain.prefixDur, kChainSlack);
    bool hotSpot = false;
    if (!anchors.empty()) {
        for (int k : anchors) {
            chain.placed.insert(k);
            chain.strong.insert(k);
            chain.placeAnchor(run, k, chain.hits.at(k), PlacementCode::A1);
        }
    } else {
        hotSpot = seedFromWholePool(run, chain, pool, trackName);
    }
    chain.dropAgainstProvenClocks(run);
    if (!hotSpot) {
        chain.placeChapters(run);
    }

    if (!hotSpot) {
        for (int k : chain.order) {
            if (chain.placed.contains(k) || chain.clips[k].duration < kShortestMatched) {
                continue;
            }
            if (run.cancelled()) {
                return {};
            }
            const Window w = chain.bounds(k);
            if (w.lo < w.hi) {
                const auto m = bestMatch(pool, chain.clips[k].bandFeature, w.lo, w.hi);
                if (m && m->score >= kWeakScore) {
                    chain.acceptFill(run, k, *m, w.lo, w.hi, PlacementCode::A3);
                }
            }
            advanceProgress(run, clipName(chain.clips[k]), 0.5);
        }
        if (!longRescueTrack(run, chain, pool)) {
            return {};
        }
        for (int k : chain.order) {
            if (chain.placed.contains(k) || chain.clips[k].duration < kShortestMatched) {
                continue;
            }
            if (run.cancelled()) {
                return {};
            }
            probeOneClip(run, chain, k, pool);
        }
    }

    const auto counts = chain.layout(run);
    if (counts.byClock >= 1) {
        logDetail(format("track '%s': %d unmatched clip(s) placed by their own clock",
                         trackName.c_str(), counts.byClock));
    }
    // A recorder's clip is never thrown out as failed: it still carries sound for the edit, so
    // it is offered where its neighbours put it, to be checked by ear.
    if (run.sources[si].type == SourceType::audio) {
        for (const auto& r : refs) {
            auto& clip = run.clip(r);
            if (clip.syncStatus == SyncStatus::failed) {
                clip.syncStatus = SyncStatus::weak;
                if (!clip.placementPass) {
                    clip.placementPass = PlacementCode::interp;
                }
            }
        }
    }
    logDetail(
        format("track '%s': %d anchors of %d clips", trackName.c_str(), chain.matchedCount(), n));
    int matched = 0;
    for (const auto& r : refs) {
        if (run.clip(r).matchScore) {
            ++matched;
        }
    }
    return TrackResult{matched, hotSpot};
}

} // namespace SyncEngine
