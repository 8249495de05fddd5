#pragma once

#include "TessarinEngine/SpectralBands.h"

#include <vector>

namespace SyncEngine {

// The engine's one road to SpectralBands::peaks, so that the time spent in the band search can be
// measured against the whole run. Thread-safe.
std::vector<SpectralBands::Peak> searchPeaks(const SpectralBands::Feature& clip,
                                             const SpectralBands::Feature& ref, double minOffsetSec,
                                             double maxOffsetSec, double minOverlapSec, int topK,
                                             double minSeparationSec);

// Measuring costs two clock reads per search, so it is off unless a benchmark turns it on.
namespace PeakTiming {
void enable(bool on);
// Thread CPU seconds spent inside searches since the last reset, summed over threads.
double cpuSeconds();
void reset();
} // namespace PeakTiming

} // namespace SyncEngine
