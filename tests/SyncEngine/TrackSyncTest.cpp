#include "tests/SyncEngine/SyncFixtures.h"

#include <gtest/gtest.h>

using namespace SyncEngine;
using namespace SyncFixtures;

TEST(TrackSync, HotSpotNeedsThreeSeedsOverLongFootageInANarrowStretch) {
    // Seeds on clips 0, 1 and 3: the footage between the first and last seed is the sum of the
    // durations of clips 0 to 2.
    using V = std::vector<double>;
    const std::tuple<const char*, V, V, bool> cases[] = {
        {"301 s of footage within 90 s", {100, 100, 101, 50}, {500, 550, 590}, true},
        {"301 s of footage within 91 s", {100, 100, 101, 50}, {500, 550, 591}, false},
        {"299 s of footage at one spot", {100, 100, 99, 50}, {500, 500, 500}, false},
        {"two seeds only", {300, 300, 300, 300}, {500, 500}, false},
    };
    for (const auto& [name, durs, seedPos, hot] : cases) {
        std::vector<double> prefix{0};
        for (double d : durs) {
            prefix.push_back(prefix.back() + d);
        }
        std::map<int, Match> seeds;
        const int at[] = {0, 1, 3};
        for (std::size_t i = 0; i < seedPos.size(); ++i) {
            seeds[at[i]] = Match{seedPos[i], 9.0f, std::nullopt};
        }
        EXPECT_EQ(findHotSpot(seeds, prefix).has_value(), hot) << name;
    }
}

TEST(TrackSync, CameraClipsCutFromTheReferenceLandWhereTheyWereCut) {
    const auto signal = randomBands(25 * 400, 41);
    const auto cam = videoTrack(
        "Cam", {heardClip(signal, "Cam_0", 20, 60, 2), heardClip(signal, "Cam_1", 100, 20, 3),
                heardClip(signal, "Cam_2", 150, 4, 4), heardClip(signal, "Cam_3", 200, 90, 5)});
    TestSupport::LogCapture log;
    const auto out = runEngine({cam, audioTrack("Rec", {heardClip(signal, "Rec_0", 0, 400, 1)})});
    const auto& clips = out[0].clips;
    for (const auto& [i, at] : {std::pair{0, 20.0}, std::pair{1, 100.0}, std::pair{3, 200.0}}) {
        EXPECT_NEAR(clips[i].startOffset, at, 0.041) << i;
        EXPECT_EQ(clips[i].placementPass, "A1") << i;
    }
    // The 20 s clip is matched whole, the 4 s clip never compared: it is spread into the gap
    // between its anchors.
    EXPECT_EQ(clips[2].placementPass, "interp");
    EXPECT_EQ(clips[2].syncStatus, SyncStatus::failed);
    EXPECT_NEAR(clips[2].startOffset, 120 + (80 - 4) / 2.0, 0.05);
}

TEST(TrackSync, RecorderFoundOutsideItsClockWindowOnlyByTheWholePoolProbe) {
    // A noted offset to the reference puts the recorder's one clip half an hour away from where
    // its sound lies, so Pass 1 searches the wrong stretch; the unbracketed probe finds and seeds
    // it.
    const auto signal = randomBands(25 * 300, 51);
    auto rec = audioTrack("Rec", {heardClip(signal, "Rec_0", 150, 80, 2)});
    rec.textSyncOffsetByPeer["Ref"] = 2000;
    TestSupport::LogCapture log;
    const auto out = runEngine({audioTrack("Ref", {heardClip(signal, "Ref_0", 0, 300, 1)}), rec});
    const auto& clip = out[1].clips[0];
    EXPECT_NEAR(clip.startOffset, 150, 0.041);
    EXPECT_EQ(clip.placementPass, "A1w");
}

TEST(TrackSync, WholePoolProbeKeepsTheOrderOfTheStrongChainWithinThreeSeconds) {
    // A day-long reference; a recorder whose middle clip carries a clock 1000 s off, so that Pass 1
    // searches the wrong stretch for it. Its neighbours anchor at 0 (60 s long) and 90, which
    // closes its bracket at 60: only the whole-pool probe can place it.
    constexpr Date t0 = 1.7e9;
    const auto signal = randomBands(25 * 2700, 81);
    const auto ref = audioTrack("Day", {heardClip(signal, "Day_0", 0, 2700, 1, t0)});
    // Where the clip truly began, what is logged, where it is placed.
    const std::tuple<double, const char*, std::optional<double>> cases[] = {
        {58, "[SyncEngine]  'Rec_1' found by whole-pool probe @ 60.0s", 60.0},
        {56, "[SyncEngine]  'Rec_1' whole-pool probe @ 56.0s", std::nullopt},
    };
    for (const auto& [truth, line, placedAt] : cases) {
        SCOPED_TRACE(truth);
        const auto rec =
            audioTrack("Rec", {heardClip(signal, "Rec_0", 0, 60, 10, t0),
                               heardClip(signal, "Rec_1", truth, 30, 11, t0 + truth + 1000),
                               heardClip(signal, "Rec_2", 90, 60, 12, t0 + 90)});
        TestSupport::LogCapture log;
        const auto out = runEngine({ref, rec});
        EXPECT_TRUE(log.contains(line));
        EXPECT_NEAR(out[1].clips[0].startOffset, 0, 0.041);
        EXPECT_NEAR(out[1].clips[2].startOffset, 90, 0.041);
        if (placedAt) {
            EXPECT_EQ(out[1].clips[1].placementPass, "A4");
            EXPECT_NEAR(out[1].clips[1].startOffset, *placedAt, 1e-9);
        } else {
            EXPECT_TRUE(log.contains("— out of order with the strong chain (60…60), ignored"));
            EXPECT_NE(out[1].clips[1].placementPass, "A4");
        }
    }
}
