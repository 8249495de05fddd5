#include "TessarinEngine/BRAWAudio.h"

#include "tests/support/MediaFixtures.h"
#include "tests/support/TestSupport.h"

#include <cstring>
#include <gtest/gtest.h>
#include <utility>

using namespace BRAWAudio;
namespace fs = std::filesystem;

namespace {

struct Call {
    std::uint64_t position;
    std::uint32_t maxFrames;
    bool operator==(const Call&) const = default;
};

// A stereo 16-bit clip of `frames` frames whose left sample of frame f is f % 1000 and whose right
// one is its negative, recording every read it is asked for. `answer` may shorten or fail a read
// (by call number); by default every read is served in full.
AudioSource fakeClip(
    std::uint64_t frames, std::vector<Call>& calls,
    std::function<std::optional<std::size_t>(std::size_t call, std::size_t full)> answer = {}) {
    auto read = [&calls, answer](std::uint64_t position, std::uint32_t maxFrames,
                                 std::span<std::uint8_t> buffer) {
        calls.push_back({position, maxFrames});
        const std::size_t full = std::size_t(maxFrames) * 4;
        std::optional<std::size_t> bytes = answer ? answer(calls.size(), full) : full;
        if (!bytes || *bytes > buffer.size()) {
            return bytes;
        }
        for (std::size_t f = 0; f < maxFrames; ++f) {
            auto left = static_cast<std::int16_t>((position + f) % 1000);
            auto right = static_cast<std::int16_t>(-left);
            std::memcpy(&buffer[4 * f], &left, 2);
            std::memcpy(&buffer[4 * f + 2], &right, 2);
        }
        return bytes;
    };
    return {kFormatPcmLittleEndian, 16, 2, 48000, frames, read};
}

Result readOk(const AudioSource& source, const std::function<void(double)>& progress = {}) {
    return std::get<Result>(readClipAudio({}, source, false, progress));
}

} // namespace

TEST(BRAWAudio, PcmBecomesFloatWithTheMostNegativeValueAtMinusOne) {
    struct Case {
        unsigned bits;
        std::vector<std::uint8_t> bytes;
        std::vector<float> expected;
    };
    const std::vector<Case> cases = {
        {16,
         {0x00, 0x80, 0xFF, 0x7F, 0x00, 0x40, 0x01, 0x00, 0xFF, 0xFF, 0x12},
         {-1.0f, 32767.0f / 32768, 0.5f, 1.0f / 32768, -1.0f / 32768}},
        {24,
         {0x00, 0x00, 0x80, 0x00, 0x00, 0x40, 0xFF, 0xFF, 0xFF, 0x01, 0x00, 0x00},
         {-1.0f, 0.5f, -1.0f / 8388608, 1.0f / 8388608}},
        {32,
         {0x00, 0x00, 0x00, 0x80, 0x00, 0x00, 0x00, 0x40, 0x00, 0x00, 0x00, 0xC0},
         {-1.0f, 0.5f, -0.5f}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.bits);
        std::vector<float> out = {7.0f}; // appended to, not replaced
        appendPcmAsFloat(c.bytes, c.bits, out);
        ASSERT_EQ(out.size(), c.expected.size() + 1);
        EXPECT_EQ(out[0], 7.0f);
        for (std::size_t i = 0; i < c.expected.size(); ++i) {
            EXPECT_FLOAT_EQ(out[i + 1], c.expected[i]) << "sample " << i;
        }
    }
}

TEST(BRAWAudio, ReadsInRunsOf48000FramesAndReportsProgress) {
    std::vector<Call> calls;
    std::vector<double> progress;
    auto result = readOk(fakeClip(100000, calls), [&](double f) { progress.push_back(f); });

    EXPECT_EQ(calls, (std::vector<Call>{{0, 48000}, {48000, 48000}, {96000, 4000}}));
    EXPECT_EQ(progress, (std::vector<double>{0.48, 0.96, 1.0}));
    EXPECT_EQ(result.frameCount, 100000u);
    ASSERT_EQ(result.interleaved.size(), 200000u);
    // Frame 99999 has left 999 and right -999, in that order.
    EXPECT_FLOAT_EQ(result.interleaved[199998], 999.0f / 32768);
    EXPECT_FLOAT_EQ(result.interleaved[199999], -999.0f / 32768);
}

TEST(BRAWAudio, AShortOrFailedReadKeepsWhatWasRead) {
    std::vector<Call> calls;
    auto result = readOk(fakeClip(100000, calls, [](std::size_t call, std::size_t full) {
        return call == 2 ? std::nullopt : std::optional(full);
    }));
    EXPECT_EQ(calls, (std::vector<Call>{{0, 48000}, {48000, 48000}}));
    EXPECT_EQ(result.frameCount, 48000u);
    EXPECT_EQ(result.interleaved.size(), 96000u);

    // Half of each request: reading goes on from where the last read ended, until half of a
    // one-frame request is less than a frame (19 reads in all).
    calls.clear();
    result = readOk(fakeClip(
        100000, calls, [](std::size_t, std::size_t full) { return std::optional(full / 2); }));
    ASSERT_EQ(calls.size(), 19u);
    EXPECT_EQ(std::vector<Call>(calls.begin(), calls.begin() + 4),
              (std::vector<Call>{{0, 48000}, {24000, 48000}, {48000, 48000}, {72000, 28000}}));
    EXPECT_EQ(result.frameCount, 99999u);
    EXPECT_EQ(result.interleaved.size(), 2 * 99999u);
}

TEST(BRAWAudio, ClipsWithoutUsableAudio) {
    std::vector<Call> calls;
    Result facts;
    facts.frameRate = 25;
    facts.pictureFrames = 50;
    // No audio side, or one that reports no channels: success without samples.
    AudioSource noChannels = fakeClip(100000, calls);
    noChannels.channelCount = 0;
    for (const auto& source : {std::optional<AudioSource>{}, std::optional(noChannels)}) {
        const auto result = std::get<Result>(readClipAudio(facts, source, false, {}));
        EXPECT_TRUE(result.interleaved.empty());
        EXPECT_EQ(result.channelCount, 0u);
        EXPECT_DOUBLE_EQ(result.pictureDuration(), 2.0);
    }
    // A probe gives the shape and reads nothing.
    const auto probed = std::get<Result>(readClipAudio(facts, fakeClip(100000, calls), true, {}));
    EXPECT_EQ(probed.frameCount, 100000u);
    EXPECT_EQ(probed.channelCount, 2u);
    // Only little-endian PCM of 16, 24 or 32 bits is read.
    AudioSource eightBit = fakeClip(100000, calls);
    eightBit.bitDepth = 8;
    AudioSource bigEndian = fakeClip(100000, calls);
    bigEndian.format = 0x70636D62; // 'pcmb'
    EXPECT_EQ(std::get<Error>(readClipAudio(facts, eightBit, false, {})),
              (Error{4, "Blackmagic RAW: unsupported audio format (8-bit)"}));
    EXPECT_EQ(std::get<Error>(readClipAudio(facts, bigEndian, false, {})).code, 4);
    EXPECT_TRUE(calls.empty());
}

TEST(BRAWAudio, LoaderTakesTheFirstCandidateThatExistsAndSaysWhatBecameOfIt) {
    TestSupport::TempDir dir;
    for (const auto& [name, source] :
         {std::pair{"libentry.so", TestSupport::kStandInRawFactory},
          std::pair{"libother.so", "int somethingElse(void) { return 1; }\n"}}) {
        const auto cc = TestSupport::buildSharedLibrary(dir / name, source);
        if (cc.exitCode != 0) {
            GTEST_SKIP() << "no C compiler to build a stand-in library: " << cc.err;
        }
    }
    MediaFixtures::writeBytes(dir / "garbage.so", MediaFixtures::randomBytes(4096, 3));

    const auto missing = dir / "missing.so", entry = dir / "libentry.so";
    const std::string notLoaded = "Blackmagic RAW framework found but could not be loaded";
    const std::pair<std::vector<fs::path>, std::string> cases[] = {
        // A factory alone reads no clip: without the clip interfaces nothing is claimed.
        {{missing, entry, dir / "libother.so"},
         "Blackmagic RAW SDK found at " + entry.string() +
             ", but this build cannot read its clips"},
        // A library without the entry point, and a file that is no library, end the search.
        {{missing, dir / "libother.so", entry}, notLoaded},
        {{missing, dir / "garbage.so", entry}, notLoaded},
        {{missing}, "Blackmagic RAW framework not found on this machine"},
    };
    for (const auto& [candidates, note] : cases) {
        SCOPED_TRACE(note);
        EXPECT_EQ(availabilityNote(loadLibrary(candidates)), note);
    }
    // The factory is what the entry point returns.
    const auto load = loadLibrary({entry});
    ASSERT_NE(load.factory, nullptr);
    EXPECT_EQ(*static_cast<int*>(load.factory), 42);
}
