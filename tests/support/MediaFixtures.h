#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

// Test media made at test time: through the ffmpeg program for containers and codecs, and a small
// WAV writer for exact samples.
namespace MediaFixtures {

// Runs `ffmpeg -nostdin -v error -y` with the arguments; throws with its error output on failure.
void runFfmpeg(const std::vector<std::string>& args);

// Arguments that add one lavfi audio input: `expression` in t (seconds), e.g.
// "0.5*sin(2*PI*440*t)"; several channels are expressions separated by '|'.
std::vector<std::string> lavfiAudio(const std::string& expression, int rateHz, double seconds);

enum class WavSampleFormat { pcm16, float32 };

struct WavOptions {
    int rateHz = 16000;
    int channels = 1;
    WavSampleFormat format = WavSampleFormat::pcm16;
};

// Writes interleaved samples (-1...1) as a RIFF WAVE file.
void writeWav(const std::filesystem::path& file, std::span<const float> interleaved,
              const WavOptions& options);

// `seconds` of a sine of `amplitude` at `frequencyHz`, at `rateHz`.
std::vector<float> sine(double frequencyHz, float amplitude, double seconds, int rateHz);

// Root mean square of samples [from, to).
double rms(std::span<const float> samples, std::size_t from, std::size_t to);

void writeBytes(const std::filesystem::path& file, const std::vector<std::uint8_t>& bytes);
std::vector<std::uint8_t> readBytes(const std::filesystem::path& file);
// `count` bytes from a fixed-seed generator: the same garbage on every run.
std::vector<std::uint8_t> randomBytes(std::size_t count, unsigned seed);

} // namespace MediaFixtures
