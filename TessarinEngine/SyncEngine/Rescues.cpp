#include "TessarinEngine/PairwiseOffsetSolver.h"
#include "TessarinEngine/SyncEngine/PeakTiming.h"
#include "TessarinEngine/SyncEngine/Run.h"

#include <algorithm>
#include <cmath>
#include <map>

namespace SyncEngine {

namespace {

// A take this long is worth a search over its whole bracket and may stand beside another
// camera's take.
constexpr double kLongTake = 300.0;
// What a camera cross or sibling may land outside its bracket and still be believed (then held
// inside it): clip lengths and clock rounding are not exact to the frame.
constexpr double kBracketTolerance = 3.0;
// Windows of one pair agree on an offset only this tightly: two cameras of one take hear the same
// room, so their votes coincide to a frame or two when the link is real.
constexpr double kCrossClusterRadius = 0.5;
// A member of a cluster or a sibling whose witness left no score of its own.
constexpr float kPresumedScore = 7.0f;

std::string nameOf(const ChainState& chain, int i) {
    return clipName(chain.clips[i]);
}

// The stretch where B-roll around a long take says it lies: the take began a little before the
// first short clip shot during it, and ran on for a good part of its length.
std::optional<Window> brollPriorWindow(const Run& run, double lo, double hi, double clipDur) {
    std::vector<double> starts;
    for (int si : run.region.tracks) {
        const auto& track = run.sources[si];
        if (track.type != SourceType::video) {
            continue;
        }
        for (int ci = 0; ci < static_cast<int>(track.clips.size()); ++ci) {
            if (!inRegion(run, si, ci)) {
                continue;
            }
            const auto& clip = track.clips[ci];
            const auto pass = clip.placementPass.value_or("");
            if (clip.duration < kLongTake &&
                (clip.syncStatus == SyncStatus::synced || clip.syncStatus == SyncStatus::weak) &&
                (pass == PlacementCode::A1 || pass == PlacementCode::A3 ||
                 pass == PlacementCode::A3b || pass == PlacementCode::p1) &&
                clip.startOffset >= lo && clip.startOffset <= hi) {
                starts.push_back(clip.startOffset);
            }
        }
    }
    if (starts.size() < 2) {
        return std::nullopt;
    }
    const double s = *std::min_element(starts.begin(), starts.end());
    const double wLo = std::max(lo, s - 30.0);
    const double wHi = std::min(hi, s + std::max(clipDur * 0.55, 240.0));
    if (wHi - wLo < std::max(clipDur * 0.2, 60.0)) {
        return std::nullopt;
    }
    return Window{wLo, wHi};
}

struct CrossLink {
    double offset = 0;
    float score = 0;
};

// Position of b minus position of a, from their audio alone. Windows of the shorter clip are
// sought in the longer one; only the longer's own span is searched, so a shorter clip that began
// before the longer one gives nothing.
std::optional<CrossLink> crossProbe(const ChainState& chain, int a, int b) {
    const auto& ca = chain.clips[a];
    const auto& cb = chain.clips[b];
    if (!ca.bandFeature || !cb.bandFeature || ca.audioUsability != AudioUsability::ok ||
        cb.audioUsability != AudioUsability::ok) {
        return std::nullopt;
    }
    const bool aShorter = ca.duration <= cb.duration;
    const auto& shorter = aShorter ? ca : cb;
    const auto& longer = aShorter ? cb : ca;
    const double length = shorter.duration;
    const double window = std::min(length * 0.5, 45.0);
    if (window < 10.0) {
        return std::nullopt;
    }
    std::vector<Match> votes;
    for (double centre : {0.15, 0.45, 0.75}) {
        double start = std::max(length * centre - window / 2, 0.0);
        start = std::min(start, length - window);
        if (start < 0) {
            continue;
        }
        const auto slice = SpectralBands::slice(*shorter.bandFeature, start, window);
        if (!slice || slice->frames >= longer.bandFeature->frames) {
            continue;
        }
        const auto found = searchPeaks(*slice, *longer.bandFeature, 0.0, kWidest, kSearchOverlap,
                                       kBestPeakOnly, kSearchSeparation);
        if (!found.empty() && found.front().score >= kStrongScore) {
            votes.push_back(
                Match{found.front().offsetSeconds - start, found.front().score, std::nullopt});
        }
    }
    if (votes.empty()) {
        return std::nullopt;
    }
    const auto cluster = largestCluster(votes, kCrossClusterRadius);
    if (cluster.size() < 2) {
        return std::nullopt;
    }
    double mean = 0;
    float score = cluster.front().score;
    for (const auto& v : cluster) {
        mean += v.pos;
        score = std::max(score, v.score);
    }
    mean /= static_cast<double>(cluster.size());
    return CrossLink{aShorter ? -mean : mean, score};
}

int findRoot(std::vector<int>& parent, int x) {
    while (parent[x] != x) {
        x = parent[x];
    }
    return x;
}

// Visits, longest first, every long take that is still unplaced and has room in its bracket.
// False when the run was cancelled on the way.
template <class Visit>
bool forEachLongTake(Run& run, ChainState& chain, Visit visit) {
    for (int i : chain.order) {
        if (chain.placed.contains(i) || chain.clips[i].duration < kLongTake) {
            continue;
        }
        if (run.cancelled()) {
            return false;
        }
        const Window w = chain.bounds(i);
        if (w.lo < w.hi) {
            visit(i, w);
        }
    }
    return true;
}

} // namespace

bool longRescueChain(Run& run, ChainState& chain) {
    return forEachLongTake(run, chain, [&](int i, const Window& w) {
        const auto& ref = chain.refs[i];
        const auto& spans = *chain.checkSpans;
        const auto m = clipMatch(run, ref.si, ref.ci, w.lo, w.hi, spans);
        if (m && m->score >= kWeakScore &&
            chain.acceptFill(run, i, *m, w.lo, w.hi, PlacementCode::A3b)) {
            logDetail(format("long rescue '%s' @ %.1fs score=%.1f (window %.0f…%.0f)",
                             nameOf(chain, i).c_str(), chain.posOf.at(i), m->score, w.lo, w.hi));
            return;
        }
        if (const auto prior = brollPriorWindow(run, w.lo, w.hi, chain.clips[i].duration)) {
            const auto m2 = clipMatch(run, ref.si, ref.ci, prior->lo, prior->hi, spans);
            if (m2 && m2->score >= kWeakScore &&
                chain.acceptFill(run, i, *m2, std::max(w.lo, prior->lo), std::min(w.hi, prior->hi),
                                 PlacementCode::A3bBroll)) {
                logDetail(format("long rescue '%s' @ %.1fs score=%.1f via B-roll prior (%.0f…%.0f)",
                                 nameOf(chain, i).c_str(), chain.posOf.at(i), m2->score, prior->lo,
                                 prior->hi));
                return;
            }
        }
        logDetail(format("long rescue miss '%s' (%.0fs) window %.0f…%.0f — will interp",
                         nameOf(chain, i).c_str(), chain.clips[i].duration, w.lo, w.hi));
    });
}

bool cameraCross(Run& run, ChainState& chain) {
    const int n = static_cast<int>(chain.clips.size());
    for (int i : chain.order) {
        if (chain.placed.contains(i) || chain.clips[i].duration < kShortestMatched) {
            continue;
        }
        if (run.cancelled()) {
            return false;
        }
        const Window w = chain.bounds(i);
        if (w.lo >= w.hi) {
            continue;
        }
        std::optional<Match> best;
        for (int j = 0; j < n; ++j) {
            if (!chain.placed.contains(j)) {
                continue;
            }
            const auto x = crossProbe(chain, i, j);
            if (!x) {
                continue;
            }
            const double cand = chain.posOf.at(j) - x->offset;
            if (w.lo - kBracketTolerance <= cand && cand <= w.hi + kBracketTolerance &&
                (!best || x->score > best->score)) {
                best = Match{cand, x->score, chain.refs[j]};
            }
        }
        if (!best) {
            continue;
        }
        const double p = std::max(w.lo, std::min(w.hi, best->pos));
        if (chain.clockOverrules(i, best->score, p)) {
            continue;
        }
        chain.place(
            run, i, p,
            PlacementRecord{p, best->score, PlacementCode::A3cam, best->partner, std::nullopt});
        logDetail(format("camera cross '%s' @ %.1fs score=%.1f (matched a sibling camera, no "
                         "external audio nearby)",
                         nameOf(chain, i).c_str(), p, best->score));
    }
    return true;
}

void cameraCluster(Run& run, ChainState& chain) {
    const int n = static_cast<int>(chain.clips.size());
    std::vector<int> unplaced;
    for (int i = 0; i < n; ++i) {
        if (!chain.placed.contains(i) && chain.clips[i].duration >= kShortestMatched) {
            unplaced.push_back(i);
        }
    }
    if (unplaced.size() < 2) {
        return;
    }
    const int m = static_cast<int>(unplaced.size());
    std::vector<PairwiseOffsetSolver::Measurement> measurements;
    for (int p = 0; p < m; ++p) {
        for (int q = p + 1; q < m; ++q) {
            if (const auto x = crossProbe(chain, unplaced[p], unplaced[q])) {
                measurements.push_back({p, q, x->offset, x->score});
            }
        }
    }
    if (measurements.empty()) {
        return;
    }
    std::vector<int> parent(static_cast<std::size_t>(m));
    for (int p = 0; p < m; ++p) {
        parent[p] = p;
    }
    for (const auto& x : measurements) {
        const int rf = findRoot(parent, x.from);
        const int rt = findRoot(parent, x.to);
        if (rf != rt) {
            parent[rt] = rf;
        }
    }
    std::map<int, std::vector<int>> groups;
    for (int p = 0; p < m; ++p) {
        groups[findRoot(parent, p)].push_back(p);
    }

    const double H2 = kWidest / 2;
    for (const auto& [root, members] : groups) {
        if (members.size() < 2) {
            continue;
        }
        std::map<int, int> local;
        for (int k = 0; k < static_cast<int>(members.size()); ++k) {
            local[members[k]] = k;
        }
        std::vector<PairwiseOffsetSolver::Measurement> inside;
        for (const auto& x : measurements) {
            if (local.contains(x.from) && local.contains(x.to)) {
                inside.push_back({local[x.from], local[x.to], x.offset, x.weight});
            }
        }
        if (inside.empty()) {
            continue;
        }
        int master = 0;
        for (int k = 1; k < static_cast<int>(members.size()); ++k) {
            if (chain.clips[unplaced[members[k]]].duration >
                chain.clips[unplaced[members[master]]].duration) {
                master = k;
            }
        }
        const auto off =
            PairwiseOffsetSolver::solve(static_cast<int>(members.size()), master, inside);
        double a = -kWidest;
        double b = kWidest;
        for (int k = 0; k < static_cast<int>(members.size()); ++k) {
            const Window w = chain.bounds(unplaced[members[k]]);
            a = std::max(a, w.lo - off[k]);
            b = std::min(b, w.hi - off[k]);
        }
        if (!(a < b)) {
            continue;
        }
        double base = 0.0;
        if (a > -H2 && b < H2) {
            base = (a + b) / 2;
        } else if (a > -H2) {
            base = a;
        } else if (b < H2) {
            base = b;
        }
        std::string names;
        for (int p : members) {
            names += (names.empty() ? "" : " + ") + nameOf(chain, unplaced[p]);
        }
        logDetail(format("camera cluster '%s' @ %.1fs — %d clip(s), no external audio anywhere "
                         "nearby, synced only against each other",
                         names.c_str(), base, static_cast<int>(members.size())));
        for (int k = 0; k < static_cast<int>(members.size()); ++k) {
            const int i = unplaced[members[k]];
            const double p = base + off[k];
            float score = kPresumedScore;
            for (const auto& x : inside) {
                if (x.from == k || x.to == k) {
                    score = x.weight;
                    break;
                }
            }
            // The cluster hangs together by its longest member.
            const std::optional<ClipRef> partner =
                k == master ? std::nullopt
                            : std::optional<ClipRef>(chain.refs[unplaced[members[master]]]);
            chain.place(run, i, p,
                        PlacementRecord{p, score, PlacementCode::A3cluster, partner, std::nullopt});
        }
    }
}

void siblingProp(Run& run, ChainState& chain) {
    const int n = static_cast<int>(chain.clips.size());
    for (int i = 0; i < n; ++i) {
        const auto& ci = chain.clips[i];
        if (chain.placed.contains(i) || ci.duration < kLongTake) {
            continue;
        }
        const Window w = chain.bounds(i);
        if (w.lo >= w.hi) {
            continue;
        }
        const double mid = w.lo / 2 + w.hi / 2;
        std::optional<int> best;
        for (int j = 0; j < n; ++j) {
            const auto& cj = chain.clips[j];
            if (!chain.placed.contains(j) || chain.refs[j].si == chain.refs[i].si ||
                cj.duration < kLongTake) {
                continue;
            }
            const double pj = chain.posOf.at(j);
            const double di = ci.duration;
            const double dj = cj.duration;
            if (!(w.lo - kBracketTolerance <= pj && pj + di <= w.hi + kBracketTolerance)) {
                continue;
            }
            const bool alikeLength = std::abs(di - dj) <= std::max(std::max(di, dj) * 0.2, 90.0);
            const bool alikeClock = ci.recordingDate && cj.recordingDate &&
                                    ci.clockQuality >= ClockQuality::filename &&
                                    cj.clockQuality >= ClockQuality::filename &&
                                    std::abs(*ci.recordingDate - *cj.recordingDate) <= 120.0;
            if (!alikeLength && !alikeClock) {
                continue;
            }
            if (!best || std::abs(pj - mid) < std::abs(chain.posOf.at(*best) - mid)) {
                best = j;
            }
        }
        if (!best) {
            continue;
        }
        const int j = *best;
        const double p = std::max(w.lo, std::min(w.hi, chain.posOf.at(j)));
        float score = kPresumedScore;
        if (const auto it = run.placementLog.find(chain.clips[j].id);
            it != run.placementLog.end()) {
            score = it->second.score;
        }
        chain.place(run, i, p,
                    PlacementRecord{p, score, PlacementCode::sibling, chain.refs[j], std::nullopt});
        run.clip(chain.refs[i]).placementNote = "alongside '" + nameOf(chain, j) + "'";
        logDetail(format("sibling prop '%s' ← '%s' @ %.1fs", nameOf(chain, i).c_str(),
                         nameOf(chain, j).c_str(), p));
    }
}

bool longRescueTrack(Run& run, ChainState& chain, const std::vector<PoolSpan>& pool) {
    const bool finished = forEachLongTake(run, chain, [&](int k, const Window& w) {
        const auto& ref = chain.refs[k];
        const auto m = clipMatch(run, ref.si, ref.ci, w.lo, w.hi, pool);
        if (m && m->score >= kWeakScore &&
            chain.acceptFill(run, k, *m, w.lo, w.hi, PlacementCode::A3b)) {
            logDetail(format("long rescue '%s' @ %.1fs score=%.1f (track '%s')",
                             nameOf(chain, k).c_str(), chain.posOf.at(k), m->score,
                             run.sources[ref.si].name.c_str()));
        }
    });
    return finished && !run.cancelled();
}

} // namespace SyncEngine
