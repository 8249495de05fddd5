#include "TessarinEngine/AudioExtractor.h"

#include "TessarinEngine/MediaMetadata.h"
#include "TessarinEngine/SpectralBands.h"
#include "TessarinEngine/platform/MediaDecoder.h"
#include "tests/support/MediaFixtures.h"
#include "tests/support/TestSupport.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits>
#include <sys/stat.h>
#include <unistd.h>

using namespace MediaFixtures;

namespace {

constexpr int kRate = 16000;

// The case of the error `run` throws, or "no error".
template <class Run>
std::string errorOf(Run run) {
    try {
        run();
    } catch (const TessarinError& e) {
        return e.caseText();
    }
    return "no error";
}

float peakOf(const std::vector<float>& samples) {
    return std::fabs(*std::ranges::max_element(samples, {}, [](float v) { return std::fabs(v); }));
}

} // namespace

TEST(AudioExtractor, EachBadInputFailsWithItsOwnErrorAndNeverHangs) {
    TestSupport::TempDir dir;
    runFfmpeg({"-f", "lavfi", "-i", "testsrc=size=64x48:rate=10:duration=1", "-c:v", "mpeg4",
               (dir / "picture.mp4").string()});
    ASSERT_EQ(::mkfifo((dir / "pipe.wav").c_str(), 0600), 0);
    writeWav(dir / "no-data.wav", {});
    // A recording cut short by a dead battery: with the index at the end, the index is missing;
    // with it in front, the last packet is torn.
    for (const std::string name : {"whole", "front"}) {
        runFfmpeg({"-f", "lavfi", "-i", "aevalsrc=0.5*sin(2*PI*440*t):s=48000:d=4", "-c:a", "aac",
                   "-movflags", name == "front" ? "+faststart" : "-faststart",
                   (dir / (name + ".mp4")).string()});
        auto bytes = readBytes(dir / (name + ".mp4"));
        bytes.resize(bytes.size() / 2);
        writeBytes(dir / (name + "-cut.mp4"), bytes);
    }
    // A level at the silence limit is silent; just above it is not.
    writeWav(dir / "at-limit.wav", std::vector<float>(kRate, 0.001f));
    writeWav(dir / "above-limit.wav", std::vector<float>(kRate, 0.0011f));
    // A playable WAV renamed: the extension alone sends it to the Blackmagic RAW reader.
    writeWav(dir / "A001.BRAW", std::vector<float>(kRate, 0.1f));

    std::vector<std::pair<std::string, std::string>> cases = {
        {"missing.mp4", "readerStartFailed(\"No such file or directory\")"},
        {"pipe.wav", "readerStartFailed(\"not a regular file\")"},
        {"whole-cut.mp4", "readerStartFailed(\"Invalid data found when processing input\")"},
        {"front-cut.mp4", "emptySamples(\"front-cut.mp4\")"},
        {"no-data.wav", "emptySamples(\"no-data.wav\")"},
        {"picture.mp4", "noAudioTrack(\"picture.mp4\")"},
        {"at-limit.wav", "silentAudio(\"at-limit.wav\")"},
        {"above-limit.wav", "no error"},
    };
    if (!BRAWAudio::isAvailable()) {
        cases.push_back(
            {"A001.BRAW", "readFailed(\"Blackmagic RAW framework not found on this machine\")"});
    }
    for (const auto& [file, error] : cases) {
        EXPECT_EQ(errorOf([&] { AudioExtractor::extract(dir / file, 0, {}); }), error) << file;
    }
}

TEST(AudioExtractor, DecodingLaysStreamsByStartAndFoldsChannelsToTheirMean) {
    TestSupport::TempDir dir;
    // Stream 1 plays 0-2 s, stream 2 plays 1-3 s; each a 0.5 tone of its own pitch.
    runFfmpeg({"-f", "lavfi", "-i", "aevalsrc=0.5*sin(2*PI*440*t):s=48000:d=2", "-itsoffset", "1",
               "-f", "lavfi", "-i", "aevalsrc=0.5*sin(2*PI*1000*t):s=48000:d=2", "-map", "0:a",
               "-map", "1:a", "-c:a", "pcm_s16le", (dir / "two.mov").string()});
    // A click at 1.5 s in the left channel only, of a 3 s 48 kHz file.
    std::vector<float> stereo(2 * 3 * 48000, 0.0f);
    stereo[2 * 72000] = 0.8f;
    writeWav(dir / "click.wav", stereo, 48000, 2);

    const auto mix = MediaDecoder::decodeMixedMono(dir / "two.mov", kRate, {});
    const auto click = MediaDecoder::decodeMixedMono(dir / "click.wav", kRate, {});
    ASSERT_NEAR(static_cast<double>(mix.size()), 3.0 * kRate, 2);
    ASSERT_NEAR(static_cast<double>(click.size()), 3.0 * kRate, 2);
    const double alone = 0.5 / std::sqrt(2.0);
    const std::size_t guard = kRate / 20;
    EXPECT_NEAR(rms(mix, guard, kRate - guard), alone, 0.005);
    // Two unrelated tones of RMS 0.354 summed and halved: sqrt(2 * 0.125) / 2.
    EXPECT_NEAR(rms(mix, kRate + guard, 2 * kRate - guard), 0.25, 0.005);
    EXPECT_NEAR(rms(mix, 2 * kRate + guard, mix.size() - guard), alone, 0.005);
    const auto at = std::max_element(click.begin(), click.end());
    EXPECT_NEAR(static_cast<double>(at - click.begin()), 1.5 * kRate, 1);
    EXPECT_NEAR(*at, 0.8f / 2 / 3, 0.05) << "half the click, spread over three samples";
}

TEST(AudioExtractor, LevellingPullsBlocksTowardsTheMedianWithinItsLimits) {
    // At 10 samples per second blocks are 4 samples. A block of one constant value has its
    // magnitude as RMS, and sample 4b + 2 is the centre of block b, where the gain is exactly
    // block b's smoothed gain; gains are compared relative to block 0's.
    struct Case {
        std::vector<float> blocks;
        std::vector<double> smoothed; // raw gains worked out by hand, then five-block means
    };
    const Case cases[] = {
        // Median 0.1; the quiet block's 10x is held to 8: raw 1 1 1 8 1 1 1.
        {{0.1f, 0.1f, 0.1f, 0.01f, 0.1f, 0.1f, 0.1f},
         {1, 11.0 / 4, 12.0 / 5, 12.0 / 5, 12.0 / 5, 11.0 / 4, 1}},
        // Median 0.1; the loud block's 0.2 is held to 0.25: raw 1 1 1 0.25 1 1 1.
        {{0.1f, 0.1f, 0.1f, -0.5f, 0.1f, 0.1f, 0.1f},
         {1, 3.25 / 4, 4.25 / 5, 4.25 / 5, 4.25 / 5, 3.25 / 4, 1}},
        // Even count: the median is the upper middle value 0.4, the floor 0.02 (5% of it) is
        // above the quietest block, whose gain is the floor gain 20 held to 8: raw 8 4 1 0.5.
        {{0.01f, 0.1f, 0.4f, 0.8f}, {13.0 / 3, 13.5 / 4, 13.5 / 4, 5.5 / 3}},
        // Median 0.1 and the quietest audible block 0.02 set the floor gain at 5. The block of
        // near silence is below the floor and takes that gain, not its own 8: raw 1 1 5 1 5 1 1.
        {{0.1f, 0.1f, 0.02f, 0.1f, 0.00005f, 0.1f, 0.1f},
         {7.0 / 3, 2, 13.0 / 5, 13.0 / 5, 13.0 / 5, 2, 7.0 / 3}},
    };
    for (const auto& [blocks, g] : cases) {
        SCOPED_TRACE(blocks.size());
        std::vector<float> before;
        for (float v : blocks) {
            before.insert(before.end(), 4, v);
        }
        before.insert(before.end(), 3, blocks.back()); // a trailing part shorter than a block
        auto after = before;
        AudioExtractor::levelAudio(after, 10.0);
        EXPECT_FLOAT_EQ(peakOf(after), 0.5f);
        auto gainAt = [&](std::size_t s) {
            return double(after[s]) / before[s] / (double(after[2]) / before[2]) * g[0];
        };
        for (std::size_t b = 0; b < g.size(); ++b) {
            EXPECT_NEAR(gainAt(4 * b + 2), g[b], 1e-5) << "block " << b;
        }
        // Interpolated between centres, held before the first and after the last.
        EXPECT_NEAR(gainAt(0), g[0], 1e-5);
        EXPECT_NEAR(gainAt(3), 0.75 * g[0] + 0.25 * g[1], 1e-5);
        EXPECT_NEAR(gainAt(before.size() - 1), g.back(), 1e-5);
    }
    // Blocks no louder than an RMS of 0.0001 say nothing: a take of them is left alone, not even
    // scaled, while one just above is levelled to its peak of 0.5.
    for (const float level : {0.00009f, 0.00012f}) {
        std::vector<float> quiet(12, level);
        AudioExtractor::levelAudio(quiet, 10.0);
        EXPECT_NEAR(peakOf(quiet), level > 0.0001f ? 0.5f : level, 1e-6) << level;
    }
    // Under two blocks there is no median to level to: however quiet, the take is only scaled.
    std::vector<float> shortTake = {0.00002f, -0.00004f, 0.00001f, 0.0f, 0.00003f, 0.0f};
    AudioExtractor::levelAudio(shortTake, 10.0);
    EXPECT_FLOAT_EQ(peakOf(shortTake), 0.5f);
    EXPECT_FLOAT_EQ(shortTake[0], 0.25f);
}

TEST(AudioExtractor, ResamplingKeepsLengthLevelAndTime) {
    const auto tone = sine(1000, 0.5f, 1.0, 48000);
    EXPECT_EQ(AudioExtractor::resampleMono(tone, 48000.0, 48000.4), tone);
    const auto down = AudioExtractor::resampleMono(tone, 48000.0, 16000.0);
    EXPECT_NEAR(static_cast<double>(down.size()), 16000.0, 2);
    EXPECT_NEAR(rms(down, 100, down.size() - 100), 0.5 / std::sqrt(2.0), 0.005);

    std::vector<float> impulse(44100, 0.0f);
    impulse[22050] = 1.0f;
    const auto moved = AudioExtractor::resampleMono(impulse, 44100.0, 16000.0);
    EXPECT_NEAR(static_cast<double>(std::max_element(moved.begin(), moved.end()) - moved.begin()),
                8000.0, 1);
    EXPECT_THROW(AudioExtractor::resampleMono(tone, 48000.0, -16000.0), TessarinError);
    EXPECT_EQ(MediaDecoder::unpinnedResamplerOptions(), std::vector<std::string>{});
}

TEST(AudioExtractor, BRAWResultsAreFoldedResampledAndChecked) {
    auto stereo = [](const std::vector<float>& mono) {
        BRAWAudio::Result result{48000, 2, mono.size(), {}};
        for (float v : mono) {
            result.interleaved.insert(result.interleaved.end(), {v, v});
        }
        return result;
    };
    auto error = [](const BRAWAudio::Result& result) {
        return errorOf([&] { AudioExtractor::extractFromBRAWResult(result, "A001.braw", {}); });
    };
    const auto tone = stereo(sine(1000, 0.4f, 1.0, 48000));
    const auto audio = AudioExtractor::extractFromBRAWResult(tone, "A001.braw", {});
    EXPECT_NEAR(static_cast<double>(audio.samples.size()), 16000.0, 2);
    EXPECT_FLOAT_EQ(peakOf(audio.samples), 0.5f);

    // A lone spike of 0.0012 at 48 kHz is above the silence limit, but the 16 kHz signal that
    // matching sees keeps only about a third of it.
    std::vector<float> spike(48000, 0.0f);
    spike[24000] = 0.0012f;
    EXPECT_EQ(error(stereo(spike)), "silentAudio(\"A001.braw\")");

    auto noFrames = tone, noChannels = tone, noRate = tone, shortData = tone;
    noFrames.frameCount = 0;
    noChannels.channelCount = 0;
    noRate.sampleRate = 0;
    shortData.interleaved.pop_back();
    for (const auto& result : {noFrames, noChannels, noRate, shortData}) {
        EXPECT_EQ(error(result), "noAudioTrack(\"A001.braw\")");
    }
}

TEST(AudioExtractor, ANameWithAColonIsALocalFileNeverAProtocol) {
    TestSupport::TempDir dir;
    const auto seconds = [](const std::vector<float>& samples) {
        return static_cast<double>(samples.size()) / kRate;
    };
    // A relative name with a colon is a file in the working folder: here not standard input,
    // which holds another recording.
    writeWav(dir / "pipe:0.wav", sine(440, 0.5f, 1.0, kRate));
    writeWav(dir / "stdin.wav", sine(440, 0.5f, 3.0, kRate));
    struct Redirect {
        int saved = ::dup(0);
        const std::filesystem::path previous = std::filesystem::current_path();
        explicit Redirect(const TestSupport::TempDir& d) {
            const int fd = ::open((d / "stdin.wav").c_str(), O_RDONLY);
            ::dup2(fd, 0);
            ::close(fd);
            std::filesystem::current_path(d.path());
        }
        ~Redirect() {
            std::filesystem::current_path(previous);
            ::dup2(saved, 0);
            ::close(saved);
        }
    };
    {
        Redirect redirect(dir);
        EXPECT_NEAR(seconds(MediaDecoder::decodeMixedMono("pipe:0.wav", kRate, {})), 1.0, 0.01);
        EXPECT_NEAR(MediaMetadata::readDuration("pipe:0.wav"), 1.0, 0.01);
    }
}

TEST(AudioExtractor, AFileCostsNoMoreThanItsContainerHonestlyHolds) {
    TestSupport::TempDir dir;
    // 1000 samples said to be at 1 Hz: 4 KB claiming 17 minutes. A file this size cannot hold
    // more than its size at 100 bytes per second plus a minute, 101 s, of 16 kHz samples.
    writeWav(dir / "one-hertz.wav", sine(0.1, 0.5f, 1000.0, 1), 1);
    // Low rates are no fault in themselves: 100 s at 100 Hz is 40 KB, honest, and decodes whole.
    writeWav(dir / "hundred-hertz.wav", sine(7, 0.5f, 100.0, 100), 100);

    // The resampler is fed a second of input at a time, so the bound stops it a step past the
    // limit rather than after it has built the whole claimed stretch in memory (a step holds at
    // most the reach of its filter, some seconds at 1 Hz).
    std::size_t laid = 0;
    std::size_t largestStep = 0;
    const auto onLaid = [&](std::size_t n) {
        largestStep = std::max(largestStep, n - laid);
        laid = n;
    };
    EXPECT_EQ(errorOf([&] { MediaDecoder::decodeMixedMono(dir / "one-hertz.wav", kRate, onLaid); }),
              "emptySamples(\"one-hertz.wav\")");
    EXPECT_GT(laid, 90u * kRate);
    EXPECT_LE(laid, 102u * kRate);
    EXPECT_LE(largestStep, 30u * kRate);
    const auto honest = MediaDecoder::decodeMixedMono(dir / "hundred-hertz.wav", kRate, {});
    EXPECT_NEAR(static_cast<double>(honest.size()), 100.0 * kRate, 0.01 * kRate);
}

TEST(AudioExtractor, NonFiniteSamplesAreReadAsZero) {
    // Noise at 48 kHz, so the damaged samples pass through the resampler's filter.
    const auto clean = noise(2 * 48000, 0.1f, 5);
    TestSupport::TempDir dir;
    const float bad[] = {std::numeric_limits<float>::quiet_NaN(),
                         std::numeric_limits<float>::infinity(),
                         -std::numeric_limits<float>::infinity()};
    auto damaged = clean, zeroed = clean;
    for (std::size_t i = 0; i < 3; ++i) {
        damaged[30000 + 1000 * i] = bad[i];
        zeroed[30000 + 1000 * i] = 0.0f;
    }
    writeWav(dir / "damaged.wav", damaged, 48000);
    writeWav(dir / "zeroed.wav", zeroed, 48000);
    const auto a = AudioExtractor::extract(dir / "damaged.wav", 0, {});
    const auto b = AudioExtractor::extract(dir / "zeroed.wav", 0, {});
    EXPECT_EQ(a.samples, b.samples);
    const auto bands = SpectralBands::compute(a.samples);
    for (std::size_t k = 0; k < bands.bandCount(); ++k) {
        EXPECT_TRUE(std::ranges::all_of(bands.band(k), [](float v) { return std::isfinite(v); }));
    }
}
