#include "TessarinEngine/IngestEngine.h"
#include "TessarinEngine/SyncEngine/PeakTiming.h"
#include "TessarinEngine/SyncEngine/Run.h"

#include <algorithm>

namespace SyncEngine {

namespace {

// A match must keep 8 s of the shorter feature inside the longer, or 0.8 of the shorter where it
// is shorter than 10 s: a fixed 8 s would leave every clip of 8 s or less unmatchable.
constexpr double kPoolMinOverlap = kSearchOverlap;
constexpr double kPoolMinOverlapShare = kSearchOverlapShare;
// Only the best peak of each segment is asked for.
constexpr double kPoolMinSeparation = kSearchSeparation;
// A short clip's peak is chosen in its narrow window but scored against the lags this far on
// either side: against a few seconds of lags a chance likeness stands out as much as the truth.
constexpr double kShortStatsHalf = 20.0;
// Short of this many seconds of lags around the window (a segment's edge), the score would not be
// comparable with the floors measured against the full width.
constexpr double kShortStatsLeast = 20.0;

} // namespace

PoolSpan spanOf(const Run& run, ClipRef ref) {
    const auto& clip = run.clip(ref);
    return PoolSpan{clip.startOffset,
                    clip.duration,
                    clip.bandFeature,
                    clip.recordingDate,
                    clip.clockQuality,
                    clip.startTimecode,
                    ref};
}

void refreshMatchSpans(Run& run) {
    Region& region = run.region;
    region.matchSpans.clear();
    for (int si : region.tracks) {
        if (!region.readyTracks.contains(si)) {
            continue;
        }
        const auto& track = run.sources[si];
        const bool camera = region.poolCameras.contains(si);
        if (!camera) {
            if (track.type != SourceType::audio) {
                continue;
            }
            if (region.holdRecorders && si != region.refTrack) {
                continue;
            }
            if (region.excludeLavs && region.lavTracks.contains(si)) {
                continue;
            }
        }
        // During the camera retry the cameras lend their clock-laid clips too: they are the only
        // witnesses left for a camera that heard none of the recorders.
        const bool strict = !(region.excludeLavs && camera);
        for (int ci = 0; ci < static_cast<int>(track.clips.size()); ++ci) {
            if (!inRegion(run, si, ci)) {
                continue;
            }
            const auto& clip = track.clips[ci];
            const auto pass = clip.placementPass.value_or("");
            if (pass == PlacementCode::unlinked) {
                continue;
            }
            if (strict && (pass == PlacementCode::interp || pass == PlacementCode::clock)) {
                continue;
            }
            if (clip.duration < kShortestMatched) {
                continue;
            }
            region.matchSpans.push_back(spanOf(run, ClipRef{si, ci}));
        }
    }
}

std::optional<Match> bestMatch(const std::vector<PoolSpan>& spans,
                               const std::optional<SpectralBands::Feature>& feature, double lo,
                               double hi) {
    if (!feature || feature->frames < 5 || spans.empty()) {
        return std::nullopt;
    }
    const int c = feature->frames;
    std::optional<Match> best;
    for (const auto& span : spans) {
        if (!span.bands || span.bands->frames < 5) {
            continue;
        }
        const int s = span.bands->frames;
        const double minOverlap =
            std::min(kPoolMinOverlap, kPoolMinOverlapShare * std::min(c, s) / kFramesPerSecond);
        std::optional<Match> found;
        if (c < s) {
            const auto peaks = searchPeaks(*feature, *span.bands, lo - span.off, hi - span.off,
                                           minOverlap, 1, kPoolMinSeparation);
            if (!peaks.empty()) {
                found =
                    Match{span.off + peaks.front().offsetSeconds, peaks.front().score, span.clip};
            }
        } else if (c > s) {
            // The clip is the longer one: search the segment inside the clip instead.
            if (!(span.off - hi < span.off - lo)) {
                continue;
            }
            const auto peaks = searchPeaks(*span.bands, *feature, span.off - hi, span.off - lo,
                                           minOverlap, 1, kPoolMinSeparation);
            if (!peaks.empty()) {
                found =
                    Match{span.off - peaks.front().offsetSeconds, peaks.front().score, span.clip};
            }
        }
        if (found && (!best || found->score > best->score)) {
            best = found;
        }
    }
    return best;
}

std::optional<Match> shortMatch(const std::vector<PoolSpan>& spans,
                                const SpectralBands::Feature& feature, double lo, double hi) {
    const int c = feature.frames;
    const double mid = (lo + hi) / 2;
    const double minOverlap = kPoolMinOverlapShare * c / kFramesPerSecond;
    std::optional<Match> best;
    for (const auto& span : spans) {
        if (!span.bands || span.bands->frames <= c) {
            continue;
        }
        // The lags a score is measured against: the stats range clamped to where the clip keeps
        // its overlap inside the segment.
        const double first =
            std::max(mid - kShortStatsHalf, span.off - c / kFramesPerSecond + minOverlap);
        const double last = std::min(mid + kShortStatsHalf,
                                     span.off + span.bands->frames / kFramesPerSecond - minOverlap);
        if (last - first < kShortStatsLeast || last < lo || first > hi) {
            continue;
        }
        const auto peaks = searchPeaks(
            feature, *span.bands, first - span.off, last - span.off, minOverlap,
            static_cast<int>((last - first) * kFramesPerSecond) + 2, 1.0 / kFramesPerSecond);
        for (const auto& p : peaks) {
            const double pos = span.off + p.offsetSeconds;
            if (pos >= lo - 1e-9 && pos <= hi + 1e-9) {
                if (!best || p.score > best->score) {
                    best = Match{pos, p.score, span.clip};
                }
                break;
            }
        }
    }
    return best;
}

std::vector<ClipRef> orderedFlatClips(const Run& run, std::vector<int> tracks) {
    std::stable_sort(tracks.begin(), tracks.end(), [&](int a, int b) {
        const auto& ca = run.sources[a].clips;
        const auto& cb = run.sources[b].clips;
        if (ca.empty() || cb.empty()) {
            return a < b;
        }
        return IngestEngine::chronologicalOrder(ca.front().url, cb.front().url);
    });
    std::vector<ClipRef> flat;
    for (int si : tracks) {
        for (int ci : regionClipsOf(run, si)) {
            flat.push_back(ClipRef{si, ci});
        }
    }
    return flat;
}

std::string readyNames(const Run& run) {
    std::vector<std::string> names;
    for (int si : run.region.readyTracks) {
        names.push_back(run.sources[si].name);
    }
    std::sort(names.begin(), names.end());
    std::string joined;
    for (const auto& name : names) {
        if (!joined.empty()) {
            joined += ",";
        }
        joined += name;
    }
    return joined;
}

} // namespace SyncEngine
