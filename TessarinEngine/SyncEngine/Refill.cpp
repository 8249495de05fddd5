#include "TessarinEngine/SyncEngine/Run.h"

#include <algorithm>
#include <cmath>

namespace SyncEngine {

namespace {

// A clip laid by its clock may lie this far from its true place: clocks count whole seconds and
// drift a little through a day.
constexpr double kClockSearch = 5.0;
// Rounds of the refill: a clip placed in one round may be the witness of another in the next.
constexpr int kRounds = 3;
// Against clips laid by their clocks, a clip whose own clock is not proven is sought in its whole
// bracket only from this length on: unrelated audio of a shorter clip scores 7.0 by chance in a
// wide search, of a longer one hardly ever.
constexpr double kUnbracketedLeast = 20.0;

bool placedByEvidence(const ClipItem& clip) {
    const auto pass = clip.placementPass.value_or("");
    return clip.syncStatus == SyncStatus::synced && !pass.empty() && pass != "clock" &&
           pass != "interp" && pass != "interp-noaudio" && pass != "unlinked" &&
           pass != "sibling-ch";
}

bool laidWithoutAudio(const ClipItem& clip) {
    const auto pass = clip.placementPass.value_or("");
    return pass == "clock" || pass == "interp";
}

bool weaklyMatched(const ClipItem& clip) {
    return clip.syncStatus == SyncStatus::weak && clip.matchScore &&
           clip.placementPass.value_or("") != "sibling-ch";
}

// Every clip of the region that was placed with evidence, but for the clips of `own`; with
// `clockLaid`, the clips laid by their clocks too.
std::vector<PoolSpan> refillPool(const Run& run, int own, bool clockLaid) {
    std::vector<PoolSpan> pool;
    for (const auto& r : run.region.clips) {
        const auto& clip = run.clip(r);
        if (r.si == own || clip.duration < kShortestMatched || !clip.bandFeature ||
            clip.audioUsability != AudioUsability::ok) {
            continue;
        }
        if (placedByEvidence(clip) || (clockLaid && clip.placementPass == "clock")) {
            pool.push_back(spanOf(run, r));
        }
    }
    return pool;
}

// Tracks that are matched clip by clip: not the reference, not channels that follow their lead,
// not long backups laid as one block.
bool refillable(const Run& run, int si) {
    if (si == run.region.refTrack) {
        return false;
    }
    for (int ci : regionClipsOf(run, si)) {
        const auto pass = run.sources[si].clips[ci].placementPass.value_or("");
        if (pass == "sibling-ch" || pass == "linked" || pass == "unlinked") {
            return false;
        }
    }
    return true;
}

// Tries again, against what the whole region placed, the clips of one track that the passes laid
// by clock or between neighbours, or matched only weakly. Against clips that were themselves laid
// by clock (`clockLaid`) only a clip whose own clock is proven is sought, close to it. Returns how
// many found their place.
int refillTrack(Run& run, int si, bool clockLaid) {
    std::vector<ClipRef> refs;
    for (int ci : regionClipsOf(run, si)) {
        refs.push_back(ClipRef{si, ci});
    }
    ChainState chain;
    chain.init(run, refs);
    for (int i = 0; i < static_cast<int>(refs.size()); ++i) {
        const auto& clip = run.clip(refs[i]);
        if (!laidWithoutAudio(clip) && clip.placementPass && !weaklyMatched(clip) &&
            (clip.syncStatus == SyncStatus::synced || clip.syncStatus == SyncStatus::weak)) {
            chain.placed.insert(i);
            chain.posOf[i] = clip.startOffset;
            if (clip.syncStatus == SyncStatus::synced) {
                chain.strong.insert(i);
            }
        }
    }
    const auto pool = refillPool(run, si, clockLaid);
    chain.checkSpans = &pool;
    if (pool.empty()) {
        return 0;
    }
    int found = 0;
    for (int i : chain.order) {
        const auto& clip = run.clip(refs[i]);
        if (!(laidWithoutAudio(clip) || weaklyMatched(clip)) || clip.duration < kShortestMatched ||
            clip.audioUsability != AudioUsability::ok) {
            continue;
        }
        Window w = chain.bounds(i);
        const auto clock = chain.provenClock(i);
        if (clock) {
            w.lo = std::max(w.lo, *clock - kClockSearch);
            w.hi = std::min(w.hi, *clock + kClockSearch);
        } else if (clockLaid && clip.duration < kUnbracketedLeast) {
            continue;
        }
        if (!(w.lo < w.hi)) {
            continue;
        }
        const auto m = bestMatch(pool, chain.clips[i].bandFeature, w.lo, w.hi);
        // A weak match found again where it lies has nothing new to say.
        const bool same = weaklyMatched(clip) && m && std::abs(m->pos - clip.startOffset) < 0.02 &&
                          evidenceScore(run, *m) < kStrongScore;
        if (m && !same && m->score >= kStrongScore &&
            chain.acceptFill(run, i, *m, w.lo, w.hi, "A3")) {
            logDetail(format("'%s' found on a second look @ %.1fs score=%.1f",
                             clipName(clip).c_str(), chain.posOf.at(i), m->score));
            ++found;
        }
    }
    return found;
}

} // namespace

void refillUnmatched(Run& run) {
    // Recorders first: cameras are better found against a recorder than the other way round.
    std::vector<int> tracks = run.region.tracks;
    std::stable_partition(tracks.begin(), tracks.end(),
                          [&](int si) { return run.sources[si].type == SourceType::audio; });
    for (bool clockLaid : {false, true}) {
        for (int round = 0; round < kRounds; ++round) {
            int found = 0;
            for (int si : tracks) {
                if (refillable(run, si)) {
                    found += refillTrack(run, si, clockLaid);
                }
            }
            followLeads(run);
            if (found == 0) {
                break;
            }
        }
    }
}

} // namespace SyncEngine
