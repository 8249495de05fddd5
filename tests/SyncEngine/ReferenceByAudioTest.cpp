#include "tests/SyncEngine/SyncFixtures.h"

#include <gtest/gtest.h>

using namespace SyncEngine;
using namespace SyncFixtures;

TEST(ReferenceByAudio, ATakeJoinedByItsWholeSecondClockMovesWhereTheCameraHearsIt) {
    // The recorder stopped at 100 s and started again `pause` s later; its clock counts whole
    // seconds, so the second take is dated (pause - 0.6) s after the first ends. Under 2 s the
    // two are butt-joined and the second take lies 1.4 s early; a camera that rolled across both
    // takes hears where it truly lies. With a longer pause the clock keeps it (0.6 s early, which
    // the camera also corrects).
    constexpr Date t0 = 1.7e9;
    const auto signal = randomBands(25 * 400, 91);
    for (double pause : {2.0, 3.6}) {
        SCOPED_TRACE(pause);
        const double second = 100 + pause;
        const auto rec =
            audioTrack("Rec", {heardClip(signal, "T1", 0, 100, 1, t0),
                               heardClip(signal, "T2", second, 100, 2, t0 + std::floor(second))});
        const auto cam = videoTrack("Cam", {heardClip(signal, "C1", 60, 100, 3)});
        TestSupport::LogCapture log;
        const auto out = runEngine({cam, rec});
        const double camAt = out[0].clips[0].startOffset;
        EXPECT_NEAR(out[1].clips[0].startOffset - camAt, 0 - 60, 0.041);
        EXPECT_NEAR(out[1].clips[1].startOffset - camAt, second - 60, 0.041);
        EXPECT_EQ(linesWith(log, "[SyncEngine]  ref 'Rec' clip '").size(), 1u);
    }
}

TEST(ReferenceByAudio, TakesThatNoOtherDeviceLinksStayWhereTheClockLaidThem) {
    // Each camera clip heard one take only: nothing relates the takes, so nothing moves. A clock
    // that counts whole seconds closes the 1.6 s pause; one read to the fraction of its second
    // (a recorder's time reference) keeps it.
    constexpr Date t0 = 1.7e9;
    const auto signal = randomBands(25 * 400, 92);
    for (const double fraction : {0.0, 0.3}) {
        SCOPED_TRACE(fraction);
        const bool precise = fraction > 0;
        const auto rec = audioTrack("Rec", {heardClip(signal, "T1", 0, 100, 1, t0 + fraction),
                                            heardClip(signal, "T2", 101.6, 100, 2,
                                                      precise ? t0 + fraction + 101.6 : t0 + 101)});
        const auto cam = videoTrack(
            "Cam", {heardClip(signal, "C1", 20, 60, 3), heardClip(signal, "C2", 120, 60, 4)});
        TestSupport::LogCapture log;
        const auto out = runEngine({cam, rec});
        EXPECT_NEAR(out[1].clips[1].startOffset - out[1].clips[0].startOffset,
                    precise ? 101.6 : 100, 1e-6);
        EXPECT_NEAR(out[0].clips[1].startOffset - out[1].clips[1].startOffset, 120 - 101.6, 0.041);
        EXPECT_TRUE(linesWith(log, "[SyncEngine]  ref 'Rec' clip '").empty());
    }
}

TEST(ReferenceByAudio, AMovedTakePushesTheTakeJoinedAfterItWithWhatWasPlacedAgainstIt) {
    // Three takes with 1 s pauses that whole-second clocks close: T2 is laid 1 s early, T3 2 s.
    // A camera rolled across T1 and T2, placed against T1, moves T2 where it hears it; T2 then
    // overlaps T3, which is pushed clear with the camera clip placed against it, so that clip still
    // lies where it hears T3.
    constexpr Date t0 = 1.7e9;
    const auto signal = randomBands(25 * 500, 93);
    const auto rec = audioTrack("Rec", {heardClip(signal, "T1", 0, 100, 1, t0),
                                        heardClip(signal, "T2", 101, 100, 2, t0 + 100),
                                        heardClip(signal, "T3", 202, 100, 3, t0 + 201)});
    const auto cam = videoTrack(
        "Cam", {heardClip(signal, "C1", 30, 100, 4), heardClip(signal, "C2", 210, 80, 5)});
    TestSupport::LogCapture log;
    const auto out = runEngine({cam, rec});
    const auto& takes = out[1].clips;
    const auto& cams = out[0].clips;
    EXPECT_NEAR(takes[1].startOffset - cams[0].startOffset, 101 - 30, 0.041);
    EXPECT_NEAR(takes[2].startOffset - cams[1].startOffset, 202 - 210, 0.041);
    EXPECT_GE(takes[2].startOffset, takes[1].startOffset + takes[1].duration - 1e-6);
}

TEST(ReferenceByAudio, TheReferencesChaptersRunBackToBackWhateverTheirClocksRounded) {
    // A camera as the reference, one take split into three 100 s chapters whose dates, written
    // to a fraction of a second, say they began 100.4 s and 199.6 s after the first: the chapters
    // ran on straight from each other all the same.
    constexpr Date t0 = 1.7e9;
    const auto signal = randomBands(25 * 400, 94);
    std::vector<ClipItem> chapters;
    const double dated[] = {0.5, 100.9, 200.1};
    for (int k = 0; k < 3; ++k) {
        auto clip = heardClip(signal, "GX0" + std::to_string(k + 1) + "0045", 100.0 * k, 100,
                              10 + k, t0 + dated[k]);
        clip.recordingKey = "GX0045";
        clip.chapterIndex = k;
        chapters.push_back(clip);
    }
    // A second camera with a clip of its own, so that there is something to lay against.
    const auto other = videoTrack("CamB", {heardClip(signal, "B1", 320, 40, 20, t0 + 320)});
    const auto out = runEngine({videoTrack("Cam", chapters), other});
    for (int k = 0; k < 3; ++k) {
        EXPECT_EQ(out[0].clips[k].placementPass, "ref") << k;
        EXPECT_NEAR(out[0].clips[k].startOffset - out[0].clips[0].startOffset, 100.0 * k, 1e-6)
            << k;
    }
}
