#include "TessarinEngine/SyncEngine.h"

namespace SyncEngine {

// Pass-through until the engine is built: clips keep their track-relative positions.
std::vector<TrackSource> synchronise(std::vector<TrackSource> sources, const ProgressCallback&,
                                     const PlaceCallback&, const std::atomic<bool>*) {
    return sources;
}

} // namespace SyncEngine
