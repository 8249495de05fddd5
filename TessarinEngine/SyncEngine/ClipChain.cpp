#include "TessarinEngine/SyncEngine/Run.h"
#include "TessarinEngine/WorkerWindow.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <numeric>

namespace SyncEngine {

namespace {

// Clocks of two anchors agree when the shifts they imply lie this close: clocks count whole
// seconds, and anchors are exact to a frame.
constexpr double kClockAgreement = 2.0;
// A match this far from where a proven clock puts its clip is a likeness, not the clip's place...
constexpr double kClockContradiction = 5.0;
// ...unless it is this strong: no clock overrules such a match.
constexpr float kOverrulesClock = 12.0f;

} // namespace

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
    // A track is one device, and tracks that name the same device (one camera's cards) are one.
    std::map<std::string, int> deviceIds;
    device.clear();
    for (const auto& r : refs) {
        const auto& track = run.sources[r.si];
        const auto key = track.deviceName ? "=" + *track.deviceName : "#" + std::to_string(r.si);
        device.push_back(deviceIds.emplace(key, static_cast<int>(deviceIds.size())).first->second);
    }
}

std::optional<double> ChainState::provenClock(int i) const {
    const auto& date = clips[i].recordingDate;
    if (!date) {
        return std::nullopt;
    }
    const auto witness = [&](int k) {
        return k != i && device[k] == device[i] && clips[k].recordingDate && !clockLaid.contains(k);
    };
    std::vector<int> before;
    std::vector<int> after;
    for (auto it = strong.rbegin(); it != strong.rend() && before.size() < 2; ++it) {
        if (*it < i && witness(*it)) {
            before.push_back(*it);
        }
    }
    for (auto it = strong.begin(); it != strong.end() && after.size() < 2; ++it) {
        if (*it > i && witness(*it)) {
            after.push_back(*it);
        }
    }
    int a = 0;
    int b = 0;
    if (!before.empty() && !after.empty()) {
        a = before.front();
        b = after.front();
    } else if (before.size() == 2) {
        a = before.front();
        b = before.back();
    } else if (after.size() == 2) {
        a = after.front();
        b = after.back();
    } else {
        return std::nullopt;
    }
    const double shiftA = posOf.at(a) - *clips[a].recordingDate;
    const double shiftB = posOf.at(b) - *clips[b].recordingDate;
    if (std::abs(shiftA - shiftB) > kClockAgreement) {
        return std::nullopt;
    }
    // Between its witnesses the clip takes the shift that runs from one to the other, so a clock
    // that drifts slowly through the day is followed; beyond them, the nearer one's.
    double shift = shiftA;
    const double span = *clips[b].recordingDate - *clips[a].recordingDate;
    if (a < i && i < b && std::abs(span) > 1e-9) {
        const double t = std::clamp((*date - *clips[a].recordingDate) / span, 0.0, 1.0);
        shift = shiftA + t * (shiftB - shiftA);
    }
    // A clock that would lay the clip out of order with its own device's anchors has a wrong date
    // for this clip, whatever its neighbours say.
    const double pos = *date + shift;
    if (!before.empty() &&
        pos < posOf.at(before.front()) + clips[before.front()].duration - kChainSlack) {
        return std::nullopt;
    }
    if (!after.empty() && pos + clips[i].duration > posOf.at(after.front()) + kChainSlack) {
        return std::nullopt;
    }
    return pos;
}

bool ChainState::clockOverrules(int i, float score, double pos) const {
    if (score >= kOverrulesClock) {
        return false;
    }
    const auto clock = provenClock(i);
    return clock && std::abs(pos - *clock) > kClockContradiction;
}

void ChainState::dropAgainstProvenClocks(Run& run) {
    std::vector<std::pair<int, double>> dropped;
    for (int i : placed) {
        if (clockLaid.contains(i)) {
            continue;
        }
        const auto it = run.placementLog.find(clips[i].id);
        const float score = it != run.placementLog.end() ? it->second.score : kStrongScore;
        if (clockOverrules(i, score, posOf.at(i))) {
            dropped.emplace_back(i, *provenClock(i));
        }
    }
    for (const auto& [i, clock] : dropped) {
        logDetail(format("'%s' match @ %.1fs lies %.0fs from where its device's clock, confirmed "
                         "by its neighbours, puts it — dropped",
                         clipName(clips[i]).c_str(), posOf.at(i), std::abs(posOf.at(i) - clock)));
        placed.erase(i);
        strong.erase(i);
        posOf.erase(i);
    }
}

void ChainState::placeChapters(Run& run) {
    const int n = static_cast<int>(clips.size());
    for (int i = 0; i < n; ++i) {
        const auto& key = clips[i].recordingKey;
        if (!key || strong.contains(i)) {
            continue;
        }
        // The chapters of this recording on the same device, by chapter.
        std::map<int, int> chapters;
        for (int k = 0; k < n; ++k) {
            if (clips[k].recordingKey == key && device[k] == device[i]) {
                chapters.emplace(clips[k].chapterIndex, k);
            }
        }
        std::optional<int> lead;
        for (const auto& [index, k] : chapters) {
            if (strong.contains(k) && !clockLaid.contains(k) &&
                (!lead || std::abs(index - clips[i].chapterIndex) <
                              std::abs(clips[*lead].chapterIndex - clips[i].chapterIndex))) {
                lead = k;
            }
        }
        if (!lead) {
            continue;
        }
        // The chapters between the two ran back to back.
        const int from = std::min(clips[i].chapterIndex, clips[*lead].chapterIndex);
        const int to = std::max(clips[i].chapterIndex, clips[*lead].chapterIndex);
        double between = 0;
        for (const auto& [index, k] : chapters) {
            if (index >= from && index < to) {
                between += clips[k].duration;
            }
        }
        const double pos = clips[*lead].chapterIndex < clips[i].chapterIndex
                               ? posOf.at(*lead) + between
                               : posOf.at(*lead) - between;
        strong.insert(i);
        clockLaid.erase(i);
        const auto it = run.placementLog.find(clips[*lead].id);
        const float score = it != run.placementLog.end() ? it->second.score : kStrongScore;
        place(run, i, pos,
              PlacementRecord{pos, score, PlacementCode::chapter, refs[*lead], std::nullopt});
    }
}

void ChainState::placeByProvenClocks(Run& run) {
    std::vector<std::pair<int, double>> laid;
    for (int i = 0; i < static_cast<int>(clips.size()); ++i) {
        if (!placed.contains(i)) {
            if (const auto clock = provenClock(i)) {
                laid.emplace_back(i, *clock);
            }
        }
    }
    for (const auto& [i, pos] : laid) {
        placed.insert(i);
        clockLaid.insert(i);
        posOf[i] = pos;
        run.placementLog[clips[i].id] =
            PlacementRecord{pos, 0.0f, PlacementCode::clock, std::nullopt, std::nullopt};
    }
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

bool ChainState::acceptFill(Run& run, int i, Match m, double lo, double hi,
                            const std::string& kind) {
    const auto note = weakPartnerNote(run, m);
    const float measured = m.score;
    m.score = evidenceScore(run, m);
    const double p = std::max(lo, std::min(m.pos, hi));
    if (clockOverrules(i, m.score, p)) {
        logDetail(format("'%s' %s @ %.1fs score=%.1f lies %.0fs from where its device's clock, "
                         "confirmed by its neighbours, puts it — ignored",
                         clipName(clips[i]).c_str(), kind.c_str(), p, m.score,
                         std::abs(p - *provenClock(i))));
        return false;
    }
    placed.insert(i);
    posOf[i] = p;
    if (m.score >= kStrongScore) {
        strong.insert(i);
    }
    auto& clip = run.clip(refs[i]);
    run.placementLog[clip.id] = PlacementRecord{m.pos, m.score, kind, m.partner, measured};
    clip.startOffset = p;
    clip.syncStatus = statusForScore(m.score);
    clip.matchScore = m.score;
    clip.placementPass = kind;
    if (note) {
        clip.placementNote = note;
    }
    checkTimecode(clip, p, *checkSpans);
    reportPlace(run, clip);
    if (m.score >= kStrongScore) {
        // A new strong neighbour may prove a clock that earlier fills contradict.
        dropAgainstProvenClocks(run);
    }
    return placed.contains(i);
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
            if (it->second.kind == PlacementCode::chapter) {
                // A chapter measured nothing of its own: it is as sure as the chapter it follows.
                clip.matchScore.reset();
            }
        } else {
            clip.syncStatus = SyncStatus::synced;
            clip.matchScore.reset();
            clip.placementPass = PlacementCode::A1;
        }
        break;
    case Placement::clock:
        clip.syncStatus = audible ? SyncStatus::weak : SyncStatus::pending;
        clip.matchScore.reset();
        clip.placementPass = PlacementCode::clock;
        break;
    case Placement::interp:
        clip.syncStatus = audible ? SyncStatus::failed : SyncStatus::pending;
        clip.matchScore.reset();
        clip.placementPass = audible ? PlacementCode::interp : PlacementCode::interpNoAudio;
        break;
    }
    clip.startOffset = pos;
    if (how != Placement::matched) {
        run.placementLog[clip.id] =
            PlacementRecord{std::nullopt, 0.0f, *clip.placementPass, std::nullopt, std::nullopt};
    } else {
        checkTimecode(clip, pos, *checkSpans);
    }
    reportPlace(run, clip);
}

void ChainState::place(Run& run, int i, double pos, const PlacementRecord& record) {
    placed.insert(i);
    posOf[i] = pos;
    run.placementLog[clips[i].id] = record;
    setClip(run, i, pos, Placement::matched);
}

void ChainState::placeAnchor(Run& run, int i, Match m, const std::string& kind) {
    const auto note = weakPartnerNote(run, m);
    const float measured = m.score;
    m.score = evidenceScore(run, m);
    posOf[i] = m.pos;
    auto& clip = run.clip(refs[i]);
    if (note) {
        clip.placementNote = note;
    }
    run.placementLog[clip.id] = PlacementRecord{m.pos, m.score, kind, m.partner, measured};
    clip.startOffset = m.pos;
    clip.syncStatus = statusForScore(m.score);
    clip.matchScore = m.score;
    clip.placementPass = kind;
    checkTimecode(clip, m.pos, *checkSpans);
    reportPlace(run, clip);
}

ChainCounts ChainState::layout(Run& run) {
    placeChapters(run);
    placeByProvenClocks(run);
    const std::vector<int> anchors(placed.begin(), placed.end());
    const auto counts = layoutChain(
        anchors, posOf, [&](int i) { return clips[i].duration; },
        [&](int i) -> std::optional<Date> {
            // Only clocks that come from the file itself are trusted to lay a clip.
            if (clips[i].clockQuality >= ClockQuality::filename) {
                return clips[i].recordingDate;
            }
            return std::nullopt;
        },
        [&](int i, double pos, Placement how) {
            setClip(run, i, pos, clockLaid.contains(i) ? Placement::clock : how);
        },
        run.baseOffset, static_cast<int>(clips.size()), [&](int i) { return device[i]; });
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
        const Window clock = clockWindow(run, chain.refs[i].si, clip);
        const Window window = jobWindow(run, chain.refs[i].si, clip, spans);
        jobs.push_back(Pass1Job{i, clipName(clip), clip.duration, clip.bandFeature, window,
                                window == clock ? std::nullopt : std::optional<Window>(clock)});
    }
    std::stable_sort(jobs.begin(), jobs.end(),
                     [](const auto& a, const auto& b) { return a.duration > b.duration; });
    return jobs;
}

bool runPass1(Run& run, ChainState& chain, const std::vector<Pass1Job>& jobs,
              const std::vector<PoolSpan>& spans) {
    bool cancelled = false;
    WorkerWindow::run<std::optional<Match>>(
        jobs.size(), static_cast<std::size_t>(std::max(run.width, 1)),
        [&](std::size_t j) -> std::optional<Match> {
            const auto& job = jobs[j];
            if (job.duration < kShortestMatched) {
                return std::nullopt;
            }
            const auto search = [&](const Window& window) {
                const Window w = window.hi <= window.lo ? Window{} : window;
                return multiWindowMatch(job.feature, job.duration, w.lo, w.hi, spans, false);
            };
            auto m = search(job.window);
            if (job.untimed && (!m || m->score < kStrongScore)) {
                m = search(*job.untimed);
            }
            return m;
        },
        [&](std::size_t j, std::optional<Match> match) {
            if (run.cancelled()) {
                cancelled = true;
                return false;
            }
            const auto& job = jobs[j];
            advanceProgress(run, job.name, 0.5);
            if (match && match->score >= kStrongScore) {
                chain.hits[job.index] = *match;
                run.placementLog[chain.clips[job.index].id] = PlacementRecord{
                    match->pos, match->score, PlacementCode::p1, match->partner, std::nullopt};
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
        chain.placeAnchor(run, i, chain.hits.at(i), PlacementCode::A1);
    }
    chain.dropAgainstProvenClocks(run);
    chain.placeChapters(run);
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
                chain.acceptFill(run, i, *m, w.lo, w.hi, PlacementCode::A3);
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
    std::string line =
        format("camera chain '%s': %d anchors of %d clips", label.c_str(), chain.matchedCount(), n);
    if (counts.byClock >= 1) {
        line += format(", %d placed by clock", counts.byClock);
    }
    logDetail(line);
}

} // namespace SyncEngine
