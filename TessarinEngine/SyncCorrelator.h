#pragma once

#include <optional>
#include <vector>

namespace Fft {
class Setup;
}

namespace SyncCorrelator {

// The largest correlation made, 2^26 points: over 18 days of band frames.
constexpr unsigned kMaxLog2n = 26;

// The process-wide transform set-up for 2^log2n real points, made on first request and kept until
// the process ends; nullptr when it cannot be made. Thread-safe: one lock guards the table and the
// planner, and is never held while transforming.
const Fft::Setup* sharedFFTSetup(unsigned log2n);

// The circular correlation r[k] = 2 * sum over n of a[(n + k) mod N] * b[n], for k from 0 to N - 1,
// where N is the smallest power of two, at least 2, not below a.size() + b.size() - 1. Entry k is
// the lag k; a negative lag -m stands at N - m. Each input is cut to its first N values. Nothing
// when a.size() + b.size() < 3, N < 8 or N > 2^kMaxLog2n. Thread-safe.
std::optional<std::vector<float>> fftCrossCorrelate(const std::vector<float>& a,
                                                    const std::vector<float>& b);

} // namespace SyncCorrelator

namespace CrossCorrelator {

// The RMS of each whole block of `factor` samples; a trailing partial block is dropped. Empty when
// `factor` is not positive.
std::vector<float> magnitudeEnvelope(const std::vector<float>& samples, int factor);

} // namespace CrossCorrelator
