#include "TessarinEngine/SyncEngine/Run.h"

#include <algorithm>

namespace SyncEngine {

// Recorders that ran all day on a clock of their own are not told apart yet: every recorder goes
// through the clip-by-clip track sync, which is how a long backup whose clock agrees is treated
// too.

// Pass-through that finds nothing yet: no track is taken for a long backup.
bool isLongBackup(const Run&, int) {
    return false;
}

bool clocksOverlapRef(const Run& run, int si) {
    std::vector<Date> track;
    std::vector<Date> ref;
    for (const auto& r : run.region.clips) {
        if (const auto& date = run.clip(r).recordingDate) {
            if (r.si == si) {
                track.push_back(*date);
            } else if (r.si == run.region.refTrack) {
                ref.push_back(*date);
            }
        }
    }
    if (track.empty() || ref.empty()) {
        return true;
    }
    constexpr double kMargin = 900.0;
    const auto [minT, maxT] = std::minmax_element(track.begin(), track.end());
    const auto [minR, maxR] = std::minmax_element(ref.begin(), ref.end());
    return *minT - kMargin <= *maxR + kMargin && *minR - kMargin <= *maxT + kMargin;
}

// Pass-through that finds nothing yet: no link by content.
std::optional<double> probeBackupLinkage(Run&, int) {
    return std::nullopt;
}

// Pass-through: never reached while no track is a long backup.
void placeBackupLinked(Run&, int, double) {}

// Pass-through: never reached while no track is a long backup.
void placeUnlinked(Run&, int) {}

} // namespace SyncEngine
