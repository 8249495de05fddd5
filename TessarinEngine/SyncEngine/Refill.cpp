#include "TessarinEngine/SyncEngine/Run.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <map>
#include <tuple>

namespace SyncEngine {

namespace {

// A clip laid by its clock may lie this far from its true place: clocks count whole seconds and
// drift a little through a day.
constexpr double kClockSearch = 5.0;
// Rounds of the refill: a clip placed in one round may be the witness of another in the next. A
// round that places sure matches leaves the less sure ones to the next.
constexpr int kRounds = 12;
// Against clips laid by their clocks, a clip whose own clock is not proven is sought in its whole
// bracket only from this length on: unrelated audio of a shorter clip scores 7.0 by chance in a
// wide search, of a longer one hardly ever.
constexpr double kUnbracketedLeast = 20.0;
// Where a clip's own clock is not proven, the matches found in whole brackets are taken surest
// first, a round at a time: a clip placed by a sure match may prove its neighbours' clock, or be
// the true partner of a clip whose best match so far is a likeness in another take of the scene.
constexpr float kRefillLadder[] = {10.0f, 8.5f, kStrongScore};

// Clips too short to stand out in a wide search are sought only this far either side of their
// proven clock, or in a closed bracket no wider than twice this. Clocks that count whole seconds
// put a clip less than a second from where their witnesses' shift says.
constexpr double kShortSearch = 1.0;
// Shorter clips hold too little audio to be told apart from a chance likeness at all.
constexpr double kShortestSought = 1.5;
// Up to this length a true match in a window of some seconds mostly scores under 7.0, so a clip
// the wide searches left unmatched is sought narrowly, against a floor of its own.
constexpr double kNarrowBelow = 8.0;

// The score a short clip's match must reach in a search 2 s wide, by the clip's length: unrelated
// audio passes it in under 1 % of such searches. Measured by bench_shortfloor on the
// generated shoots' cameras against recorders of other seeds, the highest of two sets, rounded up;
// between the measured lengths the floor runs straight.
float shortFloor(double seconds) {
    struct Point {
        double seconds;
        float floor;
    };
    static constexpr Point kFloors[] = {{1.5, 6.0f}, {2.0, 5.8f}, {3.0, 5.2f},
                                        {4.0, 4.9f}, {5.0, 4.9f}, {8.0, 4.6f}};
    if (seconds <= kFloors[0].seconds) {
        return kFloors[0].floor;
    }
    for (std::size_t k = 1; k < std::size(kFloors); ++k) {
        if (seconds <= kFloors[k].seconds) {
            const auto& a = kFloors[k - 1];
            const auto& b = kFloors[k];
            const double t = (seconds - a.seconds) / (b.seconds - a.seconds);
            return static_cast<float>(a.floor + t * (b.floor - a.floor));
        }
    }
    return kFloors[std::size(kFloors) - 1].floor;
}

// What the match that placed the clip scored before it was held to its partner's placement.
float measuredScore(const Run& run, const ClipItem& clip) {
    const auto entry = run.placementLog.find(clip.id);
    if (entry == run.placementLog.end()) {
        return clip.matchScore.value_or(0.0f);
    }
    return entry->second.measured.value_or(entry->second.score);
}

bool placedByEvidence(const ClipItem& clip) {
    const auto pass = clip.placementPass.value_or("");
    return clip.syncStatus == SyncStatus::synced && !pass.empty() && pass != PlacementCode::clock &&
           pass != PlacementCode::interp && pass != PlacementCode::interpNoAudio &&
           pass != PlacementCode::unlinked && pass != PlacementCode::siblingCh;
}

bool laidWithoutAudio(const ClipItem& clip) {
    const auto pass = clip.placementPass.value_or("");
    return pass == PlacementCode::clock || pass == PlacementCode::interp;
}

bool weaklyMatched(const ClipItem& clip) {
    return clip.syncStatus == SyncStatus::weak && clip.matchScore &&
           clip.placementPass.value_or("") != PlacementCode::siblingCh;
}

// Every clip of the region that was placed with evidence, but for the clips of `own`; with
// `clockLaid`, the clips laid by their clocks too, and with `weak` those matched only weakly.
std::vector<PoolSpan> refillPool(const Run& run, int own, bool clockLaid, bool weak = false) {
    std::vector<PoolSpan> pool;
    for (const auto& r : run.region.clips) {
        const auto& clip = run.clip(r);
        if (r.si == own || clip.duration < kShortestMatched || !clip.bandFeature ||
            clip.audioUsability != AudioUsability::ok) {
            continue;
        }
        if (placedByEvidence(clip) || (clockLaid && clip.placementPass == PlacementCode::clock) ||
            (weak && (weaklyMatched(clip) || (clip.placementPass == PlacementCode::chapter &&
                                              clip.syncStatus == SyncStatus::weak)))) {
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
        if (pass == PlacementCode::siblingCh || pass == PlacementCode::linked ||
            pass == PlacementCode::unlinked) {
            return false;
        }
    }
    return true;
}

// Tries again, against what the whole region placed, the clips of one track that the passes laid
// by clock or between neighbours, or matched only weakly. Against clips that were themselves laid
// by clock (`clockLaid`) only a clip whose own clock is proven is sought, close to it. A match away
// from a proven clock must reach `least`. Returns how many found their place.
// The chain of one track's clips as the passes left them: those placed by a match hold their
// places (with `weakHolds`, weak matches too), those laid without audio are free to be sought.
ChainState chainOfTrack(Run& run, int si, std::vector<ClipRef>& refs, bool weakHolds) {
    for (int ci : regionClipsOf(run, si)) {
        refs.push_back(ClipRef{si, ci});
    }
    ChainState chain;
    chain.init(run, refs);
    for (int i = 0; i < static_cast<int>(refs.size()); ++i) {
        const auto& clip = run.clip(refs[i]);
        if (!laidWithoutAudio(clip) && clip.placementPass && (weakHolds || !weaklyMatched(clip)) &&
            (clip.syncStatus == SyncStatus::synced || clip.syncStatus == SyncStatus::weak)) {
            chain.placed.insert(i);
            chain.posOf[i] = clip.startOffset;
            if (clip.syncStatus == SyncStatus::synced) {
                chain.strong.insert(i);
            }
        }
    }
    return chain;
}

// The searches of one step of the refill, kept until a clip is placed: the surest-first ladder asks
// the same questions again at each lower level.
using SearchMemo = std::map<std::tuple<ClipRef, bool, double, double>, std::optional<Match>>;

int refillTrack(Run& run, int si, bool clockLaid, float least, SearchMemo& memo) {
    std::vector<ClipRef> refs;
    ChainState chain = chainOfTrack(run, si, refs, false);
    const auto pool = refillPool(run, si, clockLaid);
    // A clip sought close to its proven clock may also meet clips matched only weakly: what it
    // finds there counts no more than they do, and it joins them where their audio agrees.
    const auto nearPool = refillPool(run, si, clockLaid, clockLaid);
    chain.checkSpans = &pool;
    if (nearPool.empty()) {
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
        const auto key = std::make_tuple(refs[i], clockLaid, w.lo, w.hi);
        auto known = memo.find(key);
        if (known == memo.end()) {
            known = memo.emplace(key, bestMatch(clock ? nearPool : pool, chain.clips[i].bandFeature,
                                                w.lo, w.hi))
                        .first;
        }
        const auto m = known->second;
        // A weak match found again where it lies has nothing new to say, and a clip matched weakly
        // moves far only to a place its audio matches better than where it lies.
        const bool same = weaklyMatched(clip) && m &&
                          ((std::abs(m->pos - clip.startOffset) < 0.02 &&
                            evidenceScore(run, *m) < kStrongScore) ||
                           (std::abs(m->pos - clip.startOffset) > kClockSearch &&
                            m->score <= measuredScore(run, clip)));
        if (m && !same && m->score >= (clock ? kStrongScore : least) &&
            chain.acceptFill(run, i, *m, w.lo, w.hi, PlacementCode::A3)) {
            logDetail(format("'%s' found on a second look @ %.1fs score=%.1f",
                             clipName(clip).c_str(), chain.posOf.at(i), m->score));
            ++found;
        }
    }
    return found;
}

// The chapters of one recording ran back to back: where the passes matched them one by one, each
// against a clip laid only by its clock, they can disagree by that clock's rounding. The chapter
// whose own match scored best leads, and the others that found no strong match of their own are
// laid against it.
void reflowChapters(Run& run, int si) {
    auto& clips = run.sources[si].clips;
    std::map<std::string, std::map<int, int>> recordings;
    for (int ci : regionClipsOf(run, si)) {
        if (clips[ci].recordingKey) {
            recordings[*clips[ci].recordingKey].emplace(clips[ci].chapterIndex, ci);
        }
    }
    for (const auto& [key, chapters] : recordings) {
        std::optional<int> lead;
        for (const auto& [index, ci] : chapters) {
            const auto& clip = clips[ci];
            if (clip.matchScore && clip.placementPass != PlacementCode::chapter &&
                !laidWithoutAudio(clip) &&
                (clip.syncStatus == SyncStatus::synced || clip.syncStatus == SyncStatus::weak) &&
                (!lead || measuredScore(run, clip) > measuredScore(run, clips[*lead]))) {
                lead = ci;
            }
        }
        if (!lead || chapters.size() < 2) {
            continue;
        }
        const auto& head = clips[*lead];
        const auto leadLog = run.placementLog.find(head.id);
        for (const auto& [index, ci] : chapters) {
            auto& clip = clips[ci];
            // A chapter that found a strong match of its own keeps it.
            if (ci == *lead || (clip.syncStatus == SyncStatus::synced && clip.matchScore &&
                                clip.placementPass != PlacementCode::chapter)) {
                continue;
            }
            double between = 0;
            for (const auto& [other, k] : chapters) {
                if (other >= std::min(index, head.chapterIndex) &&
                    other < std::max(index, head.chapterIndex)) {
                    between += clips[k].duration;
                }
            }
            const double pos =
                index > head.chapterIndex ? head.startOffset + between : head.startOffset - between;
            if (std::abs(pos - clip.startOffset) < 1e-3 &&
                clip.placementPass == PlacementCode::chapter) {
                continue;
            }
            const float score = leadLog != run.placementLog.end() ? leadLog->second.score
                                                                  : head.matchScore.value_or(0);
            run.placementLog[clip.id] = PlacementRecord{pos, score, PlacementCode::chapter,
                                                        ClipRef{si, *lead}, std::nullopt};
            clip.startOffset = pos;
            clip.syncStatus = head.syncStatus;
            clip.matchScore.reset();
            clip.placementPass = PlacementCode::chapter;
            clip.placementNote.reset();
            reportPlace(run, clip);
        }
    }
}

// Seeks the clips of one track too short to stand out in a wide search, each only where its proven
// clock or a closed bracket puts it, against everything placed with evidence. Returns how many were
// found.
int refillShortTrack(Run& run, int si) {
    std::vector<ClipRef> refs;
    ChainState chain = chainOfTrack(run, si, refs, true);
    const auto pool = refillPool(run, si, false);
    chain.checkSpans = &pool;
    int found = 0;
    for (int i : chain.order) {
        const auto& clip = run.clip(refs[i]);
        if (!laidWithoutAudio(clip) || clip.duration >= kNarrowBelow ||
            clip.duration < kShortestSought || !clip.bandFeature ||
            clip.audioUsability != AudioUsability::ok) {
            continue;
        }
        Window w = chain.bounds(i);
        if (const auto clock = chain.provenClock(i)) {
            w.lo = std::max(w.lo, *clock - kShortSearch);
            w.hi = std::min(w.hi, *clock + kShortSearch);
        } else if (!(w.hi - w.lo <= 2 * kShortSearch)) {
            continue;
        }
        if (!(w.lo < w.hi)) {
            continue;
        }
        const auto m = shortMatch(pool, *chain.clips[i].bandFeature, w.lo, w.hi);
        if (m && m->score < shortFloor(clip.duration)) {
            logDetail(format("'%s' short clip near its clock @ %.1fs score=%.1f — under its "
                             "floor %.1f",
                             clipName(clip).c_str(), m->pos, m->score, shortFloor(clip.duration)));
        }
        if (m && m->score >= shortFloor(clip.duration) &&
            chain.acceptFill(run, i, *m, w.lo, w.hi, PlacementCode::A3)) {
            logDetail(format("'%s' short clip found near its clock @ %.1fs score=%.1f",
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
    // Each step takes the surest matches that any pool offers: against what was placed with
    // evidence first, then against clips laid by their proven clocks.
    for (int round = 0; round < kRounds; ++round) {
        SearchMemo memo;
        int found = 0;
        for (float least : kRefillLadder) {
            for (bool clockLaid : {false, true}) {
                for (int si : tracks) {
                    if (refillable(run, si)) {
                        found += refillTrack(run, si, clockLaid, least, memo);
                    }
                }
                if (found > 0) {
                    break;
                }
            }
            if (found > 0) {
                break;
            }
        }
        for (int si : tracks) {
            reflowChapters(run, si);
        }
        followLeads(run);
        if (found == 0) {
            break;
        }
    }
    int shortFound = 0;
    for (int si : tracks) {
        if (refillable(run, si)) {
            shortFound += refillShortTrack(run, si);
        }
    }
    if (shortFound > 0) {
        followLeads(run);
    }
}

} // namespace SyncEngine
