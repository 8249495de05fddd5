#include "TessarinEngine/SpectralBands/BlockSpectra.h"
#include "TessarinEngine/SyncCorrelator.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

namespace SpectralBands {

namespace {

constexpr std::size_t kWindowSize = 1024;

constexpr unsigned kWindowLog2n = 10;

constexpr std::size_t kHop = 640;

// The periodic Hann window scaled to a mean square of 1. The scale is part of the feature, since
// log1p is not invariant to it.
constexpr double kHannScale = 0.8165;

std::array<std::size_t, kBandCount + 1> bandEdges() {
    std::array<std::size_t, kBandCount + 1> edges{};
    for (std::size_t i = 0; i <= kBandCount; ++i) {
        // Equal steps in log frequency over the nine octaves of the 512 bins.
        const double edge = std::trunc(std::exp2(9.0 * static_cast<double>(i) / 8.0));
        edges[i] = static_cast<std::size_t>(std::clamp(edge, 1.0, 512.0));
    }
    return edges;
}

const std::array<float, kWindowSize>& hannWindow() {
    static const auto window = [] {
        std::array<float, kWindowSize> w{};
        for (std::size_t n = 0; n < kWindowSize; ++n) {
            w[n] = static_cast<float>(
                kHannScale * (1.0 - std::cos(2.0 * std::numbers::pi * static_cast<double>(n) /
                                             double(kWindowSize))));
        }
        return w;
    }();
    return window;
}

// Zero mean and unit mean square, in place; a band too flat for that is only centred. Sums run in
// double, so that a constant band centres to exact zeros.
void zscore(float* values, std::size_t count) {
    if (count == 0) {
        return;
    }
    double sum = 0;
    for (std::size_t i = 0; i < count; ++i) {
        sum += values[i];
    }
    const float mean = static_cast<float>(sum / static_cast<double>(count));
    double squares = 0;
    for (std::size_t i = 0; i < count; ++i) {
        values[i] -= mean;
        squares += static_cast<double>(values[i]) * values[i];
    }
    const float rms = static_cast<float>(std::sqrt(squares / static_cast<double>(count)));
    if (rms > kFlatRms) {
        const float scale = 1.0f / rms;
        for (std::size_t i = 0; i < count; ++i) {
            values[i] *= scale;
        }
    }
}

} // namespace

Feature compute(const std::vector<float>& pcm) {
    if (pcm.size() < kWindowSize || pcm.size() - kWindowSize < (kMinFrames - 1) * kHop) {
        return {};
    }
    const auto* setup = SyncCorrelator::sharedFFTSetup(kWindowLog2n);
    if (!setup) {
        return {};
    }
    // A trailing stretch too short for a whole window is not analysed.
    const std::size_t frames = (pcm.size() - kWindowSize) / kHop + 1;
    const auto& window = hannWindow();
    const auto edges = bandEdges();

    Fft::RealBuffer frame(kWindowSize);
    Fft::ComplexBuffer spectrum(setup->spectrumSize());
    Feature::Bands bands(kBandCount, std::vector<float>(frames));
    for (std::size_t t = 0; t < frames; ++t) {
        const float* x = pcm.data() + t * kHop;
        for (std::size_t n = 0; n < kWindowSize; ++n) {
            frame[n] = x[n] * window[n];
        }
        setup->forward(frame, spectrum);
        const float* bin = reinterpret_cast<const float*>(spectrum.data());
        for (std::size_t b = 0; b < kBandCount; ++b) {
            float power = 0;
            for (std::size_t m = edges[b]; m < edges[b + 1]; ++m) {
                power += bin[2 * m] * bin[2 * m] + bin[2 * m + 1] * bin[2 * m + 1];
            }
            // Four times |X|^2: the power the feature has always been defined on.
            bands[b][t] = std::log1p(4.0f * power);
        }
    }
    for (auto& band : bands) {
        zscore(band.data(), band.size());
    }
    return Feature(std::move(bands), static_cast<int>(frames));
}

std::optional<Feature> slice(const Feature& feature, double fromSec, double durationSec) {
    const double count = std::round(durationSec * kFrameRate);
    if (!(count >= kMinFrames)) {
        return std::nullopt;
    }
    double start = std::round(fromSec * kFrameRate);
    if (std::isnan(start)) {
        return std::nullopt;
    }
    // A start before the feature moves to 0 and keeps the length.
    start = std::max(start, 0.0);
    if (feature.bandCount() != kBandCount || start + count > static_cast<double>(feature.frames)) {
        return std::nullopt;
    }
    const auto first = static_cast<std::size_t>(start);
    const auto n = static_cast<std::size_t>(count);
    Feature::Bands bands;
    for (std::size_t i = 0; i < kBandCount; ++i) {
        const auto& band = feature.band(i);
        if (band.size() < first + n) {
            return std::nullopt;
        }
        bands.emplace_back(band.begin() + std::ptrdiff_t(first),
                           band.begin() + std::ptrdiff_t(first + n));
        zscore(bands.back().data(), n);
    }
    return Feature(std::move(bands), static_cast<int>(n));
}

} // namespace SpectralBands
