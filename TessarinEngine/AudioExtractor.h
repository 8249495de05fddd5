#pragma once

#include "TessarinEngine/BRAWAudio.h"
#include "TessarinEngine/TrackModels.h"

#include <filesystem>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace AudioExtractor {

// Levelled mono samples at 16000 per second and their duration, samples.size() / 16000.0.
struct ExtractedAudio {
    std::vector<float> samples;
    double duration = 0;
};

// Decodes every audio stream of the file into one levelled 16 kHz mono signal. `expectedSeconds`
// only scales progress; `onProgress` may be empty and may be called on any thread. Throws
// TessarinError. Thread-safe: no state is kept between calls.
ExtractedAudio extract(const std::filesystem::path& url, double expectedSeconds,
                       const std::function<void(double)>& onProgress);

// Slow gain control in place: each 0.4 s block is pulled towards the median block loudness
// (gain 0.25...8, smoothed over five blocks and interpolated between block centres), then the
// whole is scaled to a peak of 0.5. Shorter than two blocks, only the peak scaling is done; when
// no block is louder than an RMS of 0.0001 nothing changes. `rate` is in samples per second.
void levelAudio(std::vector<float>& samples, double rate);

// The samples at rate `to`, or unchanged when the rates differ by at most 0.5 Hz. Rates are
// rounded to whole hertz. Throws TessarinError readFailed("resampler") when it cannot convert.
std::vector<float> resampleMono(std::span<const float> samples, double from, double to);

// The mean of each frame's channels, for `frames` interleaved frames of `channels` samples.
std::vector<float> foldToMono(std::span<const float> interleaved, unsigned channels,
                              std::uint64_t frames);

// Turns the audio read from a Blackmagic RAW clip into the extraction result: folded to mono,
// resampled to 16 kHz, held to -1...1, checked for silence and levelled. Reports 0.9 before
// resampling. Throws noAudioTrack(fileName) for a result without usable audio and
// silentAudio(fileName) when the resampled peak is not above 0.001.
ExtractedAudio extractFromBRAWResult(const BRAWAudio::Result& result, const std::string& fileName,
                                     const std::function<void(double)>& onProgress);

} // namespace AudioExtractor
