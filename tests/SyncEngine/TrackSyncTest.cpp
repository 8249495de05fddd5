#include "TessarinEngine/SyncEngine/Run.h"
#include "tests/SyncEngine/SyncFixtures.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

using namespace SyncEngine;
using namespace SyncFixtures;

namespace {

// A clip whose feature is frames [fromSec, fromSec + durSec) of the shoot's signal.
ClipItem cutClip(const std::vector<std::vector<float>>& signal, const std::string& name,
                 double fromSec, double durSec, unsigned seed) {
    auto clip = makeClip(name, durSec);
    clip.url.replace_extension(".mov");
    clip.bandFeature =
        cutFeature(signal, static_cast<int>(fromSec * 25), static_cast<int>(durSec * 25), seed);
    return clip;
}

} // namespace

TEST(TrackSync, HotSpotNeedsThreeSeedsOverLongFootageInANarrowStretch) {
    struct Case {
        const char* name;
        std::vector<double> durs;
        std::vector<double> seedPos;
        bool hot;
    };
    // Seeds on clips 0, 1 and 3: the footage between the first and last seed is the sum of the
    // durations of clips 0 to 2.
    const std::vector<Case> cases = {
        {"301 s of footage within 90 s", {100, 100, 101, 50}, {500, 550, 590}, true},
        {"301 s of footage within 91 s", {100, 100, 101, 50}, {500, 550, 591}, false},
        {"299 s of footage at one spot", {100, 100, 99, 50}, {500, 500, 500}, false},
        {"two seeds only", {300, 300, 300, 300}, {500, 500}, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<double> prefix{0};
        for (double d : c.durs) {
            prefix.push_back(prefix.back() + d);
        }
        std::map<int, Match> seeds;
        const int at[] = {0, 1, 3};
        for (std::size_t i = 0; i < c.seedPos.size(); ++i) {
            seeds[at[i]] = Match{c.seedPos[i], 9.0f};
        }
        EXPECT_EQ(findHotSpot(seeds, prefix).has_value(), c.hot);
    }
}

TEST(TrackSync, CameraClipsCutFromTheReferenceLandWhereTheyWereCut) {
    if (!signalCoreReady()) {
        GTEST_SKIP() << "the band search returns no peaks yet";
    }
    const auto signal = randomBands(25 * 400, 41);
    auto rec = makeRecorder("Rec", {});
    rec.clips.push_back(makeClip("Rec_0", 400));
    rec.clips[0].bandFeature = cutFeature(signal, 0, 25 * 400, 1);
    auto cam =
        makeTrack("Cam", SourceType::video,
                  {cutClip(signal, "Cam_0", 20, 60, 2), cutClip(signal, "Cam_1", 100, 30, 3),
                   cutClip(signal, "Cam_2", 150, 4, 4), cutClip(signal, "Cam_3", 200, 90, 5)});
    TestSupport::LogCapture log;
    const auto out = runEngine({cam, rec});
    const auto& clips = out[0].clips;
    const double expected[] = {20, 100, -1, 200};
    for (int i : {0, 1, 3}) {
        SCOPED_TRACE(i);
        EXPECT_NEAR(clips[i].startOffset, expected[i], 0.041);
        EXPECT_EQ(clips[i].syncStatus, SyncStatus::synced);
        EXPECT_EQ(clips[i].placementPass, "A1");
        ASSERT_TRUE(clips[i].matchScore.has_value());
        EXPECT_GE(*clips[i].matchScore, 7.0f);
    }
    // The 4 s clip is never compared: it is spread into the gap between its anchors.
    EXPECT_EQ(clips[2].placementPass, "interp");
    EXPECT_EQ(clips[2].syncStatus, SyncStatus::failed);
    EXPECT_NEAR(clips[2].startOffset, 130 + (70 - 4) / 2.0, 0.05);
    EXPECT_EQ(clips[2].placementNote, "between 'Cam_1' and 'Cam_3'");
    EXPECT_TRUE(log.contains("[SyncEngine]  track 'Cam': 3 anchors of 4 clips"));
}

TEST(TrackSync, RecorderFoundOutsideItsClockWindowOnlyByTheWholePoolProbe) {
    if (!signalCoreReady()) {
        GTEST_SKIP() << "the band search returns no peaks yet";
    }
    // A noted offset to the reference puts the recorder's one clip half an hour away from where
    // its sound lies, so Pass 1 searches the wrong stretch; the unbracketed probe finds and seeds
    // it.
    const auto signal = randomBands(25 * 300, 51);
    auto ref = makeRecorder("Ref", {});
    ref.clips.push_back(makeClip("Ref_0", 300));
    ref.clips[0].bandFeature = cutFeature(signal, 0, 25 * 300, 1);
    auto rec = makeRecorder("Rec", {});
    rec.clips.push_back(makeClip("Rec_0", 80));
    rec.textSyncOffsetByPeer["Ref"] = 2000;
    rec.clips[0].bandFeature = cutFeature(signal, 25 * 150, 25 * 80, 2);
    TestSupport::LogCapture log;
    const auto out = runEngine({ref, rec});
    const auto& clip = out[1].clips[0];
    EXPECT_NEAR(clip.startOffset, 150, 0.041);
    EXPECT_EQ(clip.placementPass, "A1w");
    EXPECT_EQ(clip.syncStatus, SyncStatus::synced);
    EXPECT_TRUE(log.contains("[SyncEngine]  track 'Rec': no Pass 1 anchor — seeded 1/1 from an "
                             "unbracketed whole-pool window probe"));
}

TEST(TrackSync, WholePoolProbeKeepsTheOrderOfTheStrongChainWithinThreeSeconds) {
    if (!signalCoreReady()) {
        GTEST_SKIP() << "the band search returns no peaks yet";
    }
    // A day-long reference; a recorder whose middle clip carries a clock 1000 s off, so that Pass 1
    // searches the wrong stretch for it. Its neighbours anchor at 0 (60 s long) and 90, which
    // closes its bracket at 60: only the whole-pool probe can place it.
    constexpr Date t0 = 1.7e9;
    const auto signal = randomBands(25 * 2700, 81);
    auto ref = makeRecorder("Day", {});
    ref.clips.push_back(makeClip("Day_0", 2700, t0));
    ref.clips[0].bandFeature = cutFeature(signal, 0, 25 * 2700, 1);
    struct Case {
        double truth;
        const char* line;
        std::optional<double> placedAt;
    };
    const std::vector<Case> cases = {
        {58, "[SyncEngine]  'Rec_1' found by whole-pool probe @ 60.0s", 60.0},
        {56, "[SyncEngine]  'Rec_1' whole-pool probe @ 56.0s", std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.truth);
        auto rec = makeRecorder("Rec", {});
        const double starts[] = {0, c.truth, 90};
        const double durs[] = {60, 30, 60};
        const double clockError[] = {0, 1000, 0};
        for (int i = 0; i < 3; ++i) {
            rec.clips.push_back(
                makeClip("Rec_" + std::to_string(i), durs[i], t0 + starts[i] + clockError[i]));
            rec.clips[i].bandFeature = cutFeature(signal, static_cast<int>(starts[i] * 25),
                                                  static_cast<int>(durs[i] * 25), 10 + i);
        }
        TestSupport::LogCapture log;
        const auto out = runEngine({ref, rec});
        EXPECT_TRUE(log.contains(c.line));
        EXPECT_NEAR(out[1].clips[0].startOffset, 0, 0.041);
        EXPECT_NEAR(out[1].clips[2].startOffset, 90, 0.041);
        if (c.placedAt) {
            EXPECT_EQ(out[1].clips[1].placementPass, "A4");
            EXPECT_NEAR(out[1].clips[1].startOffset, *c.placedAt, 1e-9);
        } else {
            EXPECT_TRUE(log.contains("— out of order with the strong chain (60…60), ignored"));
            EXPECT_NE(out[1].clips[1].placementPass, "A4");
        }
    }
}
