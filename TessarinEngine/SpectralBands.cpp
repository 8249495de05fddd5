#include "TessarinEngine/SpectralBands.h"

namespace SpectralBands {

// Pass-through until the band analysis is built: every input gives the empty
// feature, no slice and no peak.
Feature compute(const std::vector<float>&) {
    return {};
}

std::optional<Feature> slice(const Feature&, double, double) {
    return std::nullopt;
}

std::vector<Peak> peaks(const Feature&, const Feature&, double, double, double, int, double) {
    return {};
}

} // namespace SpectralBands
