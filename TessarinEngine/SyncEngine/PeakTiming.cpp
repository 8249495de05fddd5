#include "TessarinEngine/SyncEngine/PeakTiming.h"

#include <atomic>
#include <cstdint>
#include <ctime>

namespace SyncEngine {

namespace {

std::atomic<bool> timingOn{false};
std::atomic<std::int64_t> spentNs{0};

std::int64_t threadCpuNs() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<std::int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

} // namespace

std::vector<SpectralBands::Peak> searchPeaks(const SpectralBands::Feature& clip,
                                             const SpectralBands::Feature& ref, double minOffsetSec,
                                             double maxOffsetSec, double minOverlapSec, int topK,
                                             double minSeparationSec) {
    if (!timingOn.load(std::memory_order_relaxed)) {
        return SpectralBands::peaks(clip, ref, minOffsetSec, maxOffsetSec, minOverlapSec, topK,
                                    minSeparationSec);
    }
    const auto start = threadCpuNs();
    auto result = SpectralBands::peaks(clip, ref, minOffsetSec, maxOffsetSec, minOverlapSec, topK,
                                       minSeparationSec);
    spentNs.fetch_add(threadCpuNs() - start, std::memory_order_relaxed);
    return result;
}

namespace PeakTiming {

void enable(bool on) {
    timingOn.store(on);
}

double cpuSeconds() {
    return static_cast<double>(spentNs.load()) / 1e9;
}

void reset() {
    spentNs.store(0);
}

} // namespace PeakTiming

} // namespace SyncEngine
