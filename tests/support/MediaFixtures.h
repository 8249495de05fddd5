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

// Writes interleaved samples as a RIFF WAVE file of 32-bit floats, which keeps them exact.
void writeWav(const std::filesystem::path& file, std::span<const float> interleaved,
              int rateHz = 16000, int channels = 1);

// `seconds` of a sine of `amplitude` at `frequencyHz`, at `rateHz`.
std::vector<float> sine(double frequencyHz, float amplitude, double seconds, int rateHz);

// `count` samples of Gaussian noise of standard deviation `sd`, the same for the same seed.
std::vector<float> noise(std::size_t count, float sd, unsigned seed);

// Root mean square of samples [from, to), from < to.
double rms(std::span<const float> samples, std::size_t from, std::size_t to);

void writeBytes(const std::filesystem::path& file, const std::vector<std::uint8_t>& bytes);
std::vector<std::uint8_t> readBytes(const std::filesystem::path& file);
// `count` bytes from a fixed-seed generator: the same garbage on every run.
std::vector<std::uint8_t> randomBytes(std::size_t count, unsigned seed);

} // namespace MediaFixtures
