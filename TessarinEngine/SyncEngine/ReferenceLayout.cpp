#include "TessarinEngine/SyncEngine/Run.h"

#include <algorithm>
#include <cmath>
#include <iterator>

namespace SyncEngine {

namespace {

// Two clocks are taken to run on the same day if their spans come within a quarter of an hour.
constexpr double kClockOverlapMargin = 900.0;
// A clock gap longer than a week is a wrong date, not a pause.
constexpr double kImplausibleGap = 604800.0;
// A clock gap this short is a restart of the recorder, not a pause worth keeping.
constexpr double kButtJoinTolerance = 2.0;

// The track of `tracks` with the largest value, the earlier one on equal values.
template <class Value>
int largestBy(const std::vector<int>& tracks, const Value& value) {
    int best = tracks.front();
    for (int si : tracks) {
        if (value(best) < value(si)) {
            best = si;
        }
    }
    return best;
}

bool clocksOverlap(const std::vector<Date>& a, const std::vector<Date>& b) {
    if (a.empty() || b.empty()) {
        return true;
    }
    const auto [minA, maxA] = std::minmax_element(a.begin(), a.end());
    const auto [minB, maxB] = std::minmax_element(b.begin(), b.end());
    return *minA - kClockOverlapMargin <= *maxB + kClockOverlapMargin &&
           *minB - kClockOverlapMargin <= *maxA + kClockOverlapMargin;
}

// A date with a fraction of a second comes from a clock read to the sample (a recorder's time
// reference), not one that counts whole seconds.
bool readsFractions(const std::optional<Date>& date) {
    return date && *date != std::floor(*date);
}

} // namespace

int chooseReference(const Run& run) {
    const Region& region = run.region;
    // A track none of whose clips has features (all failed or silent) gives nothing to match
    // against, so it never leads; only a region where no track has any keeps every track.
    const auto heard = [&](int si) {
        const auto& clips = run.sources[si].clips;
        const auto refs = regionClipsOf(run, si);
        return std::any_of(refs.begin(), refs.end(),
                           [&](int ci) { return clips[ci].bandFeature.has_value(); });
    };
    const bool anyHeard = std::any_of(region.tracks.begin(), region.tracks.end(), heard);
    const auto candidates = [&](const std::vector<int>& tracks) {
        std::vector<int> out;
        std::copy_if(tracks.begin(), tracks.end(), std::back_inserter(out),
                     [&](int si) { return !anyHeard || heard(si); });
        return out;
    };
    const auto byMaxClip = [&](int si) {
        return maxClip(run, si);
    };
    if (const auto longAudio = candidates(region.longAudio); !longAudio.empty()) {
        return largestBy(longAudio, byMaxClip);
    }
    if (region.camerasFirst) {
        return largestBy(region.longCameras, byMaxClip);
    }
    if (const auto audio = candidates(region.audioTracks); !audio.empty()) {
        const int busiest = largestBy(audio, [&](int si) { return regionClipCount(run, si); });
        if (regionClipCount(run, busiest) > 2) {
            return busiest;
        }
        if (audio.size() == 1) {
            return audio.front();
        }
        return largestBy(audio, byMaxClip);
    }
    std::vector<int> leads;
    for (int si : candidates(region.tracks)) {
        if (!run.sources[si].siblingOf) {
            leads.push_back(si);
        }
    }
    return largestBy(leads.empty() ? candidates(region.tracks) : leads, byMaxClip);
}

bool layoutReference(Run& run) {
    Region& region = run.region;
    const int ref = region.refTrack;
    auto& track = run.sources[ref];
    region.refClips = regionClipsOf(run, ref);

    std::vector<Date> refDates;
    for (int ci : region.refClips) {
        if (const auto& date = track.clips[ci].recordingDate) {
            refDates.push_back(*date);
        }
    }
    std::vector<Date> otherDates;
    for (const auto& r : region.clips) {
        if (r.si != ref) {
            if (const auto& date = run.clip(r).recordingDate) {
                otherDates.push_back(*date);
            }
        }
    }
    const bool overlap = clocksOverlap(refDates, otherDates);
    if (overlap && !refDates.empty()) {
        region.regionEpoch = *std::min_element(refDates.begin(), refDates.end());
    } else if (!otherDates.empty()) {
        region.regionEpoch = *std::min_element(otherDates.begin(), otherDates.end());
    }
    logTop(format("region '%s' ref '%s' (%d tracks, %d clips) @ base=%lld", region.name.c_str(),
                  track.name.c_str(), static_cast<int>(region.tracks.size()),
                  static_cast<int>(region.clips.size()), static_cast<long long>(run.baseOffset)));
    if (!overlap) {
        logDetail(format("ref '%s' clock doesn't overlap the rest of region '%s' — ignoring it for "
                         "the region epoch (still used for content matching)",
                         track.name.c_str(), region.name.c_str()));
    }
    region.hasFullClock = region.refClips.size() >= 2 && refDates.size() == region.refClips.size();
    if (!refDates.empty()) {
        region.refEpoch = *std::min_element(refDates.begin(), refDates.end());
    }

    double cursor = 0;
    double pauses = 0;
    std::optional<Date> previousDate;
    const ClipItem* previous = nullptr;
    region.takes = {{}};
    region.matchSpans.clear();
    bool first = true;
    for (int ci : region.refClips) {
        if (run.cancelled()) {
            return false;
        }
        auto& clip = track.clips[ci];
        double pos = first ? run.baseOffset : cursor;
        // A chapter ran on straight from the one before it, whatever the clock rounded.
        const bool continues = previous && clip.recordingKey &&
                               clip.recordingKey == previous->recordingKey &&
                               clip.chapterIndex == previous->chapterIndex + 1;
        if (!first && !continues && region.hasFullClock && region.refEpoch) {
            const double clockPos = run.baseOffset + (*clip.recordingDate - *region.refEpoch);
            const double gap = clockPos - cursor;
            if (gap > kImplausibleGap) {
                logDetail(format("ref '%s' clip '%s' dated %.1f days after the previous clip "
                                 "ended — too implausible to be a real pause, butt-joining instead "
                                 "(check this file's date/time)",
                                 track.name.c_str(), clipName(clip).c_str(), gap / 86400.0));
            } else {
                if (clockPos > cursor + kButtJoinTolerance) {
                    pos = clockPos;
                    region.takes.emplace_back();
                } else if (clockPos > cursor && readsFractions(clip.recordingDate) &&
                           readsFractions(previousDate)) {
                    // A clock that reads the fraction of its second keeps even a short pause:
                    // the restart is still one take, but it began when the clock says.
                    pos = clockPos;
                }
                pauses += pos - cursor;
            }
        }
        first = false;
        clip.startOffset = pos;
        clip.syncStatus = SyncStatus::synced;
        clip.matchScore.reset();
        clip.placementPass = PlacementCode::ref;
        run.placementLog[clip.id] =
            PlacementRecord{std::nullopt, 0.0f, PlacementCode::ref, std::nullopt, std::nullopt};
        reportPlace(run, clip);
        if (clip.duration >= kShortestMatched) {
            region.matchSpans.push_back(spanOf(run, ClipRef{ref, ci}));
        }
        region.takes.back().push_back(ci);
        advanceProgress(run, clipName(clip));
        cursor = pos + clip.duration;
        previousDate = clip.recordingDate;
        previous = &clip;
    }

    if (!region.hasFullClock) {
        logDetail(format("ref '%s' has no full clock — laid end to end", track.name.c_str()));
    } else if (pauses > 1.0) {
        logDetail(format("ref '%s' laid out by its own clock — %.1f min of pauses kept",
                         track.name.c_str(), pauses / 60.0));
    }
    return true;
}

} // namespace SyncEngine
