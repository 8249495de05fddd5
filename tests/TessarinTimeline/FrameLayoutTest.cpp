#include "TessarinTimeline/FrameLayout.h"

#include "tests/TessarinTimeline/TimelineFixtures.h"

#include <gtest/gtest.h>

namespace {

Timeline timelineOf(const std::vector<TimelineFixtures::Clip>& clips) {
    return std::get<Timeline>(EventStream::readTimeline(TimelineFixtures::eventStream(clips)));
}

} // namespace

TEST(FrameLayout, RatesBecomeTheirRationalFormAndSoundAloneTakesTheDefault) {
    const std::pair<double, FrameRate> cases[] = {{static_cast<float>(23.976), {24000, 1001}},
                                                  {static_cast<float>(59.94), {60000, 1001}},
                                                  {12.5, {25, 2}},
                                                  {0.0, {25, 1}}};
    for (const auto& [fps, rate] : cases) {
        EXPECT_EQ(FrameLayout::rationalRate(fps), rate) << fps;
    }
    const auto sound = timelineOf({{"/s/T1.WAV", "S", "audio", 0, 10, "synced", 48.0}});
    EXPECT_EQ(FrameLayout::chooseFormat(sound), (TimelineFormat{{25, 1}, 1920, 1080}));
}

TEST(FrameLayout, OverlapsTrimTheLaterClipsHeadAndFailedClipsGoToTheBin) {
    // At 25 fps: 1.00 s is frame 25; a clip at 2.95 s (frame 74) that the one before overlaps
    // by a frame keeps its content in place and loses its first frame; one covered whole, and a
    // failed one, have no place on the track.
    const auto t = timelineOf({
        {"/s/a.mov", "A", "video", 1.0, 2.0, "synced", 25.0},
        {"/s/b.mov", "A", "video", 2.95, 4.0, "synced", 25.0},
        {"/s/c.mov", "A", "video", 3.0, 1.0, "synced", 25.0},
        {"/s/d.mov", "A", "video", 9.0, 1.0, "failed", 25.0},
        {"/s/e.mov", "A", "video", 10.0, 100.0, "synced", 25.0, 1000.0},
    });
    const auto laid = FrameLayout::layOut(t);
    ASSERT_EQ(laid.tracks.size(), 1u);
    const auto& clips = laid.tracks[0].clips;
    ASSERT_EQ(clips.size(), 3u);
    EXPECT_EQ(clips[0].start, 25);
    EXPECT_EQ(clips[0].length, 50);
    EXPECT_EQ(clips[1].start, 75);
    EXPECT_EQ(clips[1].in, 1);
    EXPECT_EQ(clips[1].length, 99);
    // 100 s at 1.001x plays in 99.9 s: 2497.5 frames rounds to 2498.
    EXPECT_EQ(clips[2].start, 250);
    EXPECT_EQ(clips[2].length, 2498);
    EXPECT_DOUBLE_EQ(clips[2].speed, 1.001);
    ASSERT_EQ(laid.bin.size(), 2u);
    EXPECT_EQ(laid.bin[0]->result.path, "/s/c.mov");
    EXPECT_EQ(laid.bin[1]->result.path, "/s/d.mov");
    EXPECT_EQ(laid.length, 250 + 2498);
}
