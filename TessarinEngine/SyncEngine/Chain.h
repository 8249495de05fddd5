#pragma once

// Pure layout of a chain of clips in recording order: which matches can all be true at once, and
// where every clip goes around them. They know nothing of tracks or pools, only indices, so one
// implementation serves tracks and camera chains alike.

#include "TessarinEngine/TrackModels.h"

#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace SyncEngine {

// Two anchors of one device may overlap by this much and still both be believed: clip lengths and
// clock rounding are not exact to the frame.
constexpr double kChainSlack = 3.0;

// How a clip got its position: from audio, by a clip clock, or by durations alone.
enum class Placement { matched, clock, interp };

struct ChainCounts {
    int byClock = 0;
    int byInterp = 0;
    bool operator==(const ChainCounts&) const = default;
};

// One match of a chain: clip index and its position on the timeline.
struct ChainAnchor {
    int ci = 0;
    double pos = 0;
};

// The largest subset of `anchors` (ascending ci) that can all be true when every clip must clear
// the footage recorded before it, less `slack` seconds. Returns the chosen ci, ascending. Ties go
// to the earlier candidate. `prefixDur[i]` is the footage before clip i.
std::vector<int> longestConsistentChain(const std::vector<ChainAnchor>& anchors,
                                        const std::vector<double>& prefixDur, double slack);

using SetClip = std::function<void(int ci, double pos, Placement how)>;

// Keeps the anchors (ascending, all keys of posOf) and places every other clip of 0..<count by
// the clock of a neighbouring anchor where it fits, else spread between the anchors or butt-joined.
// `clock` gives the trusted date of a clip or nothing; `base` is used only without anchors.
// `device` numbers the recording device of a clip where a chain joins several (cameras that share
// a file numbering): an anchor is pushed clear only of the anchors of its own device. Without it
// the chain is one device's clips. Returns how many clips were laid by clock and how many
// otherwise; anchors are not counted.
ChainCounts layoutChain(const std::vector<int>& anchors,
                        const std::unordered_map<int, double>& posOf,
                        const std::function<double(int)>& dur,
                        const std::function<std::optional<Date>(int)>& clock,
                        const SetClip& setClip, double base, int count,
                        const std::function<int(int)>& device = {});

// Where an unanchored clip sits between its anchored neighbours, in words; nothing without any.
std::optional<std::string> neighbourNote(int i, const std::vector<int>& anchors,
                                         const std::function<std::string(int)>& names);

} // namespace SyncEngine
