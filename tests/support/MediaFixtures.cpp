#include "tests/support/MediaFixtures.h"

#include "tests/support/TestSupport.h"

#include <bit>
#include <cmath>
#include <fstream>
#include <iterator>
#include <numeric>
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

void writeWav(const std::filesystem::path& file, std::span<const float> interleaved, int rateHz,
              int channels) {
    const auto rate = static_cast<std::uint32_t>(rateHz);
    const auto frameBytes = static_cast<std::uint32_t>(4 * channels);
    const auto dataBytes = static_cast<std::uint32_t>(4 * interleaved.size());
    std::vector<std::uint8_t> out;
    auto put = [&](std::uint32_t v) {
        for (int i = 0; i < 4; ++i) {
            out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
        }
    };
    auto tag = [&](const char* t) {
        out.insert(out.end(), t, t + 4);
    };
    tag("RIFF");
    put(36 + dataBytes);
    tag("WAVE");
    tag("fmt ");
    // Little-endian throughout, so each pair of 2-byte fields is one word: the format (3, float)
    // with the channel count, and the frame size with the bits per sample.
    for (auto v :
         {16u, 3 | (frameBytes / 4) << 16, rate, rate * frameBytes, frameBytes | 32u << 16}) {
        put(v);
    }
    tag("data");
    put(dataBytes);
    for (float v : interleaved) {
        put(std::bit_cast<std::uint32_t>(v));
    }
    writeBytes(file, out);
}

std::vector<float> sine(double frequencyHz, float amplitude, double seconds, int rateHz) {
    std::vector<float> out(static_cast<std::size_t>(std::lround(seconds * rateHz)));
    for (std::size_t i = 0; i < out.size(); ++i) {
        out[i] = amplitude * float(std::sin(2 * M_PI * frequencyHz * double(i) / rateHz));
    }
    return out;
}

std::vector<float> noise(std::size_t count, float sd, unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> dist(0.0f, sd);
    std::vector<float> out(count);
    for (auto& v : out) {
        v = dist(rng);
    }
    return out;
}

double rms(std::span<const float> samples, std::size_t from, std::size_t to) {
    const auto* first = samples.data() + from;
    return std::sqrt(std::inner_product(first, first + (to - from), first, 0.0) /
                     double(to - from));
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
