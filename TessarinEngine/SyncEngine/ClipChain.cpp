#include "TessarinEngine/SyncEngine/Run.h"
#include "TessarinEngine/SyncEngine/TaskGroup.h"

#include <algorithm>
#include <map>
#include <numeric>

namespace SyncEngine {

void ChainState::init(const Run& run, std::vector<ClipRef> chainRefs) {
    refs = std::move(chainRefs);
    clips.clear();
    for (const auto& r : refs) {
        clips.push_back(run.clip(r));
    }
    const int n = static_cast<int>(clips.size());
    prefixDur.assign(static_cast<std::size_t>(n) + 1, 0.0);
    for (int i = 0; i < n; ++i) {
        prefixDur[i + 1] = prefixDur[i] + clips[i].duration;
    }
    order.resize(static_cast<std::size_t>(n));
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(),
                     [&](int a, int b) { return clips[a].duration > clips[b].duration; });
}

Window ChainState::bounds(int i) const {
    Window w;
    const auto after = strong.lower_bound(i);
    if (after != strong.begin()) {
        const int a = *std::prev(after);
        w.lo = posOf.at(a) + clips[a].duration;
    }
    const auto next = strong.upper_bound(i);
    if (next != strong.end()) {
        w.hi = posOf.at(*next) - clips[i].duration;
    }
    return w;
}

void ChainState::acceptFill(Run& run, int i, Match m, double lo, double hi,
                            const std::string& kind) {
    const double p = std::max(lo, std::min(m.pos, hi));
    placed.insert(i);
    posOf[i] = p;
    if (m.score >= kStrongScore) {
        strong.insert(i);
    }
    auto& clip = run.clip(refs[i]);
    run.placementLog[clip.id] = PlacementRecord{m.pos, m.score, kind, m.partner};
    clip.startOffset = p;
    clip.syncStatus = statusForScore(m.score);
    clip.matchScore = m.score;
    clip.placementPass = kind;
    checkTimecode(clip, p, *checkSpans);
    reportPlace(run, clip);
}

void ChainState::setClip(Run& run, int i, double pos, Placement how) {
    auto& clip = run.clip(refs[i]);
    const bool audible = clip.audioUsability == AudioUsability::ok;
    switch (how) {
    case Placement::matched:
        if (const auto it = run.placementLog.find(clip.id); it != run.placementLog.end()) {
            clip.syncStatus = statusForScore(it->second.score);
            clip.matchScore = it->second.score;
            clip.placementPass = it->second.kind;
        } else {
            clip.syncStatus = SyncStatus::synced;
            clip.matchScore.reset();
            clip.placementPass = "A1";
        }
        break;
    case Placement::clock:
        clip.syncStatus = audible ? SyncStatus::weak : SyncStatus::pending;
        clip.matchScore.reset();
        clip.placementPass = "clock";
        break;
    case Placement::interp:
        clip.syncStatus = audible ? SyncStatus::failed : SyncStatus::pending;
        clip.matchScore.reset();
        clip.placementPass = audible ? "interp" : "interp-noaudio";
        break;
    }
    clip.startOffset = pos;
    if (how != Placement::matched) {
        run.placementLog[clip.id] =
            PlacementRecord{std::nullopt, 0.0f, *clip.placementPass, std::nullopt};
    } else {
        checkTimecode(clip, pos, *checkSpans);
    }
    reportPlace(run, clip);
}

void ChainState::placeAnchor(Run& run, int i, Match m, const std::string& kind) {
    posOf[i] = m.pos;
    auto& clip = run.clip(refs[i]);
    run.placementLog[clip.id] = PlacementRecord{m.pos, m.score, kind, m.partner};
    clip.startOffset = m.pos;
    clip.syncStatus = statusForScore(m.score);
    clip.matchScore = m.score;
    clip.placementPass = kind;
    checkTimecode(clip, m.pos, *checkSpans);
    reportPlace(run, clip);
}

ChainCounts ChainState::layout(Run& run) {
    const std::vector<int> anchors(placed.begin(), placed.end());
    // A track is one device, and tracks that name the same device (one camera's cards) are one.
    std::map<std::string, int> deviceIds;
    std::vector<int> deviceOf;
    for (const auto& r : refs) {
        const auto& track = run.sources[r.si];
        const auto key = track.deviceName ? "=" + *track.deviceName : "#" + std::to_string(r.si);
        deviceOf.push_back(
            deviceIds.emplace(key, static_cast<int>(deviceIds.size())).first->second);
    }
    const auto counts = layoutChain(
        anchors, posOf, [&](int i) { return clips[i].duration; },
        [&](int i) -> std::optional<Date> {
            // Only clocks that come from the file itself are trusted to lay a clip.
            if (clips[i].clockQuality >= ClockQuality::filename) {
                return clips[i].recordingDate;
            }
            return std::nullopt;
        },
        [&](int i, double pos, Placement how) { setClip(run, i, pos, how); }, run.baseOffset,
        static_cast<int>(clips.size()), [&](int i) { return deviceOf[i]; });
    for (int i = 0; i < static_cast<int>(clips.size()); ++i) {
        if (!placed.contains(i)) {
            run.clip(refs[i]).placementNote =
                neighbourNote(i, anchors, [&](int k) { return clipName(clips[k]); });
        }
    }
    return counts;
}

std::vector<Pass1Job> buildPass1Jobs(const Run& run, const ChainState& chain,
                                     const std::vector<PoolSpan>& spans) {
    std::vector<Pass1Job> jobs;
    for (int i = 0; i < static_cast<int>(chain.clips.size()); ++i) {
        const auto& clip = chain.clips[i];
        jobs.push_back(Pass1Job{i, clipName(clip), clip.duration, clip.bandFeature,
                                jobWindow(run, chain.refs[i].si, clip, spans)});
    }
    std::stable_sort(jobs.begin(), jobs.end(),
                     [](const auto& a, const auto& b) { return a.duration > b.duration; });
    return jobs;
}

bool runPass1(Run& run, ChainState& chain, const std::vector<Pass1Job>& jobs,
              const std::vector<PoolSpan>& spans) {
    bool cancelled = false;
    runBounded<std::optional<Match>>(
        static_cast<int>(jobs.size()), run.width,
        [&](int j) -> std::optional<Match> {
            const auto& job = jobs[j];
            if (job.duration < kShortestMatched) {
                return std::nullopt;
            }
            const Window w = job.window.hi <= job.window.lo ? Window{} : job.window;
            return multiWindowMatch(job.feature, job.duration, w.lo, w.hi, spans, false);
        },
        [&](int j, std::optional<Match> match) {
            if (run.cancelled()) {
                cancelled = true;
                return false;
            }
            const auto& job = jobs[j];
            advanceProgress(run, job.name, 0.5);
            if (match && match->score >= kStrongScore) {
                chain.hits[job.index] = *match;
                run.placementLog[chain.clips[job.index].id] =
                    PlacementRecord{match->pos, match->score, "p1", match->partner};
            }
            return true;
        });
    return !cancelled && !run.cancelled();
}

void syncClipChain(Run& run, const std::vector<ClipRef>& refs, const std::string& label,
                   const std::vector<PoolSpan>& pass1Spans,
                   const std::vector<PoolSpan>& pass3Spans) {
    if (refs.empty()) {
        return;
    }
    ChainState chain;
    chain.init(run, refs);
    chain.checkSpans = &pass3Spans;
    const int n = static_cast<int>(chain.clips.size());
    const auto jobs = buildPass1Jobs(run, chain, pass1Spans);
    logDetail(format("camera chain Pass1 '%s' on %d primary segment(s)", label.c_str(),
                     static_cast<int>(pass1Spans.size())));
    if (!runPass1(run, chain, jobs, pass1Spans)) {
        return;
    }

    std::vector<ChainAnchor> pairs;
    for (int i = 0; i < n; ++i) {
        if (const auto it = chain.hits.find(i); it != chain.hits.end()) {
            pairs.push_back(ChainAnchor{i, it->second.pos});
        }
    }
    for (int i : longestConsistentChain(pairs, chain.prefixDur, kChainSlack)) {
        chain.placed.insert(i);
        chain.strong.insert(i);
        chain.placeAnchor(run, i, chain.hits.at(i), "A1");
    }
    for (int i = 0; i < n; ++i) {
        if (chain.placed.contains(i) || chain.clips[i].duration < kShortestMatched) {
            advanceProgress(run, clipName(chain.clips[i]), 0.5);
        }
    }

    logDetail(format("camera chain Pass3 '%s' on %d segment(s)", label.c_str(),
                     static_cast<int>(pass3Spans.size())));
    for (int i : chain.order) {
        if (chain.placed.contains(i) || chain.clips[i].duration < kShortestMatched) {
            continue;
        }
        if (run.cancelled()) {
            return;
        }
        const Window w = chain.bounds(i);
        if (w.lo < w.hi) {
            const auto m = clipMatch(run, refs[i].si, refs[i].ci, w.lo, w.hi, pass3Spans);
            if (m && m->score >= kWeakScore) {
                chain.acceptFill(run, i, *m, w.lo, w.hi, "A3");
            }
        }
        advanceProgress(run, clipName(chain.clips[i]), 0.5);
    }

    if (!longRescueChain(run, chain) || !cameraCross(run, chain)) {
        return;
    }
    cameraCluster(run, chain);
    siblingProp(run, chain);

    const auto counts = chain.layout(run);
    std::string line = format("camera chain '%s': %d anchors of %d clips", label.c_str(),
                              static_cast<int>(chain.placed.size()), n);
    if (counts.byClock >= 1) {
        line += format(", %d placed by clock", counts.byClock);
    }
    logDetail(line);
}

} // namespace SyncEngine
