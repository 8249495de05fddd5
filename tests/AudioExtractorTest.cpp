#include "TessarinEngine/AudioExtractor.h"

#include "TessarinEngine/platform/MediaDecoder.h"
#include "tests/support/MediaFixtures.h"
#include "tests/support/TestSupport.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <sys/stat.h>

using namespace MediaFixtures;
using Kind = TessarinError::Kind;

namespace {

constexpr int kRate = 16000;

// The error extract throws, or nothing when it succeeds.
std::optional<TessarinError> extractError(const std::filesystem::path& file) {
    try {
        AudioExtractor::extract(file, 0, {});
    } catch (const TessarinError& e) {
        return e;
    }
    return std::nullopt;
}

float peakOf(const std::vector<float>& samples) {
    float peak = 0;
    for (float v : samples) {
        peak = std::max(peak, std::fabs(v));
    }
    return peak;
}

// Overwrites the 32-bit big-endian size of the first box of type `type` at the top level.
void claimBoxSize(std::vector<std::uint8_t>& bytes, const std::string& type, std::uint32_t size) {
    std::size_t at = 0;
    while (at + 8 <= bytes.size()) {
        std::uint32_t boxSize = (std::uint32_t(bytes[at]) << 24) | (bytes[at + 1] << 16) |
                                (bytes[at + 2] << 8) | bytes[at + 3];
        if (std::string(bytes.begin() + at + 4, bytes.begin() + at + 8) == type) {
            for (int i = 0; i < 4; ++i) {
                bytes[at + i] = static_cast<std::uint8_t>(size >> (24 - 8 * i));
            }
            return;
        }
        if (boxSize < 8) {
            break;
        }
        at += boxSize;
    }
    FAIL() << "no " << type << " box";
}

} // namespace

TEST(AudioExtractor, BadInputsFailWithTheirOwnErrorAndNeverHang) {
    TestSupport::TempDir dir;
    runFfmpeg({"-f", "lavfi", "-i", "testsrc=size=64x48:rate=10:duration=1", "-c:v", "mpeg4",
               (dir / "picture.mp4").string()});
    ASSERT_EQ(::mkfifo((dir / "pipe.wav").c_str(), 0600), 0);
    writeBytes(dir / "empty.mov", {});
    writeWav(dir / "no-data.wav", std::vector<float>{}, {});

    // A recording cut short by a dead battery: with the index at the end, the index is missing;
    // with it in front, the last packet is torn.
    auto tone = lavfiAudio("0.5*sin(2*PI*440*t)", 48000, 4);
    std::vector<std::string> indexAtEnd = tone, indexInFront = tone;
    indexAtEnd.insert(indexAtEnd.end(), {"-c:a", "aac", (dir / "whole.mp4").string()});
    indexInFront.insert(indexInFront.end(),
                        {"-c:a", "aac", "-movflags", "+faststart", (dir / "front.mp4").string()});
    runFfmpeg(indexAtEnd);
    runFfmpeg(indexInFront);
    for (const std::string name : {"whole", "front"}) {
        auto bytes = readBytes(dir / (name + ".mp4"));
        bytes.resize(bytes.size() / 2);
        writeBytes(dir / (name + "-cut.mp4"), bytes);
    }

    struct Case {
        std::string file;
        Kind kind;
        std::string payload;
    };
    const std::vector<Case> cases = {
        {"missing.mp4", Kind::readerStartFailed, "No such file or directory"},
        {"pipe.wav", Kind::readerStartFailed, "not a regular file"},
        {"empty.mov", Kind::readerStartFailed, "Invalid data found when processing input"},
        {"whole-cut.mp4", Kind::readerStartFailed, "Invalid data found when processing input"},
        {"front-cut.mp4", Kind::emptySamples, "front-cut.mp4"},
        {"no-data.wav", Kind::emptySamples, "no-data.wav"},
        {"picture.mp4", Kind::noAudioTrack, "picture.mp4"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        auto error = extractError(dir / c.file);
        ASSERT_TRUE(error.has_value());
        EXPECT_EQ(error->kind(), c.kind);
        EXPECT_EQ(error->payload(), c.payload);
    }
}

TEST(AudioExtractor, HeadersThatOverstateSizesYieldTheSamplesThatAreThere) {
    TestSupport::TempDir dir;
    const auto tone = sine(440, 0.5f, 1.5, kRate);
    WavOptions lying;
    lying.claimedRiffBytes = 0xFFFFFFF0u;
    lying.claimedDataBytes = 0x7FFFFFF0u;
    writeWav(dir / "lying.wav", tone, lying);

    auto args = lavfiAudio("0.5*sin(2*PI*440*t)", 16000, 1.5);
    args.insert(args.end(),
                {"-c:a", "pcm_s16le", "-movflags", "+faststart", (dir / "fine.mov").string()});
    runFfmpeg(args);
    auto mov = readBytes(dir / "fine.mov");
    claimBoxSize(mov, "mdat", 0x7FFFFFF0u);
    writeBytes(dir / "long-mdat.mov", mov);

    // An index box that claims to run past the end of the file: its children are all there.
    auto longIndex = readBytes(dir / "fine.mov");
    claimBoxSize(longIndex, "moov", 0x7FFFFFF0u);
    writeBytes(dir / "long-moov.mov", longIndex);

    for (const std::string file : {"lying.wav", "long-mdat.mov", "long-moov.mov"}) {
        SCOPED_TRACE(file);
        auto audio = AudioExtractor::extract(dir / file, 0, {});
        EXPECT_EQ(audio.samples.size(), tone.size());
        EXPECT_DOUBLE_EQ(audio.duration, 1.5);
    }
}

TEST(AudioExtractor, SilenceIsJudgedOnThePeakOfTheChannelMean) {
    TestSupport::TempDir dir;
    WavOptions floatMono;
    floatMono.format = WavSampleFormat::float32;
    WavOptions stereo;
    stereo.channels = 2;

    const auto tone = sine(300, 0.5f, 1.0, kRate);
    std::vector<float> opposite; // left and right cancel in their mean
    for (float v : tone) {
        opposite.push_back(v);
        opposite.push_back(-v);
    }
    struct Case {
        std::string name;
        std::vector<float> samples;
        WavOptions options;
        bool silent;
    };
    const std::vector<Case> cases = {
        {"at-threshold.wav", std::vector<float>(kRate, 0.001f), floatMono, true},
        {"above-threshold.wav", std::vector<float>(kRate, 0.0011f), floatMono, false},
        {"opposite-channels.wav", opposite, stereo, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        writeWav(dir / c.name, c.samples, c.options);
        auto error = extractError(dir / c.name);
        if (c.silent) {
            ASSERT_TRUE(error.has_value());
            EXPECT_EQ(error->caseText(), "silentAudio(\"" + c.name + "\")");
        } else {
            EXPECT_FALSE(error.has_value()) << error->caseText();
        }
    }
}

TEST(AudioExtractor, EveryStreamIsLaidByItsStartAndAveragedWhereStreamsOverlap) {
    TestSupport::TempDir dir;
    // Stream 1 plays 0-2 s, stream 2 plays 1-3 s; each a full-scale-0.5 tone of its own pitch.
    auto args = lavfiAudio("0.5*sin(2*PI*440*t)", 48000, 2);
    args.push_back("-itsoffset");
    args.push_back("1");
    auto second = lavfiAudio("0.5*sin(2*PI*1000*t)", 48000, 2);
    args.insert(args.end(), second.begin(), second.end());
    args.insert(args.end(),
                {"-map", "0:a", "-map", "1:a", "-c:a", "pcm_s16le", (dir / "two.mov").string()});
    runFfmpeg(args);

    auto mix = MediaDecoder::decodeMixedMono(dir / "two.mov", kRate, {});
    ASSERT_NEAR(static_cast<double>(mix.size()), 3.0 * kRate, 2);
    const double alone = 0.5 / std::sqrt(2.0);
    // Two unrelated tones of RMS 0.354 summed and halved: sqrt(2 * 0.125) / 2.
    const double together = 0.25;
    const std::size_t guard = kRate / 20;
    EXPECT_NEAR(rms(mix, guard, kRate - guard), alone, 0.005);
    EXPECT_NEAR(rms(mix, kRate + guard, 2 * kRate - guard), together, 0.005);
    EXPECT_NEAR(rms(mix, 2 * kRate + guard, mix.size() - guard), alone, 0.005);
}

TEST(AudioExtractor, SceneAudioOnlyOnTheSecondTrackStillComesThrough) {
    TestSupport::TempDir dir;
    auto args = lavfiAudio("0", 48000, 2);
    auto scene = lavfiAudio("0.3*sin(2*PI*500*t)|0.3*sin(2*PI*500*t)", 48000, 2);
    args.insert(args.end(), scene.begin(), scene.end());
    args.insert(args.end(), {"-map", "0:a", "-map", "1:a", "-c:a", "aac", "-b:a", "96k",
                             (dir / "camera.mp4").string()});
    runFfmpeg(args);

    auto audio = AudioExtractor::extract(dir / "camera.mp4", 2.0, {});
    EXPECT_NEAR(audio.duration, 2.0, 0.05);
    // The middle second is the 500 Hz tone: 500 upward zero crossings, at a level near the
    // levelled peak of 0.5.
    int upward = 0;
    for (std::size_t i = kRate / 2; i < 3 * kRate / 2; ++i) {
        upward += audio.samples[i - 1] < 0 && audio.samples[i] >= 0;
    }
    EXPECT_NEAR(upward, 500, 2);
    EXPECT_GT(rms(audio.samples, kRate / 2, 3 * kRate / 2), 0.25);
}

TEST(AudioExtractor, ChannelsFoldToTheirMeanAndTimingSurvivesResampling) {
    TestSupport::TempDir dir;
    // A click at 1.5 s in the left channel only, of a 3 s 48 kHz file.
    std::vector<float> stereo(2 * 3 * 48000, 0.0f);
    stereo[2 * 72000] = 0.8f;
    WavOptions options;
    options.rateHz = 48000;
    options.channels = 2;
    options.format = WavSampleFormat::float32;
    writeWav(dir / "click.wav", stereo, options);

    auto mix = MediaDecoder::decodeMixedMono(dir / "click.wav", kRate, {});
    ASSERT_NEAR(static_cast<double>(mix.size()), 3.0 * kRate, 2);
    auto at = std::max_element(mix.begin(), mix.end(),
                               [](float a, float b) { return std::fabs(a) < std::fabs(b); });
    EXPECT_NEAR(static_cast<double>(at - mix.begin()), 1.5 * kRate, 1);

    // A steady left-only tone comes out at half its level.
    std::vector<float> leftOnly;
    for (float v : sine(200, 0.6f, 1.0, 48000)) {
        leftOnly.push_back(v);
        leftOnly.push_back(0);
    }
    writeWav(dir / "left.wav", leftOnly, options);
    auto folded = MediaDecoder::decodeMixedMono(dir / "left.wav", kRate, {});
    EXPECT_NEAR(rms(folded, 800, folded.size() - 800), 0.3 / std::sqrt(2.0), 0.003);
}

TEST(AudioExtractor, ProgressMovesInHundredthsAgainstTheExpectedDuration) {
    TestSupport::TempDir dir;
    writeWav(dir / "tone.wav", sine(440, 0.5f, 4.0, 48000),
             {48000, 1, WavSampleFormat::pcm16, {}, {}});

    struct Case {
        double expectedSeconds;
        double lastAtLeast;
        double lastAtMost;
    };
    for (const auto& c : {Case{4.0, 0.99, 1.0}, Case{8.0, 0.49, 0.5}, Case{1.0, 1.0, 1.0}}) {
        SCOPED_TRACE(c.expectedSeconds);
        std::vector<double> reported;
        AudioExtractor::extract(dir / "tone.wav", c.expectedSeconds,
                                [&](double f) { reported.push_back(f); });
        ASSERT_FALSE(reported.empty());
        EXPECT_GE(reported.front(), 0.01);
        for (std::size_t i = 1; i < reported.size(); ++i) {
            EXPECT_GE(reported[i] - reported[i - 1], 0.01);
        }
        EXPECT_GE(reported.back(), c.lastAtLeast);
        EXPECT_LE(reported.back(), c.lastAtMost);
    }

    int calls = 0;
    AudioExtractor::extract(dir / "tone.wav", 0, [&](double) { ++calls; });
    EXPECT_EQ(calls, 0);
}

TEST(AudioExtractor, BRAWFilesTakeTheirOwnReader) {
    if (BRAWAudio::isAvailable()) {
        GTEST_SKIP() << "the Blackmagic RAW library is installed here";
    }
    TestSupport::TempDir dir;
    // A playable WAV renamed: the extension alone must send it to the Blackmagic RAW reader.
    writeWav(dir / "A001.BRAW", sine(440, 0.5f, 1.0, kRate), {});
    auto error = extractError(dir / "A001.BRAW");
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->caseText(),
              "readFailed(\"Blackmagic RAW framework not found on this machine\")");
}

TEST(AudioExtractor, RealRecordingsDecodeToTheirFullLength) {
    const std::filesystem::path folder = TESSARIN_REALDATA_DIR;
    if (!std::filesystem::is_directory(folder)) {
        GTEST_SKIP() << "no real recordings at " << folder;
    }
    for (const std::string file : {"avbs_full-44100Hz-stereo.mp4", "bbc_timbl_2.mp3",
                                   "faa_multi_mic1_main.flac", "shign_example2_audioB.wav"}) {
        SCOPED_TRACE(file);
        auto probe =
            TestSupport::runProcess({"ffprobe", "-v", "error", "-show_entries", "format=duration",
                                     "-of", "csv=p=0", (folder / file).string()});
        ASSERT_EQ(probe.exitCode, 0);
        auto audio = AudioExtractor::extract(folder / file, 0, {});
        EXPECT_NEAR(audio.duration, std::stod(probe.out), 0.1);
        EXPECT_FLOAT_EQ(peakOf(audio.samples), 0.5f);
    }
}

// levelAudio at 10 samples per second has blocks of 4 samples; a block of one constant value has
// that value's magnitude as RMS, and sample 4b+2 sits at the centre of block b, where the gain is
// exactly block b's smoothed gain.
namespace {

std::vector<float> blocksOf(const std::vector<float>& values, std::size_t trailing = 0) {
    std::vector<float> out;
    for (float v : values) {
        out.insert(out.end(), 4, v);
    }
    out.insert(out.end(), trailing, values.back());
    return out;
}

// Each centre's gain relative to block 0's.
std::vector<double> centreGains(const std::vector<float>& before, const std::vector<float>& after,
                                std::size_t nBlocks) {
    std::vector<double> gains;
    const double first = static_cast<double>(after[2]) / before[2];
    for (std::size_t b = 0; b < nBlocks; ++b) {
        gains.push_back(static_cast<double>(after[4 * b + 2]) / before[4 * b + 2] / first);
    }
    return gains;
}

} // namespace

TEST(AudioExtractor, LevellingPullsBlocksTowardsTheMedianWithinItsLimits) {
    struct Case {
        std::string name;
        std::vector<float> blocks;
        // Unsmoothed gains worked out by hand, then the five-block means.
        std::vector<double> smoothed;
    };
    const std::vector<Case> cases = {
        // Median 0.1; the quiet block's 10x is held to 8: raw 1 1 1 8 1 1 1.
        {"ten times quieter",
         {0.1f, 0.1f, 0.1f, 0.01f, 0.1f, 0.1f, 0.1f},
         {1, 11.0 / 4, 12.0 / 5, 12.0 / 5, 12.0 / 5, 11.0 / 4, 1}},
        // Median 0.1; the loud block's 0.2 is held to 0.25: raw 1 1 1 0.25 1 1 1.
        {"five times louder",
         {0.1f, 0.1f, 0.1f, -0.5f, 0.1f, 0.1f, 0.1f},
         {1, 3.25 / 4, 4.25 / 5, 4.25 / 5, 4.25 / 5, 3.25 / 4, 1}},
        // Even count: the median is the upper middle value 0.4, the floor 0.02 (5% of it) is
        // above the quietest block, whose gain is the floor gain 20 held to 8: raw 8 4 1 0.5.
        {"even count", {0.01f, 0.1f, 0.4f, 0.8f}, {13.0 / 3, 13.5 / 4, 13.5 / 4, 5.5 / 3}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto before = blocksOf(c.blocks);
        auto after = before;
        AudioExtractor::levelAudio(after, 10.0);
        const auto gains = centreGains(before, after, c.blocks.size());
        for (std::size_t b = 0; b < c.blocks.size(); ++b) {
            EXPECT_NEAR(gains[b], c.smoothed[b] / c.smoothed[0], 1e-5) << "block " << b;
        }
        EXPECT_FLOAT_EQ(peakOf(after), 0.5f);
    }
}

TEST(AudioExtractor, LevellingInterpolatesBetweenCentresAndHoldsAtTheEnds) {
    // Raw gains 1 1 1 8 1 1 1 as in the ten-times case; three trailing samples past the blocks.
    const std::vector<float> blocks = {0.1f, 0.1f, 0.1f, 0.01f, 0.1f, 0.1f, 0.1f};
    const std::vector<double> smooth = {1, 11.0 / 4, 12.0 / 5, 12.0 / 5, 12.0 / 5, 11.0 / 4, 1};
    const auto before = blocksOf(blocks, 3);
    auto after = before;
    AudioExtractor::levelAudio(after, 10.0);
    const double unit = static_cast<double>(after[2]) / before[2];
    auto gainAt = [&](std::size_t s) {
        return static_cast<double>(after[s]) / before[s] / unit;
    };

    EXPECT_NEAR(gainAt(0), smooth[0], 1e-5);                           // before the first centre
    EXPECT_NEAR(gainAt(3), 0.75 * smooth[0] + 0.25 * smooth[1], 1e-5); // a quarter on
    EXPECT_NEAR(gainAt(4), 0.5 * smooth[0] + 0.5 * smooth[1], 1e-5);   // half way
    for (std::size_t s = 26; s < after.size(); ++s) {                  // after the last centre
        EXPECT_NEAR(gainAt(s), smooth[6], 1e-5) << "sample " << s;
    }
}

TEST(AudioExtractor, LevellingOfShortOrNearSilentInput) {
    // Shorter than two blocks: only scaled to a peak of 0.5.
    std::vector<float> shortInput = {0.1f, -0.2f, 0.05f, 0.2f, 0.1f, 0.0f, -0.1f};
    AudioExtractor::levelAudio(shortInput, 10.0);
    const std::vector<float> expected = {0.25f, -0.5f, 0.125f, 0.5f, 0.25f, 0.0f, -0.25f};
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_FLOAT_EQ(shortInput[i], expected[i]) << i;
    }

    // Three 0.4 s blocks at 16 kHz, each with one spike of 0.002: block RMS 0.002 / 80 is below
    // the audible limit, so nothing changes, not even the peak.
    std::vector<float> sparse(3 * 6400, 0.0f);
    for (std::size_t b = 0; b < 3; ++b) {
        sparse[b * 6400 + 100] = 0.002f;
    }
    auto levelled = sparse;
    AudioExtractor::levelAudio(levelled, 16000.0);
    EXPECT_EQ(levelled, sparse);

    std::vector<float> none;
    AudioExtractor::levelAudio(none, 16000.0);
    EXPECT_TRUE(none.empty());
}

TEST(AudioExtractor, ResamplingKeepsPitchLengthAndTime) {
    const auto tone = sine(1000, 0.5f, 1.0, 48000);
    EXPECT_EQ(AudioExtractor::resampleMono(tone, 48000.0, 48000.4), tone);

    auto down = AudioExtractor::resampleMono(tone, 48000.0, 16000.0);
    EXPECT_NEAR(static_cast<double>(down.size()), 16000.0, 2);
    // 1000 Hz crosses zero upwards 1000 times a second, whatever the rate.
    int upward = 0;
    for (std::size_t i = 1; i < down.size(); ++i) {
        upward += down[i - 1] < 0 && down[i] >= 0;
    }
    EXPECT_NEAR(upward, 1000, 1);
    EXPECT_NEAR(rms(down, 100, down.size() - 100), 0.5 / std::sqrt(2.0), 0.005);

    std::vector<float> impulse(44100, 0.0f);
    impulse[22050] = 1.0f;
    auto moved = AudioExtractor::resampleMono(impulse, 44100.0, 16000.0);
    auto at = std::max_element(moved.begin(), moved.end());
    EXPECT_NEAR(static_cast<double>(at - moved.begin()), 8000.0, 1);

    EXPECT_THROW(AudioExtractor::resampleMono(tone, 48000.0, -16000.0), TessarinError);
}

TEST(AudioExtractor, EveryResamplerOptionIsPinned) {
    EXPECT_EQ(MediaDecoder::unpinnedResamplerOptions(), std::vector<std::string>{});
}

namespace {

BRAWAudio::Result brawStereo(const std::vector<float>& left, const std::vector<float>& right) {
    BRAWAudio::Result result;
    result.sampleRate = 48000;
    result.channelCount = 2;
    result.frameCount = left.size();
    for (std::size_t i = 0; i < left.size(); ++i) {
        result.interleaved.push_back(left[i]);
        result.interleaved.push_back(right[i]);
    }
    return result;
}

std::optional<TessarinError> brawError(const BRAWAudio::Result& result) {
    try {
        AudioExtractor::extractFromBRAWResult(result, "A001.braw", {});
    } catch (const TessarinError& e) {
        return e;
    }
    return std::nullopt;
}

} // namespace

TEST(AudioExtractor, BRAWAudioIsFoldedResampledAndLevelled) {
    const auto tone = sine(1000, 0.4f, 1.0, 48000);
    std::vector<double> progress;
    auto audio = AudioExtractor::extractFromBRAWResult(brawStereo(tone, tone), "A001.braw",
                                                       [&](double f) { progress.push_back(f); });
    EXPECT_EQ(progress, std::vector<double>{0.9});
    EXPECT_NEAR(static_cast<double>(audio.samples.size()), 16000.0, 2);
    EXPECT_DOUBLE_EQ(audio.duration, static_cast<double>(audio.samples.size()) / 16000.0);
    EXPECT_FLOAT_EQ(peakOf(audio.samples), 0.5f);

    // Three channels that sum to zero are silent once folded to their mean.
    BRAWAudio::Result three;
    three.sampleRate = 48000;
    three.channelCount = 3;
    three.frameCount = tone.size();
    for (float v : tone) {
        three.interleaved.insert(three.interleaved.end(), {v, -0.5f * v, -0.5f * v});
    }
    auto error = brawError(three);
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->caseText(), "silentAudio(\"A001.braw\")");

    // A lone spike of 0.0012 at 48 kHz is above the silence limit, but the 16 kHz signal that
    // matching sees keeps only about a third of it.
    std::vector<float> spike(48000, 0.0f);
    spike[24000] = 0.0012f;
    error = brawError(brawStereo(spike, spike));
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->kind(), Kind::silentAudio);
}

TEST(AudioExtractor, BRAWResultsWithoutUsableAudioAreNoAudioTrack) {
    const auto tone = sine(1000, 0.4f, 0.5, 48000);
    auto noFrames = brawStereo(tone, tone);
    noFrames.frameCount = 0;
    auto noChannels = brawStereo(tone, tone);
    noChannels.channelCount = 0;
    auto noRate = brawStereo(tone, tone);
    noRate.sampleRate = 0;
    auto shortData = brawStereo(tone, tone);
    shortData.interleaved.pop_back();
    for (const auto& result : {noFrames, noChannels, noRate, shortData}) {
        auto error = brawError(result);
        ASSERT_TRUE(error.has_value());
        EXPECT_EQ(error->caseText(), "noAudioTrack(\"A001.braw\")");
    }
}
