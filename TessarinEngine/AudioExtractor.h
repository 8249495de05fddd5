#pragma once

#include "TessarinEngine/TrackModels.h"

#include <filesystem>
#include <functional>
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

} // namespace AudioExtractor
