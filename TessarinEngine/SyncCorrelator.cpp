#include "TessarinEngine/SyncCorrelator.h"

namespace CrossCorrelator {

// Pass-through until the signal core is built.
std::vector<float> magnitudeEnvelope(const std::vector<float>&, int) {
    return {};
}

} // namespace CrossCorrelator
