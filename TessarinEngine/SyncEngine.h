#pragma once

#include "TessarinEngine/TrackModels.h"

#include <atomic>
#include <functional>
#include <string>
#include <vector>

namespace SyncEngine {

using ProgressCallback = std::function<void(double fraction, const std::string& label)>;
using PlaceCallback =
    std::function<void(const Uuid& clipID, double startOffset, SyncStatus status)>;

// Lays every clip of every track on one common timeline and gives it a status and a reason.
// Tracks come back in their input positions, clips in their input order. Never fails. When
// `cancel` is set and becomes true, the input comes back unchanged.
std::vector<TrackSource> synchronise(std::vector<TrackSource> sources,
                                     const ProgressCallback& onProgress,
                                     const PlaceCallback& onPlace,
                                     const std::atomic<bool>* cancel = nullptr);

} // namespace SyncEngine
