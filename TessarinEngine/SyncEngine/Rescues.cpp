#include "TessarinEngine/SyncEngine/Run.h"

namespace SyncEngine {

// The last attempts on clips that the passes left over are not built yet. Each is a pass-through
// that finds nothing, so such clips go to the layout by clock or by durations, which is where a
// failed rescue would leave them too.

// Pass-through that finds nothing yet: the long rescue of a chain, with its B-roll prior.
bool longRescueChain(Run& run, ChainState&) {
    return !run.cancelled();
}

// Pass-through that finds nothing yet: matching unplaced clips against other cameras of the chain.
bool cameraCross(Run& run, ChainState&) {
    return !run.cancelled();
}

// Pass-through that finds nothing yet: syncing clusters of unplaced clips against each other.
void cameraCluster(Run&, ChainState&) {}

// Pass-through that finds nothing yet: placing a long take beside a matched take of another
// camera.
void siblingProp(Run&, ChainState&) {}

// Pass-through that finds nothing yet: the long rescue of a single track.
bool longRescueTrack(Run& run, ChainState&, const std::vector<PoolSpan>&) {
    return !run.cancelled();
}

} // namespace SyncEngine
