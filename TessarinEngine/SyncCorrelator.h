#pragma once

#include <vector>

namespace CrossCorrelator {

// The RMS of each whole block of `factor` samples; a trailing partial block is dropped. `factor`
// must be positive.
std::vector<float> magnitudeEnvelope(const std::vector<float>& samples, int factor);

} // namespace CrossCorrelator
