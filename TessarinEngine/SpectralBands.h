#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

namespace SpectralBands {

// Eight band-energy curves at 25 frames per second, lowest band first. The band data is shared and
// immutable, so copying a clip or a track never copies it. The empty feature has no bands and 0
// frames; a usable one has exactly 8 bands of `frames` values each and `frames` >= 5.
struct Feature {
    using Bands = std::vector<std::vector<float>>;

    std::shared_ptr<const Bands> bands;
    int frames = 0;

    Feature() = default;
    Feature(Bands b, int frameCount)
        : bands(std::make_shared<const Bands>(std::move(b))), frames(frameCount) {}

    std::size_t bandCount() const { return bands ? bands->size() : 0; }
    const std::vector<float>& band(std::size_t i) const { return (*bands)[i]; }
    bool empty() const { return bandCount() == 0; }

    bool operator==(const Feature& other) const {
        if (frames != other.frames || bandCount() != other.bandCount()) {
            return false;
        }
        return bands == other.bands || bandCount() == 0 || *bands == *other.bands;
    }
};

// One candidate alignment: where the clip starts relative to the reference's start (a multiple of
// 0.04 s, negative when the clip starts first), and its z-score over the searched offsets.
struct Peak {
    double offsetSeconds = 0;
    float score = 0;
    bool operator==(const Peak&) const = default;
};

} // namespace SpectralBands

namespace SpectralBands {

// Eight z-scored band-energy curves of 16 kHz mono PCM at 25 frames per second. Too short an input
// (fewer than 3584 samples) gives the empty feature. Thread-safe.
Feature compute(const std::vector<float>& pcm);

// The stretch [fromSec, fromSec + durationSec) of a feature, each band normalised anew; nothing
// when it is shorter than 5 frames or runs past the end. A negative start moves to 0.
std::optional<Feature> slice(const Feature& feature, double fromSec, double durationSec);

// The best offsets of `clip` within `ref` (the clip's start relative to the reference's start),
// best first, at most topK, at least minSeparationSec apart, keeping minOverlapSec of the clip
// inside the reference. Offset bounds may be infinite (a bound too large to turn into frames counts
// as none); a negative minOverlapSec counts as 0. Empty when nothing usable is found; the
// reference must be strictly longer than the clip. Thread-safe.
std::vector<Peak> peaks(const Feature& clip, const Feature& ref, double minOffsetSec,
                        double maxOffsetSec, double minOverlapSec, int topK,
                        double minSeparationSec);

// The search of `peaks` on a summed correlation already made. `summed` is circular: lag L stands
// at index L, or at L + summed.size() when L is negative. Lags firstLag to lastLag are searched;
// both must lie in -summed.size() ... summed.size() - 1, or nothing is found. Scores are z-scores
// over the searched lags; local maxima (ties included) best first, equal scores by ascending lag,
// at least minSeparationSec apart, at most topK.
std::vector<Peak> pickPeaks(const std::vector<float>& summed, int firstLag, int lastLag, int topK,
                            double minSeparationSec);

// `peaks` keeps the block spectra of the long references it has searched, so that the next clip
// searched against the same reference (the same band storage) costs fewer transforms. The memory is
// bounded; an entry whose feature no longer exists is let go on the next miss or query.
// Thread-safe.
struct SpectrumCacheUsage {
    std::size_t entries = 0;
    std::size_t bytes = 0;
};
SpectrumCacheUsage spectrumCacheUsage();

// Sets the byte bound of those spectra (128 MiB unless set), letting go of the least recently used
// at once if needed, and returns the previous bound.
std::size_t setSpectrumCacheBudget(std::size_t bytes);

} // namespace SpectralBands
