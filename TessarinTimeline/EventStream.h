#pragma once

#include "TessarinEngine/TrackModels.h"
#include "TessarinEngineCLI/Events.h"

#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

// One clip as the engine reported it. `driftPpm`, when present, says how fast the clip's content
// falls behind its partner's, in parts per million: playing it at 1 + driftPpm / 1e6 cancels it.
struct TimelineClip {
    ResultEvent result;
    std::optional<double> driftPpm;

    bool failed() const { return result.syncStatus == "failed"; }
};

struct TimelineTrack {
    std::string name;
    SourceType type = SourceType::video;
    std::vector<TimelineClip> clips; // in the engine's order
};

// The engine's result of one run: tracks with their clips, video tracks first, each group in the
// order its first clip came, and the totals of the done event.
struct Timeline {
    std::string session; // the session of the first clip: what the shoot is called
    std::vector<TimelineTrack> tracks;
    DoneEvent done;
};

struct StreamFault {
    std::string message;
};

namespace EventStream {

// Reads an event stream (JSON objects, one a line). Unknown event types and fields are skipped.
// A stream whose run did not finish (no done event, a last line cut short), that carries no
// result, or whose lines are not events gives a fault saying so.
std::variant<Timeline, StreamFault> readTimeline(std::string_view text);

} // namespace EventStream
