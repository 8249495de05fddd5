#include "TessarinEngine/SyncEngine/Run.h"

#include <algorithm>
#include <cmath>

namespace SyncEngine {

namespace {

// Three windows of 0.4 of the clip, at most 45 s each, cost the same for any clip length and
// still let two of them outvote a wrong third.
constexpr double kWindowShare = 0.4;
constexpr double kWindowMax = 45.0;
constexpr double kWindowMin = 10.0;
constexpr double kWindowCentres[] = {0.15, 0.45, 0.75};
constexpr double kMinWeight = 1e-6;

constexpr double kTextOffsetMargin = 360.0;
constexpr double kEmbeddedClockMargin = 900.0;
constexpr double kFilenameClockMargin = 1350.0;
constexpr double kTimecodeMargin = 1.5;

} // namespace

std::optional<Match> multiWindowMatch(const std::optional<SpectralBands::Feature>& feature,
                                      double dur, double lo, double hi,
                                      const std::vector<PoolSpan>& spans, bool allowSingleStrong) {
    if (!feature) {
        return std::nullopt;
    }
    const double w = std::min(dur * kWindowShare, kWindowMax);
    if (w < kWindowMin) {
        return bestMatch(spans, feature, lo, hi);
    }
    std::vector<Match> votes;
    for (double centre : kWindowCentres) {
        double start = dur * centre - w / 2;
        if (start < 0) {
            start = 0;
        }
        if (dur - w < start) {
            start = dur - w;
        }
        const auto window = SpectralBands::slice(*feature, start, w);
        if (!window) {
            continue;
        }
        // The bracket bounds the clip's start; the window starts `start` later.
        const auto m = bestMatch(spans, window, lo + start, hi + start);
        if (!m) {
            continue;
        }
        votes.push_back(Match{m->pos - start, m->score, m->partner});
    }
    if (votes.empty()) {
        return std::nullopt;
    }
    const auto cluster = largestCluster(votes, kVoteClusterRadius);
    if (cluster.size() < 2) {
        if (!allowSingleStrong) {
            return std::nullopt;
        }
        const Match* top = &votes.front();
        for (const auto& v : votes) {
            if (v.score > top->score) {
                top = &v;
            }
        }
        if (top->score >= kSingleStrongScore) {
            return *top;
        }
        return std::nullopt;
    }
    return clusterConsensus(cluster);
}

Match clusterConsensus(const std::vector<Match>& cluster) {
    const Match* best = &cluster.front();
    for (const auto& v : cluster) {
        if (v.score > best->score) {
            best = &v;
        }
    }
    double weighted = 0;
    double weights = 0;
    for (const auto& v : cluster) {
        if (std::abs(v.pos - best->pos) <= kVoteAverageRadius) {
            weighted += v.pos * static_cast<double>(v.score);
            weights += static_cast<double>(v.score);
        }
    }
    // A weighted mean of the positions, but the best single score: the weaker witness does not
    // discount the result.
    return Match{weighted / std::max(weights, kMinWeight), best->score, best->partner};
}

std::vector<Match> largestCluster(const std::vector<Match>& votes, double radius) {
    std::vector<Match> cluster;
    for (const auto& seed : votes) {
        std::vector<Match> gathered;
        for (const auto& v : votes) {
            if (std::abs(v.pos - seed.pos) <= radius) {
                gathered.push_back(v);
            }
        }
        if (gathered.size() > cluster.size()) {
            cluster = std::move(gathered);
        }
    }
    return cluster;
}

std::optional<Match> clipMatch(const Run& run, int si, int ci, double lo, double hi,
                               const std::vector<PoolSpan>& spans) {
    return bestMatch(spans, run.sources[si].clips[ci].bandFeature, lo, hi);
}

std::optional<Window> tcWindow(const ClipItem& clip, const std::vector<PoolSpan>& spans) {
    if (!clip.startTimecode || spans.empty()) {
        return std::nullopt;
    }
    double lo = kWidest;
    double hi = -kWidest;
    bool any = false;
    for (const auto& span : spans) {
        if (!span.startTC) {
            continue;
        }
        const double p = span.off + (*clip.startTimecode - *span.startTC);
        lo = std::min(lo, p - kTimecodeMargin);
        hi = std::max(hi, p + kTimecodeMargin);
        any = true;
    }
    if (!any) {
        return std::nullopt;
    }
    return Window{lo, hi};
}

Window clockWindow(const Run& run, int si, const ClipItem& clip) {
    const auto& track = run.sources[si];
    const Region& region = run.region;
    // Cameras get no prior: their clocks are set by hand and drift through a day.
    if (track.type != SourceType::audio) {
        return {};
    }
    if (si != region.refTrack && !track.textSyncOffsetByPeer.empty() && region.refTrack >= 0) {
        const auto it = track.textSyncOffsetByPeer.find(run.sources[region.refTrack].name);
        if (it != track.textSyncOffsetByPeer.end()) {
            const double centre = run.baseOffset - it->second;
            return Window{centre - kTextOffsetMargin, centre + kTextOffsetMargin};
        }
    }
    if (!region.regionEpoch || !clip.recordingDate || clip.clockQuality < ClockQuality::filename) {
        return {};
    }
    const double centre = (*clip.recordingDate - *region.regionEpoch) + run.baseOffset;
    const double margin =
        clip.clockQuality == ClockQuality::embedded ? kEmbeddedClockMargin : kFilenameClockMargin;
    return Window{centre - margin, centre + margin};
}

Window jobWindow(const Run& run, int si, const ClipItem& clip, const std::vector<PoolSpan>& spans) {
    const Window clock = clockWindow(run, si, clip);
    if (const auto tc = tcWindow(clip, spans)) {
        const double a2 = std::max(tc->lo, clock.lo);
        const double b2 = std::min(tc->hi, clock.hi);
        // Timecode narrows the clock; where they contradict each other the clock stands.
        if (b2 > a2) {
            return Window{a2, b2};
        }
    }
    return clock;
}

SyncStatus statusForScore(float score) {
    if (score >= kStrongScore) {
        return SyncStatus::synced;
    }
    if (score >= kWeakScore) {
        return SyncStatus::weak;
    }
    return SyncStatus::failed;
}

float evidenceScore(const Run& run, const Match& m) {
    if (!m.partner) {
        return m.score;
    }
    const auto& partner = run.clip(*m.partner);
    const auto pass = partner.placementPass.value_or("");
    if (partner.syncStatus == SyncStatus::synced && pass != PlacementCode::clock &&
        pass != PlacementCode::interp) {
        return m.score;
    }
    return std::min(m.score, partner.matchScore.value_or(kWeakScore));
}

std::optional<std::string> weakPartnerNote(const Run& run, const Match& m) {
    if (evidenceScore(run, m) >= m.score) {
        return std::nullopt;
    }
    return "measured against '" + clipName(run.clip(*m.partner)) + "', itself only weakly placed";
}

void checkTimecode(ClipItem& clip, double pos, const std::vector<PoolSpan>& spans) {
    if (!clip.startTimecode) {
        return;
    }
    std::optional<double> nearest;
    for (const auto& span : spans) {
        if (!span.startTC) {
            continue;
        }
        const double c = span.off + (*clip.startTimecode - *span.startTC);
        if (!nearest || std::abs(c - pos) < std::abs(*nearest - pos)) {
            nearest = c;
        }
    }
    if (!nearest) {
        return;
    }
    // Two frames of the clip's own rate; a clip without a rate gets two frames at 24 fps.
    const double tolerance =
        clip.frameRate ? 2.0 / std::max(static_cast<double>(*clip.frameRate), 1.0) : 1.0 / 12.0;
    if (std::abs(pos - *nearest) > tolerance) {
        clip.tcDisagrees = true;
    }
}

} // namespace SyncEngine
