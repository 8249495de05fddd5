#include "tests/SyncEngine/SyncFixtures.h"

#include <gtest/gtest.h>

using namespace SyncEngine;
using namespace SyncFixtures;

namespace {

constexpr Date kT0 = 1.7e9;

// A camera clip that heard `sound` from `from` for `dur` seconds through noise of `noise`, with a
// camera's clock (a container date) that says it began at `clockAt` on the timeline.
ClipItem cameraClip(const Sound& sound, const std::string& name, double from, double dur,
                    double clockAt, unsigned seed, float noise = 0.3f) {
    auto clip = makeClip(name, dur, kT0 + clockAt, ClockQuality::asset);
    clip.bandFeature = cutFeature(sound, static_cast<int>(std::lround(from * 25)),
                                  static_cast<int>(std::lround(dur * 25)), seed, noise);
    return clip;
}

} // namespace

TEST(ClipChain, ProvenClockOverrulesAModestMatchFarFromIt) {
    // The recorder heard 0...200 s, with a passage at 150 s that a camera clip shot at 300 s, in a
    // pause of the recorder, also heard (a song played twice). The camera's two clips before it
    // are anchored where its clock says: the clock is proven, and the likeness at 150 s is not
    // the clip's place unless the clock agrees with it or the match is overwhelming.
    const auto signal = randomBands(25 * 400, 61);
    const auto rec = audioTrack("Rec", {heardClip(signal, "Rec_0", 0, 200, 1, kT0)});
    // Where the camera's clock puts the clip, how well it heard the passage, where it lands and
    // how.
    const std::tuple<const char*, double, float, double, const char*> cases[] = {
        {"modest match 150 s from the clock", 300, 14.0f, 300, "clock"},
        {"modest match where the clock says", 152, 14.0f, 150, "A3"},
        {"overwhelming match far from the clock", 300, 0.05f, 150, "A1"},
    };
    for (const auto& [name, clockAt, noise, at, pass] : cases) {
        SCOPED_TRACE(name);
        const auto cam = videoTrack("Cam", {cameraClip(signal, "C0", 20, 30, 20, 2),
                                            cameraClip(signal, "C1", 60, 30, 60, 3),
                                            cameraClip(signal, "C2", 150, 30, clockAt, 4, noise)});
        TestSupport::LogCapture log;
        const auto out = runEngine({cam, rec});
        const auto& clip = out[0].clips[2];
        EXPECT_NEAR(clip.startOffset, at, 0.05);
        EXPECT_EQ(clip.placementPass, pass);
        if (std::string(pass) == "clock") {
            EXPECT_EQ(clip.syncStatus, SyncStatus::weak);
            EXPECT_FALSE(clip.matchScore.has_value());
        }
    }
}

TEST(ClipChain, ChaptersWithoutAMatchFollowTheirRecordingsMatchedChapter) {
    // One take split into three 100 s chapters, truly at 0, 100 and 200 s. The recorder heard
    // only the first (or the first two): the rest continue the last matched chapter exactly.
    const auto signal = randomBands(25 * 400, 71);
    const std::tuple<const char*, double, std::vector<std::string>> cases[] = {
        {"only the first chapter heard", 95, {"A1", "chapter", "chapter"}},
        {"the first two heard", 195, {"A1", "A1", "chapter"}},
    };
    for (const auto& [name, heard, passes] : cases) {
        SCOPED_TRACE(name);
        std::vector<ClipItem> chapters;
        for (int k = 0; k < 3; ++k) {
            auto clip = cameraClip(signal, "GX0" + std::to_string(k + 1) + "0045", 100.0 * k, 100,
                                   5000, 10 + k);
            clip.recordingKey = "GX0045";
            clip.chapterIndex = k;
            chapters.push_back(clip);
        }
        const auto out = runEngine({videoTrack("Cam", chapters),
                                    audioTrack("Rec", {heardClip(signal, "R", 0, heard, 1)})});
        for (int k = 0; k < 3; ++k) {
            const auto& clip = out[0].clips[k];
            EXPECT_NEAR(clip.startOffset, 100.0 * k, 0.05) << k;
            EXPECT_EQ(clip.placementPass, passes[k]) << k;
            EXPECT_EQ(clip.syncStatus, SyncStatus::synced) << k;
        }
        EXPECT_EQ(out[0].clips[2].placementExplanation(),
                  "Continues the previous chapter of the same recording");
    }
}

TEST(ClipChain, TimecodeThatWasNeverJammedFallsBackToTheClockWindow) {
    // The camera's timecode runs 0 s or 90 s off the recorder's: Pass 1 searches 1.5 s around
    // where it says first, and without it when that finds nothing.
    const auto signal = randomBands(25 * 400, 81);
    for (double tcError : {0.0, 90.0}) {
        SCOPED_TRACE(tcError);
        auto rec = heardClip(signal, "R", 0, 400, 1);
        rec.startTimecode = 36000;
        auto cam = heardClip(signal, "C", 150, 60, 2);
        cam.startTimecode = 36000 + 150 + tcError;
        TestSupport::LogCapture log;
        const auto out = runEngine({videoTrack("Cam", {cam}), audioTrack("Rec", {rec})});
        EXPECT_NEAR(out[0].clips[0].startOffset, 150, 0.041);
        EXPECT_EQ(out[0].clips[0].placementPass, "A1");
        EXPECT_EQ(out[0].clips[0].tcDisagrees, tcError > 0);
    }
}

TEST(ClipChain, ShortClipsAreSoughtOnlyNearAProvenClockAndHeldToTheirFloor) {
    // A camera's 30 s clips at 20 s and 60 s prove its clock; a 3 s clip shot at 120 s has a clock
    // that says 120.6 s (whole-second clocks). Too short for a wide search, it is sought within
    // 1.5 s of its proven clock, and kept there only above the floor that unrelated audio of its
    // length seldom reaches.
    const auto signal = randomBands(25 * 400, 81);
    const auto other = randomBands(25 * 400, 82);
    const auto rec = audioTrack("Rec", {heardClip(signal, "Rec_0", 0, 200, 1, kT0)});
    struct Case {
        const char* name;
        const Sound* heard;
        // Where the second anchor's clock says it began: 64 s breaks the agreement of the two.
        double secondClock;
        const char* pass;
    };
    const Case cases[] = {
        {"heard clearly, clock proven", &signal, 60, "A3"},
        {"unrelated audio stays on its clock", &other, 60, "clock"},
        {"anchors that disagree prove no clock", &signal, 64, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto out =
            runEngine({videoTrack("Cam", {cameraClip(signal, "C0", 20, 30, 20, 2),
                                          cameraClip(signal, "C1", 60, 30, c.secondClock, 3),
                                          cameraClip(*c.heard, "C2", 120, 3, 120.6, 4, 0.2f)}),
                       rec});
        const auto& clip = out[0].clips[2];
        if (*c.pass == '\0') {
            EXPECT_NE(clip.placementPass, "A3");
            continue;
        }
        EXPECT_EQ(clip.placementPass, c.pass);
        EXPECT_NEAR(clip.startOffset, *c.pass == 'A' ? 120.0 : 120.6, 0.05);
        if (*c.pass == 'A') {
            ASSERT_TRUE(clip.matchScore.has_value());
            EXPECT_EQ(clip.syncStatus,
                      *clip.matchScore >= 7.0f ? SyncStatus::synced : SyncStatus::weak);
        }
    }
}

TEST(ClipChain, Pass3FillsWhatPass1LeftInsideTheBracketOfItsAnchors) {
    // The first pool holds only the stretches the two outer clips heard; the middle one is found
    // in the second pool, between them.
    const auto sound = randomBands(25 * 400, 91);
    auto run = regionRun(
        {audioTrack("Rec", {heardClip(sound, "Rec_0", 0, 400, 1)}),
         videoTrack("Cam", {heardClip(sound, "A", 20, 30, 2), heardClip(sound, "S", 150, 20, 3),
                            heardClip(sound, "B", 300, 30, 4)})});
    const std::vector<PoolSpan> pass1 = {
        featureSpan(0, 60, cutFeature(sound, 0, 25 * 60, 5)),
        featureSpan(300, 40, cutFeature(sound, 25 * 300, 25 * 40, 6))};
    const std::vector<PoolSpan> pass3 = {featureSpan(0, 400, cutFeature(sound, 0, 25 * 400, 7))};
    TestSupport::LogCapture log;
    syncClipChain(run, {{1, 0}, {1, 1}, {1, 2}}, "Cam", pass1, pass3);
    const auto& clips = run.sources[1].clips;
    const std::tuple<double, const char*> expected[] = {{20, "A1"}, {150, "A3"}, {300, "A1"}};
    for (std::size_t i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        EXPECT_NEAR(clips[i].startOffset, std::get<0>(expected[i]), 0.041);
        EXPECT_EQ(clips[i].placementPass, std::get<1>(expected[i]));
        EXPECT_EQ(clips[i].syncStatus, SyncStatus::synced);
    }
}

TEST(ClipChain, FillsAreHeldInTheirBracketAndOnlyStrongOnesNarrowTheNext) {
    // Clips of 10 s: anchors 0 at 100 and 3 at 300 leave clip 1 the bracket 110...290. Where a
    // fill of clip 1 is matched and how well; where it lands; where clip 2's bracket then opens.
    const std::tuple<const char*, double, float, double, double> cases[] = {
        {"weak fill", 250, 5.0f, 250, 110},
        {"strong fill", 250, 9.0f, 250, 260},
        {"weak fill past the bracket", 290.5, 5.0f, 290, 110},
    };
    for (const auto& [name, matchedAt, score, landsAt, nextFrom] : cases) {
        SCOPED_TRACE(name);
        ChainRig rig({makeRecorder("Rec", {10}), makeCamera("Cam", {10, 10, 10, 10})});
        rig.place(1, 100, true);
        rig.place(4, 300, true);
        const auto w = rig.chain.bounds(2);
        ASSERT_EQ(w, (Window{110, 290}));
        ASSERT_TRUE(rig.chain.acceptFill(rig.run, 2, Match{matchedAt, score, std::nullopt}, w.lo,
                                         w.hi, "A3"));
        EXPECT_DOUBLE_EQ(rig.clip(2).startOffset, landsAt);
        EXPECT_DOUBLE_EQ(rig.chain.posOf.at(2), landsAt);
        EXPECT_EQ(rig.clip(2).syncStatus,
                  score >= kStrongScore ? SyncStatus::synced : SyncStatus::weak);
        EXPECT_DOUBLE_EQ(rig.chain.bounds(3).lo, nextFrom);
    }
}

TEST(ClipChain, AClipLaidByItsClockIsWeakOrPendingWithoutAudio) {
    for (const auto usability : {AudioUsability::ok, AudioUsability::none}) {
        SCOPED_TRACE(toString(usability));
        auto cam = makeCamera("Cam", {10});
        cam.clips[0].audioUsability = usability;
        cam.clips[0].matchScore = 8.0f;
        ChainRig rig({makeRecorder("Rec", {10}), cam});
        rig.chain.setClip(rig.run, 1, 42, Placement::clock);
        const auto& clip = rig.clip(1);
        EXPECT_EQ(clip.syncStatus,
                  usability == AudioUsability::ok ? SyncStatus::weak : SyncStatus::pending);
        EXPECT_EQ(clip.placementPass, "clock");
        EXPECT_FALSE(clip.matchScore);
        EXPECT_DOUBLE_EQ(clip.startOffset, 42);
        EXPECT_EQ(rig.run.placementLog.at(clip.id).kind, "clock");
    }
}
