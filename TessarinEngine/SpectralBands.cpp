#include "TessarinEngine/SpectralBands.h"

namespace SpectralBands {

// Pass-through until the band analysis is built: every input gives the empty feature.
Feature compute(const std::vector<float>&) {
    return {};
}

} // namespace SpectralBands
