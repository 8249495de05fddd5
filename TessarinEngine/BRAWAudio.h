#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace BRAWAudio {

// Picture facts and audio of one Blackmagic RAW clip.
struct Result {
    double sampleRate = 0;
    unsigned channelCount = 0;
    std::uint64_t frameCount = 0;
    std::vector<float> interleaved; // empty from probe
    double frameRate = 0;
    std::uint64_t pictureFrames = 0;
    unsigned width = 0;
    unsigned height = 0;

    // pictureFrames / frameRate, or 0 when either is not positive.
    double pictureDuration() const {
        return pictureFrames > 0 && frameRate > 0 ? static_cast<double>(pictureFrames) / frameRate
                                                  : 0.0;
    }
};

// Whether the Blackmagic RAW library could be found and loaded on this machine.
bool isAvailable();
// One line for the user on where the library was found, or that it was not.
std::string availabilityNote();

// Picture facts and audio format, no samples; nothing without the library or for a bad file.
std::optional<Result> probe(const std::filesystem::path& path);

// All audio samples with the picture facts; nothing without the library or for a bad file.
std::optional<Result> readAudio(const std::filesystem::path& path,
                                const std::function<void(double)>& progress);

} // namespace BRAWAudio
