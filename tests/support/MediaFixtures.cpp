#include "tests/support/MediaFixtures.h"

#include "tests/support/TestSupport.h"

#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>

namespace MediaFixtures {

namespace {

void putU16(std::vector<std::uint8_t>& out, std::uint32_t v) {
    out.push_back(static_cast<std::uint8_t>(v));
    out.push_back(static_cast<std::uint8_t>(v >> 8));
}

void putU32(std::vector<std::uint8_t>& out, std::uint32_t v) {
    putU16(out, v & 0xFFFF);
    putU16(out, v >> 16);
}

void putTag(std::vector<std::uint8_t>& out, const char* tag) {
    out.insert(out.end(), tag, tag + 4);
}

} // namespace

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
    std::vector<std::uint8_t> data;
    for (float v : interleaved) {
        if (isFloat) {
            std::uint32_t bits;
            static_assert(sizeof bits == sizeof v);
            std::memcpy(&bits, &v, sizeof v);
            putU32(data, bits);
        } else {
            const float clipped = std::fmax(-1.0f, std::fmin(1.0f, v));
            putU16(data, static_cast<std::uint16_t>(
                             static_cast<std::int16_t>(std::lround(clipped * 32767.0f))));
        }
    }
    const auto channels = static_cast<std::uint32_t>(options.channels);
    const auto rate = static_cast<std::uint32_t>(options.rateHz);
    std::vector<std::uint8_t> out;
    putTag(out, "RIFF");
    putU32(out, options.claimedRiffBytes.value_or(
                    static_cast<std::uint32_t>(4 + 8 + 16 + 8 + data.size())));
    putTag(out, "WAVE");
    putTag(out, "fmt ");
    putU32(out, 16);
    putU16(out, isFloat ? 3 : 1);
    putU16(out, channels);
    putU32(out, rate);
    putU32(out, rate * channels * bytesPerSample);
    putU16(out, channels * bytesPerSample);
    putU16(out, bytesPerSample * 8);
    putTag(out, "data");
    putU32(out, options.claimedDataBytes.value_or(static_cast<std::uint32_t>(data.size())));
    out.insert(out.end(), data.begin(), data.end());
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
