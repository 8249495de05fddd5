#include "tests/SyncEngine/SyncFixtures.h"

#include <gtest/gtest.h>

using namespace SyncEngine;
using namespace SyncFixtures;

namespace {

constexpr Date kEpoch = 1.7e9;

PoolSpan tcSpan(double off, std::optional<double> startTC) {
    PoolSpan span;
    span.off = off;
    span.dur = 60;
    span.startTC = startTC;
    return span;
}

// A run whose region has the epoch kEpoch, stands at timeline position 100 and has the
// reference "Ref"; track 1 is a recorder, track 2 a camera.
Run windowRun() {
    Run run({makeRecorder("Ref", {60}), makeRecorder("Rec", {60}), makeCamera("Cam", {60})},
            noProgress, noPlace, nullptr);
    run.region.refTrack = 0;
    run.region.regionEpoch = kEpoch;
    run.baseOffset = 100;
    return run;
}

// A clip whose clock says it began 500 s after the epoch.
ClipItem datedClip(ClockQuality quality = ClockQuality::embedded) {
    return makeClip("x", 60, kEpoch + 500, quality);
}

} // namespace

TEST(WindowMatching, ClockWindowDependsOnTheSourceOfThePrior) {
    using enum ClockQuality;
    // Name, track, its clock, a noted offset to the reference, the window.
    const std::tuple<const char*, int, ClockQuality, std::optional<double>, Window> cases[] = {
        {"embedded clock of a recorder", 1, embedded, {}, {-300, 1500}},
        {"clock from the file name", 1, filename, {}, {-750, 1950}},
        {"asset date is no prior", 1, asset, {}, {}},
        {"cameras get none, whatever their clock", 2, embedded, {}, {}},
        // 360 s around the offset, from where the region stands.
        {"a text offset to the reference goes first", 1, embedded, 40.0, {-300, 420}},
    };
    for (const auto& [name, si, quality, textOffset, expected] : cases) {
        auto run = windowRun();
        if (textOffset) {
            run.sources[1].textSyncOffsetByPeer["Ref"] = *textOffset;
        }
        EXPECT_EQ(clockWindow(run, si, datedClip(quality)), expected) << name;
    }
    auto run = windowRun();
    run.region.regionEpoch.reset();
    EXPECT_EQ(clockWindow(run, 1, datedClip()), Window{});
}

TEST(WindowMatching, TimecodeNarrowsTheClockUnlessTheyContradict) {
    const auto run = windowRun();
    auto clip = datedClip(); // clock window -300...1500
    clip.startTimecode = 3600;
    // Name, track, where the timecode span lies on the timeline, the window.
    const std::tuple<const char*, int, double, Window> cases[] = {
        {"inside the clock window", 1, 0, {598.5, 601.5}},
        {"overlapping its end", 1, 900, {1498.5, 1500}},
        {"wholly outside: the clock stands", 1, 5000, {-300, 1500}},
        {"a camera has only its timecode", 2, 0, {598.5, 601.5}},
    };
    for (const auto& [name, si, spanOff, expected] : cases) {
        EXPECT_EQ(jobWindow(run, si, clip, {tcSpan(spanOff, 3000)}), expected) << name;
    }
    // Timecode that two spans share could lie in either: the window covers both.
    EXPECT_EQ(tcWindow(clip, {tcSpan(0, 3000), tcSpan(400, 3000), tcSpan(5, std::nullopt)}),
              (Window{598.5, 1001.5}));
}

TEST(WindowMatching, TimecodeCheckToleratesTwoFrames) {
    // The nearest candidate is at 600 (span at 0); the other span puts the clip at 2600.
    const std::tuple<const char*, std::optional<float>, double, bool> cases[] = {
        {"within two frames at 25 fps", 25.0f, 600.07, false},
        {"beyond two frames", 25.0f, 600.09, true},
        {"no rate: a twelfth of a second", std::nullopt, 599.92, false},
        {"no rate, beyond it", std::nullopt, 599.9, true},
        {"a rate below 1 counts as 1", 0.5f, 601.9, false},
    };
    for (const auto& [name, fps, pos, disagrees] : cases) {
        auto clip = makeClip("x", 60);
        clip.startTimecode = 3600;
        clip.frameRate = fps;
        checkTimecode(clip, pos, {tcSpan(0, 3000), tcSpan(2000, 3000), tcSpan(5, std::nullopt)});
        EXPECT_EQ(clip.tcDisagrees, disagrees) << name;
    }
}

TEST(WindowMatching, VotesClusterAroundTheSeedThatGathersMost) {
    const std::tuple<const char*, std::vector<double>, std::vector<double>> cases[] = {
        {"a middle seed gathers both ends", {0, 4, 8}, {0, 4, 8}},
        {"equal clusters: the first stays", {0, 4, 100}, {0, 4}},
        {"exactly 5 s apart", {10, 15, 40}, {10, 15}},
        {"5.01 s apart", {10, 15.01, 40}, {10}},
    };
    for (const auto& [name, positions, expected] : cases) {
        std::vector<Match> votes;
        for (double p : positions) {
            votes.push_back(Match{p, 8.0f, std::nullopt});
        }
        std::vector<double> kept;
        for (const auto& v : largestCluster(votes, kVoteClusterRadius)) {
            kept.push_back(v.pos);
        }
        EXPECT_EQ(kept, expected) << name;
    }
}

TEST(WindowMatching, ConsensusIsTheScoreWeightedMeanNearTheBestVoteWithItsScore) {
    const std::vector<Match> cluster = {
        {100.0, 3.0f, ClipRef{0, 0}}, {100.08, 9.0f, ClipRef{0, 1}}, {101.0, 8.0f, ClipRef{0, 2}}};
    // Only the votes within 0.1 s of the best count: (100.0 * 3 + 100.08 * 9) / 12.
    const auto m = clusterConsensus(cluster);
    EXPECT_NEAR(m.pos, 100.06, 1e-9);
    EXPECT_EQ(m.score, 9.0f);
    EXPECT_EQ(m.partner, (ClipRef{0, 1}));
}

TEST(WindowMatching, WindowsThatDisagreeNeedOneSingleStrongVote) {
    // A 100 s clip has windows of 40 s at 0, 25 and 55 s. Only its first 25 s exist in the pool,
    // so the first window alone can find its place.
    const auto pooled = randomBands(25 * 600, 31);
    const auto foreign = randomBands(25 * 100, 32);
    Sound mixed(8);
    for (std::size_t b = 0; b < 8; ++b) {
        mixed[b].assign(pooled[b].begin() + 25 * 300, pooled[b].begin() + 25 * 325);
        mixed[b].insert(mixed[b].end(), foreign[b].begin() + 25 * 25, foreign[b].end());
    }
    const auto clip = cutFeature(mixed, 0, 25 * 100, 6, 0.0f);
    const std::vector<PoolSpan> pool = {PoolSpan{0, 600, cutFeature(pooled, 0, 25 * 600, 1, 0.0f),
                                                 std::nullopt, ClockQuality::none, std::nullopt,
                                                 std::nullopt}};
    EXPECT_EQ(multiWindowMatch(clip, 100, -kWidest, kWidest, pool, false), std::nullopt);
    const auto single = multiWindowMatch(clip, 100, -kWidest, kWidest, pool, true);
    ASSERT_TRUE(single.has_value());
    EXPECT_GE(single->score, kSingleStrongScore);
    EXPECT_NEAR(single->pos, 300, 0.041);
}
