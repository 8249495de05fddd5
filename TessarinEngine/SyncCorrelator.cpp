#include "TessarinEngine/SyncCorrelator.h"

#include "TessarinEngine/platform/Fft.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <map>
#include <mutex>

namespace SyncCorrelator {

namespace {

std::mutex& fftSetupLock() {
    static std::mutex lock;
    return lock;
}

// Never destroyed, like the set-ups it holds: threads may still transform while the process exits.
std::map<unsigned, const Fft::Setup*>& fftSetups() {
    static auto* setups = new std::map<unsigned, const Fft::Setup*>();
    return *setups;
}

} // namespace

const Fft::Setup* sharedFFTSetup(unsigned log2n) {
    std::lock_guard<std::mutex> guard(fftSetupLock());
    auto& setups = fftSetups();
    if (auto found = setups.find(log2n); found != setups.end()) {
        return found->second;
    }
    const Fft::Setup* setup = Fft::Setup::make(log2n);
    if (setup) {
        setups.emplace(log2n, setup);
    }
    return setup;
}

std::optional<std::vector<float>> fftCrossCorrelate(const std::vector<float>& a,
                                                    const std::vector<float>& b) {
    const std::size_t total = a.size() + b.size();
    if (total < 3) {
        return std::nullopt;
    }
    const std::size_t n = total - 1;
    if (n > (std::size_t{1} << kMaxLog2n)) {
        return std::nullopt;
    }
    const std::size_t size = std::max<std::size_t>(2, std::bit_ceil(n));
    if (size < 8) {
        return std::nullopt;
    }
    const auto* setup = sharedFFTSetup(static_cast<unsigned>(std::countr_zero(size)));
    if (!setup) {
        return std::nullopt;
    }

    Fft::RealBuffer padded(size);
    Fft::ComplexBuffer spectrumA(setup->spectrumSize());
    Fft::ComplexBuffer spectrumB(setup->spectrumSize());
    std::copy_n(a.begin(), std::min(a.size(), size), padded.begin());
    setup->forward(padded, spectrumA);
    std::fill(padded.begin(), padded.end(), 0.0f);
    std::copy_n(b.begin(), std::min(b.size(), size), padded.begin());
    setup->forward(padded, spectrumB);

    // A times the conjugate of B, written out: std::complex multiplication would take the slow
    // path that guards against infinities in every bin.
    for (std::size_t m = 0; m < spectrumA.size(); ++m) {
        const float ar = spectrumA[m].real(), ai = spectrumA[m].imag();
        const float br = spectrumB[m].real(), bi = spectrumB[m].imag();
        spectrumA[m] = {ar * br + ai * bi, ai * br - ar * bi};
    }
    setup->inverse(spectrumA, padded);

    // The unscaled inverse gives N times the correlation; the result carries a factor 2.
    const float scale = 2.0f / static_cast<float>(size);
    std::vector<float> out(size);
    std::transform(padded.begin(), padded.end(), out.begin(),
                   [scale](float v) { return v * scale; });
    return out;
}

} // namespace SyncCorrelator

namespace CrossCorrelator {

std::vector<float> magnitudeEnvelope(const std::vector<float>& samples, int factor) {
    if (factor <= 0) {
        return {};
    }
    const std::size_t block = static_cast<std::size_t>(factor);
    const std::size_t count = samples.size() / block;
    std::vector<float> out(count);
    for (std::size_t i = 0; i < count; ++i) {
        double sum = 0;
        for (std::size_t j = i * block; j < (i + 1) * block; ++j) {
            sum += static_cast<double>(samples[j]) * samples[j];
        }
        out[i] = static_cast<float>(std::sqrt(sum / static_cast<double>(block)));
    }
    return out;
}

} // namespace CrossCorrelator
