#include "tests/SyncEngine/SyncFixtures.h"

#include <gtest/gtest.h>

using namespace SyncEngine;
using namespace SyncFixtures;

TEST(Finishing, OverlapsArePushedOutAndTheTimelineStartsAtZero) {
    using Clips = std::vector<std::pair<double, double>>;
    const auto overlaps = resolveOverlaps;
    const auto zero = normaliseOffsets;
    // Name, step, start and length of each clip of one track, the starts it leaves.
    const std::tuple<const char*, void (*)(std::vector<TrackSource>&), Clips, std::vector<double>>
        cases[] = {
            {"0.05 s of overlap stays", overlaps, {{0, 10}, {9.95, 10}}, {0, 9.95}},
            {"0.051 s is moved up", overlaps, {{0, 10}, {9.949, 10}}, {0, 10}},
            {"a moved clip pushes the next", overlaps, {{0, 10}, {5, 10}, {14, 10}}, {0, 10, 20}},
            // Array order, not position: a clip far ahead is left alone, and the next tested
            // against it.
            {"array order", overlaps, {{0, 10}, {100, 10}, {50, 10}}, {0, 100, 110}},
            {"negative start", zero, {{-3.2, 10}, {7, 10}}, {0, 10.2}},
            {"late start", zero, {{5, 10}, {20, 10}}, {0, 15}},
            {"within a millisecond of zero", zero, {{0.0005, 10}, {20, 10}}, {0.0005, 20}},
            {"no clips", zero, {}, {}},
        };
    for (const auto& [name, finish, clips, expected] : cases) {
        SCOPED_TRACE(name);
        // A track without clips beside it must not count as starting at zero.
        std::vector<TrackSource> tracks = {makeRecorder("T", {}), makeRecorder("Empty", {})};
        for (const auto& [start, dur] : clips) {
            tracks[0].clips.push_back(makeClip("c", dur));
            tracks[0].clips.back().startOffset = start;
        }
        finish(tracks);
        std::vector<double> starts;
        for (const auto& clip : tracks[0].clips) {
            starts.push_back(std::round(clip.startOffset * 1e6) / 1e6);
        }
        EXPECT_EQ(starts, expected);
    }
}

TEST(Finishing, ChannelWhoseAudioDisagreesIsMatchedOnItsOwn) {
    // The channel's longest clip is 60 s; its window of 30 s starts at 9 s. Its sound is the lead
    // take's sound 4 s later, so the ±2 s search around the tie cannot find it. The search is only
    // 101 lags wide, which caps a z-score near 10: a clear tie needs a sharp correlation peak, so
    // the band curves here are white.
    const auto signal = randomBands(25 * 200, 71, 0.0f);
    auto lead = audioTrack("Lead", {heardClip(signal, "Lead_0", 0, 120, 1)});
    auto channel = audioTrack("Lead_ch2", {heardClip(signal, "Lead_ch2_0", 4, 60, 2)});
    channel.siblingOf = lead.id;
    channel.clips[0].siblingLeaderID = lead.clips[0].id;
    TestSupport::LogCapture log;
    const auto out = runEngine({lead, channel});
    EXPECT_TRUE(log.contains("[SyncEngine]  'Lead_ch2' looked like a channel of 'Lead' but its "
                             "audio does not agree"));
    EXPECT_NEAR(out[1].clips[0].startOffset, 4.0, 0.041);
    EXPECT_NE(out[1].clips[0].placementPass, "sibling-ch");
}
