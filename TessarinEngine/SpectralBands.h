#pragma once

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

} // namespace SpectralBands
