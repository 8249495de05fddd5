#include "TessarinEngine/EngineLog.h"
#include "TessarinEngine/SyncEngine/PeakTiming.h"
#include "TessarinEngine/SyncEngine/Run.h"

#include <algorithm>
#include <cmath>

namespace SyncEngine {

namespace {

// How far around the lead's start the channel's window is sought.
constexpr double kChannelSearch = 30.0;

// Overlaps this small are rounding of clip lengths, not errors worth moving a clip for.
constexpr double kOverlapTolerance = 0.05;
// Below this the timeline already starts at zero.
constexpr double kNormaliseTolerance = 0.001;

struct LeaderPlacement {
    double off = 0;
    SyncStatus status = SyncStatus::pending;
    std::optional<std::string> pass;
    std::optional<float> score;
    ClipRef clip;
};

std::string_view statusMark(SyncStatus status) {
    switch (status) {
    case SyncStatus::pending:
        return "…";
    case SyncStatus::synced:
        return "OK";
    case SyncStatus::weak:
        return "wk";
    case SyncStatus::failed:
        return "!!";
    }
    return "…";
}

// The name padded to `width` characters as a text editor counts them (UTF-16 units), not bytes, so
// that names with accents line up with the rest.
std::string padded(const std::string& name, std::size_t width) {
    std::size_t units = 0;
    for (unsigned char c : name) {
        if ((c & 0xC0) != 0x80) {
            units += c >= 0xF0 ? 2 : 1;
        }
    }
    return units >= width ? name : name + std::string(width - units, ' ');
}

// The first longest clip among `cis`, by duration.
int longestOf(const std::vector<ClipItem>& clips, const std::vector<int>& cis) {
    int best = cis.front();
    for (int ci : cis) {
        if (clips[best].duration < clips[ci].duration) {
            best = ci;
        }
    }
    return best;
}

void mirrorChannel(Run& run, int si, int lead) {
    const auto& leader = run.sources[lead];
    std::unordered_map<Uuid, LeaderPlacement> leaderPlacements;
    for (int ci = 0; ci < static_cast<int>(leader.clips.size()); ++ci) {
        const auto& clip = leader.clips[ci];
        leaderPlacements[clip.id] =
            LeaderPlacement{clip.startOffset, clip.syncStatus, clip.placementPass, clip.matchScore,
                            ClipRef{lead, ci}};
    }
    const std::string leadName = leader.name;
    double cursor = run.baseOffset;
    int mirrored = 0;
    for (int ci : regionClipsOf(run, si)) {
        auto& clip = run.sources[si].clips[ci];
        const auto found = clip.siblingLeaderID ? leaderPlacements.find(*clip.siblingLeaderID)
                                                : leaderPlacements.end();
        if (found != leaderPlacements.end()) {
            const auto& lp = found->second;
            clip.startOffset = lp.off;
            clip.syncStatus = lp.status;
            clip.matchScore = lp.score;
            clip.placementPass = PlacementCode::siblingCh;
            clip.placementNote = "channel of '" + leadName + "'";
            if (lp.pass) {
                *clip.placementNote += " (" + *lp.pass + ")";
            }
            run.placementLog[clip.id] = PlacementRecord{
                lp.off, lp.score.value_or(0.0f), PlacementCode::siblingCh, lp.clip, std::nullopt};
            ++mirrored;
            cursor = lp.off + clip.duration;
        } else {
            clip.startOffset = cursor;
            clip.syncStatus = SyncStatus::weak;
            clip.matchScore.reset();
            clip.placementPass = PlacementCode::interp;
            clip.placementNote = "no matching take on '" + leadName + "'";
            run.placementLog[clip.id] = PlacementRecord{std::nullopt, 0.0f, PlacementCode::interp,
                                                        std::nullopt, std::nullopt};
            cursor += clip.duration;
        }
        reportPlace(run, clip);
        advanceProgress(run, clipName(clip));
    }
    logDetail(format("channel track '%s' follows '%s': %d clip(s) mirrored",
                     run.sources[si].name.c_str(), leadName.c_str(), mirrored));
}

} // namespace

bool siblingVerified(Run& run, int si, int leader) {
    const auto& clips = run.sources[si].clips;
    std::vector<int> tied;
    for (int ci : regionClipsOf(run, si)) {
        if (clips[ci].siblingLeaderID) {
            tied.push_back(ci);
        }
    }
    if (tied.empty()) {
        return true;
    }
    const auto& channel = clips[longestOf(clips, tied)];
    const auto& leadClips = run.sources[leader].clips;
    const auto lead = std::find_if(leadClips.begin(), leadClips.end(), [&](const ClipItem& c) {
        return c.id == *channel.siblingLeaderID;
    });
    if (lead == leadClips.end()) {
        return true;
    }
    // What cannot be tested is believed: the channel tie came from the files themselves.
    if (!channel.bandFeature || !lead->bandFeature || channel.bandFeature->frames < 5 ||
        lead->bandFeature->frames < 5) {
        return true;
    }
    const double dur = channel.duration;
    const double w = std::min(dur * 0.5, 45.0);
    if (w < 10.0) {
        return true;
    }
    double start = std::max(dur * 0.4 - w * 0.5, 0.0);
    start = std::min(start, dur - w);
    if (start < 0) {
        return false;
    }
    const auto window = SpectralBands::slice(*channel.bandFeature, start, w);
    if (!window || window->frames >= lead->bandFeature->frames) {
        return false;
    }
    // The channels must agree within half a second, but the search runs wider: a z-score over a
    // few seconds of lags stays low even for a true peak, above all between two different mics.
    const auto peaks =
        searchPeaks(*window, *lead->bandFeature, start - kChannelSearch, start + kChannelSearch,
                    kSearchOverlap, kBestPeakOnly, kSearchSeparation);
    if (peaks.empty()) {
        return false;
    }
    const double delta = peaks.front().offsetSeconds - start;
    if (peaks.front().score >= kStrongScore && std::abs(delta) <= 0.5) {
        return true;
    }
    logDetail(format("'%s' looked like a channel of '%s' but its audio does not agree (score %.1f, "
                     "offset %+.2fs) — matching it as its own track",
                     run.sources[si].name.c_str(), run.sources[leader].name.c_str(),
                     static_cast<double>(peaks.front().score), delta));
    return false;
}

void followLeads(Run& run) {
    for (int si : run.region.tracks) {
        const auto& leadID = run.sources[si].siblingOf;
        if (!leadID) {
            continue;
        }
        const auto lead = std::find_if(run.sources.begin(), run.sources.end(),
                                       [&](const TrackSource& t) { return t.id == *leadID; });
        if (lead == run.sources.end()) {
            continue;
        }
        for (int ci : regionClipsOf(run, si)) {
            auto& clip = run.sources[si].clips[ci];
            if (clip.placementPass != PlacementCode::siblingCh || !clip.siblingLeaderID) {
                continue;
            }
            const auto leader =
                std::find_if(lead->clips.begin(), lead->clips.end(),
                             [&](const ClipItem& c) { return c.id == *clip.siblingLeaderID; });
            if (leader == lead->clips.end() || (leader->startOffset == clip.startOffset &&
                                                leader->syncStatus == clip.syncStatus)) {
                continue;
            }
            clip.startOffset = leader->startOffset;
            clip.syncStatus = leader->syncStatus;
            clip.matchScore = leader->matchScore;
            clip.placementNote = "channel of '" + lead->name + "'";
            if (leader->placementPass) {
                *clip.placementNote += " (" + *leader->placementPass + ")";
            }
            auto& entry = run.placementLog[clip.id];
            entry.raw = clip.startOffset;
            entry.score = clip.matchScore.value_or(0.0f);
            reportPlace(run, clip);
        }
    }
}

bool runChannelTracks(Run& run) {
    Region& region = run.region;
    for (int si : region.tracks) {
        const auto& leadID = run.sources[si].siblingOf;
        if (!leadID) {
            continue;
        }
        if (run.cancelled()) {
            return false;
        }
        const auto lead = std::find_if(run.sources.begin(), run.sources.end(),
                                       [&](const TrackSource& t) { return t.id == *leadID; });
        if (lead == run.sources.end()) {
            continue;
        }
        const int leader = static_cast<int>(lead - run.sources.begin());
        if (!siblingVerified(run, si, leader)) {
            syncOneTrack(run, si);
            region.readyTracks.insert(si);
            refreshMatchSpans(run);
            continue;
        }
        mirrorChannel(run, si, leader);
    }
    return true;
}

void resolveOverlaps(std::vector<TrackSource>& sources) {
    for (auto& track : sources) {
        auto& clips = track.clips;
        for (std::size_t i = 1; i < clips.size(); ++i) {
            const double prevEnd = clips[i - 1].startOffset + clips[i - 1].duration;
            if (clips[i].startOffset < prevEnd - kOverlapTolerance) {
                clips[i].startOffset = prevEnd;
            }
        }
    }
}

void normaliseOffsets(std::vector<TrackSource>& sources) {
    std::optional<double> smallest;
    for (const auto& track : sources) {
        for (const auto& clip : track.clips) {
            smallest = smallest ? std::min(*smallest, clip.startOffset) : clip.startOffset;
        }
    }
    if (!smallest || std::abs(*smallest) <= kNormaliseTolerance) {
        return;
    }
    for (auto& track : sources) {
        for (auto& clip : track.clips) {
            clip.startOffset -= *smallest;
        }
    }
}

void logLayoutAndDone(const Run& run) {
    double timeline = 0;
    int synced = 0;
    int weak = 0;
    int failed = 0;
    int all = 0;
    for (const auto& track : run.sources) {
        logTop("LAYOUT '" + track.name + "':");
        for (const auto& clip : track.clips) {
            const auto entry = run.placementLog.find(clip.id);
            const bool logged = entry != run.placementLog.end();
            const std::string raw = logged && entry->second.raw
                                        ? format("raw=%.1f", *entry->second.raw)
                                        : std::string("raw=  —  ");
            const std::string score =
                logged ? format("score=%.1f", static_cast<double>(entry->second.score))
                       : std::string("score= — ");
            const std::string kind =
                logged ? entry->second.kind : std::string(PlacementCode::interp);
            EngineLog::log(format("[SyncEngine]    %s  start=%.1fs  end=%.1fs  %s  %s %s [%s]",
                                  padded(clipName(clip), 28).c_str(), clip.startOffset,
                                  clip.startOffset + clip.duration,
                                  std::string(statusMark(clip.syncStatus)).c_str(), raw.c_str(),
                                  score.c_str(), kind.c_str()));
            timeline = std::max(timeline, clip.startOffset + clip.duration);
            synced += clip.syncStatus == SyncStatus::synced;
            weak += clip.syncStatus == SyncStatus::weak;
            failed += clip.syncStatus == SyncStatus::failed;
            ++all;
        }
    }
    const auto t = static_cast<long long>(timeline);
    logTop(format("DONE: timeline=%.0fs (%lldh%02lldm), synced=%d weak=%d failed=%d / %d", timeline,
                  t / 3600, (t % 3600) / 60, synced, weak, failed, all));
}

} // namespace SyncEngine
