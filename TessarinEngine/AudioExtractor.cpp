#include "TessarinEngine/AudioExtractor.h"

#include "TessarinEngine/platform/MediaDecoder.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <variant>

namespace AudioExtractor {

namespace {

using Kind = TessarinError::Kind;

constexpr double kRateHz = 16000.0;
// A peak at or below this is a muted input, not quiet speech.
constexpr float kSilencePeak = 0.001f;

bool hasBRAWExtension(const std::filesystem::path& path) {
    std::string ext = path.extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return ext == ".braw";
}

float peakOf(std::span<const float> samples) {
    float peak = 0;
    for (float v : samples) {
        peak = std::max(peak, std::fabs(v));
    }
    return peak;
}

void scaleToHalfPeak(std::vector<float>& samples) {
    const float peak = peakOf(samples);
    if (peak > 1e-6f) {
        const float scale = 0.5f / peak;
        for (float& v : samples) {
            v *= scale;
        }
    }
}

// Lossy decoders overshoot full scale a little; everything after extraction expects -1...1.
// Absurd float input can still overflow the filters into NaN, which counts as 0 like any
// non-finite sample.
void clipToUnit(std::vector<float>& samples) {
    for (float& v : samples) {
        v = std::isnan(v) ? 0.0f : std::clamp(v, -1.0f, 1.0f);
    }
}

ExtractedAudio finish(std::vector<float> samples, const std::string& fileName) {
    if (!(peakOf(samples) > kSilencePeak)) {
        throw TessarinError(Kind::silentAudio, fileName);
    }
    levelAudio(samples, kRateHz);
    const double duration = static_cast<double>(samples.size()) / kRateHz;
    return {std::move(samples), duration};
}

ExtractedAudio extractBRAW(const std::filesystem::path& url,
                           const std::function<void(double)>& onProgress) {
    if (!BRAWAudio::isAvailable()) {
        throw TessarinError(Kind::readFailed, BRAWAudio::availabilityNote());
    }
    auto outcome = BRAWAudio::readAudioOrError(url, onProgress);
    if (const auto* error = std::get_if<BRAWAudio::Error>(&outcome)) {
        throw TessarinError(Kind::readFailed, error->description);
    }
    return extractFromBRAWResult(std::get<BRAWAudio::Result>(outcome), url.filename().string(),
                                 onProgress);
}

} // namespace

ExtractedAudio extract(const std::filesystem::path& url, double expectedSeconds,
                       const std::function<void(double)>& onProgress) {
    if (hasBRAWExtension(url)) {
        return extractBRAW(url, onProgress);
    }
    const std::string fileName = url.filename().string();

    // Progress moves in steps of at least 0.01 so that events stay cheap, and only when there is
    // an estimate to measure against.
    const double target = expectedSeconds > 0 ? expectedSeconds * kRateHz : 0;
    double lastReported = 0;
    std::function<void(std::size_t)> onLaid;
    if (onProgress && target > 0) {
        onLaid = [&](std::size_t laid) {
            const double fraction = std::min(static_cast<double>(laid) / target, 1.0);
            if (fraction - lastReported >= 0.01) {
                onProgress(fraction);
                lastReported = fraction;
            }
        };
    }

    auto samples = MediaDecoder::decodeMixedMono(url, static_cast<int>(kRateHz), onLaid);
    if (samples.empty()) {
        throw TessarinError(Kind::emptySamples, fileName);
    }
    clipToUnit(samples);
    return finish(std::move(samples), fileName);
}

void levelAudio(std::vector<float>& samples, double rate) {
    if (samples.empty()) {
        return;
    }
    const auto block = std::max<std::size_t>(1, static_cast<std::size_t>(rate * 0.4));
    const std::size_t nBlocks = samples.size() / block;
    if (nBlocks < 2) {
        scaleToHalfPeak(samples);
        return;
    }

    std::vector<float> rms(nBlocks);
    for (std::size_t b = 0; b < nBlocks; ++b) {
        double sum = 0;
        for (std::size_t i = b * block; i < (b + 1) * block; ++i) {
            sum += static_cast<double>(samples[i]) * samples[i];
        }
        rms[b] = static_cast<float>(std::sqrt(sum / static_cast<double>(block)));
    }
    // Blocks of near silence say nothing about the take's loudness.
    std::vector<float> audible;
    for (float r : rms) {
        if (r > 0.0001f) {
            audible.push_back(r);
        }
    }
    if (audible.empty()) {
        return;
    }
    std::sort(audible.begin(), audible.end());
    const float quiet = audible.front();
    const float median = audible[audible.size() / 2];
    const float floorRms = std::max(quiet, median * 0.05f);
    const float floorGain = std::min(median / floorRms, 8.0f);

    std::vector<float> gain(nBlocks);
    for (std::size_t b = 0; b < nBlocks; ++b) {
        gain[b] = rms[b] < floorRms ? floorGain : std::clamp(median / rms[b], 0.25f, 8.0f);
    }
    std::vector<float> smooth(nBlocks);
    for (std::size_t b = 0; b < nBlocks; ++b) {
        const std::size_t lo = b >= 2 ? b - 2 : 0;
        const std::size_t hi = std::min(b + 2, nBlocks - 1);
        float sum = 0;
        for (std::size_t k = lo; k <= hi; ++k) {
            sum += gain[k];
        }
        smooth[b] = sum / static_cast<float>(hi - lo + 1);
    }

    // Interpolated between block centres, flat before the first centre and after the last, which
    // also covers the trailing part shorter than a block.
    const auto last = static_cast<double>(nBlocks - 1);
    for (std::size_t s = 0; s < samples.size(); ++s) {
        const double p = static_cast<double>(s) / static_cast<double>(block) - 0.5;
        const double i0 = std::clamp(std::floor(p), 0.0, last);
        const double i1 = std::clamp(i0 + 1, 0.0, last);
        const float f = std::clamp(static_cast<float>(p - i0), 0.0f, 1.0f);
        samples[s] *= (1 - f) * smooth[static_cast<std::size_t>(i0)] +
                      f * smooth[static_cast<std::size_t>(i1)];
    }
    scaleToHalfPeak(samples);
}

std::vector<float> resampleMono(std::span<const float> samples, double from, double to) {
    if (std::fabs(from - to) <= 0.5) {
        return {samples.begin(), samples.end()};
    }
    if (!(from > 0) || !(to > 0) || from > 1e9 || to > 1e9) {
        throw TessarinError(Kind::readFailed, "resampler");
    }
    return MediaDecoder::resampleMono(samples, static_cast<int>(std::lround(from)),
                                      static_cast<int>(std::lround(to)));
}

std::vector<float> foldToMono(std::span<const float> interleaved, unsigned channels,
                              std::uint64_t frames) {
    std::vector<float> mono(static_cast<std::size_t>(frames));
    if (channels == 1) {
        std::copy_n(interleaved.begin(), mono.size(), mono.begin());
        return mono;
    }
    const float scale = 1.0f / static_cast<float>(channels);
    for (std::size_t f = 0; f < mono.size(); ++f) {
        float sum = 0;
        for (unsigned c = 0; c < channels; ++c) {
            sum += interleaved[f * channels + c];
        }
        mono[f] = sum * scale;
    }
    return mono;
}

ExtractedAudio extractFromBRAWResult(const BRAWAudio::Result& result, const std::string& fileName,
                                     const std::function<void(double)>& onProgress) {
    if (result.frameCount == 0 || result.channelCount == 0 || !(result.sampleRate > 0) ||
        result.interleaved.size() / result.channelCount < result.frameCount) {
        throw TessarinError(Kind::noAudioTrack, fileName);
    }
    auto mono = foldToMono(result.interleaved, result.channelCount, result.frameCount);
    if (onProgress) {
        onProgress(0.9);
    }
    auto samples = resampleMono(mono, result.sampleRate, kRateHz);
    mono = {};
    clipToUnit(samples);
    // Silence is judged on the 16 kHz signal that matching sees, not at the clip's own rate.
    return finish(std::move(samples), fileName);
}

} // namespace AudioExtractor
