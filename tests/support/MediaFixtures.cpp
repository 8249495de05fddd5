#include "tests/support/MediaFixtures.h"

#include "tests/support/TestSupport.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>

namespace MediaFixtures {

void runFfmpeg(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {"ffmpeg", "-nostdin", "-v", "error", "-y"};
    argv.insert(argv.end(), args.begin(), args.end());
    auto result = TestSupport::runProcess(argv);
    if (result.exitCode != 0) {
        throw std::runtime_error("ffmpeg failed: " + result.err);
    }
}

std::vector<std::string> lavfiAudio(const std::string& expression, int rateHz, double seconds) {
    return {"-f", "lavfi", "-i",
            "aevalsrc=" + expression + ":s=" + std::to_string(rateHz) +
                ":d=" + std::to_string(seconds)};
}

void writeWav(const std::filesystem::path& file, std::span<const float> interleaved,
              const WavOptions& options) {
    const bool isFloat = options.format == WavSampleFormat::float32;
    const std::uint32_t bytesPerSample = isFloat ? 4 : 2;
    const auto channels = static_cast<std::uint32_t>(options.channels);
    const auto rate = static_cast<std::uint32_t>(options.rateHz);
    const auto dataBytes = static_cast<std::uint32_t>(interleaved.size() * bytesPerSample);
    std::vector<std::uint8_t> out;
    // Little-endian fields of 2 or 4 bytes, and four-letter tags.
    auto put = [&](std::uint32_t v, int bytes) {
        for (int i = 0; i < bytes; ++i) {
            out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
        }
    };
    auto tag = [&](const char* t) {
        out.insert(out.end(), t, t + 4);
    };
    tag("RIFF");
    put(4 + 8 + 16 + 8 + dataBytes, 4);
    tag("WAVE");
    tag("fmt ");
    put(16, 4);
    put(isFloat ? 3 : 1, 2);
    put(channels, 2);
    put(rate, 4);
    put(rate * channels * bytesPerSample, 4);
    put(channels * bytesPerSample, 2);
    put(bytesPerSample * 8, 2);
    tag("data");
    put(dataBytes, 4);
    for (float v : interleaved) {
        if (isFloat) {
            put(std::bit_cast<std::uint32_t>(v), 4);
        } else {
            put(static_cast<std::uint16_t>(
                    static_cast<std::int16_t>(std::lround(std::clamp(v, -1.0f, 1.0f) * 32767.0f))),
                2);
        }
    }
    writeBytes(file, out);
}

std::vector<float> sine(double frequencyHz, float amplitude, double seconds, int rateHz) {
    std::vector<float> out(static_cast<std::size_t>(std::lround(seconds * rateHz)));
    for (std::size_t i = 0; i < out.size(); ++i) {
        out[i] =
            amplitude *
            static_cast<float>(std::sin(2 * M_PI * frequencyHz * static_cast<double>(i) / rateHz));
    }
    return out;
}

double rms(std::span<const float> samples, std::size_t from, std::size_t to) {
    double sum = 0;
    for (std::size_t i = from; i < to; ++i) {
        sum += static_cast<double>(samples[i]) * samples[i];
    }
    return to > from ? std::sqrt(sum / static_cast<double>(to - from)) : 0.0;
}

void writeBytes(const std::filesystem::path& file, const std::vector<std::uint8_t>& bytes) {
    std::ofstream out(file, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
    if (!out) {
        throw std::runtime_error("cannot write " + file.string());
    }
}

std::vector<std::uint8_t> readBytes(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::vector<std::uint8_t> randomBytes(std::size_t count, unsigned seed) {
    std::mt19937 gen(seed);
    std::vector<std::uint8_t> out(count);
    for (auto& b : out) {
        b = static_cast<std::uint8_t>(gen());
    }
    return out;
}

} // namespace MediaFixtures
