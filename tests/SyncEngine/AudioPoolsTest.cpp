#include "tests/SyncEngine/SyncFixtures.h"

#include <gtest/gtest.h>

using namespace SyncEngine;
using namespace SyncFixtures;

namespace {

// A track whose clips stand at distinct offsets, each placed by the given pass, so that a pool
// can be read back as the list of its offsets.
TrackSource placedTrack(const std::string& name, SourceType type, double firstOffset,
                        const std::vector<std::optional<std::string>>& passes, double dur = 10) {
    std::vector<ClipItem> clips;
    for (const auto& pass : passes) {
        clips.push_back(makeClip(name + std::to_string(clips.size()), dur));
        clips.back().startOffset = firstOffset + static_cast<double>(clips.size()) - 1;
        clips.back().placementPass = pass;
    }
    return makeTrack(name, type, std::move(clips));
}

// The reference (clips under 5 s and of 5 s), a camera, a recorder and a lavalier, all ready.
Run poolRun() {
    auto ref = placedTrack("r", SourceType::audio, 1, {"ref", "ref"}, 5);
    ref.clips[0].duration = 4.9;
    auto run = regionRun(
        {ref, placedTrack("c", SourceType::video, 11, {"A1", "clock", "interp"}),
         placedTrack("a", SourceType::audio, 21, {"A3", "clock", "interp", "unlinked", {}}),
         placedTrack("l", SourceType::audio, 31, {"A1w"})});
    run.region.lavTracks = {3};
    run.region.readyTracks = {0, 1, 2, 3};
    return run;
}

std::vector<double> poolOf(Run& run) {
    refreshMatchSpans(run);
    std::vector<double> offsets;
    for (const auto& span : run.region.matchSpans) {
        offsets.push_back(span.off);
    }
    return offsets;
}

} // namespace

TEST(AudioPools, AdmissionFollowsTheTrustOrder) {
    struct Case {
        const char* name;
        std::set<int> poolCameras;
        bool holdRecorders;
        bool excludeLavs;
        std::vector<double> expected;
        std::set<int> ready = {0, 1, 2, 3};
    };
    const std::vector<Case> cases = {
        // A camera stays out until admitted; clips under 5 s never enter.
        {"first pool", {}, false, false, {2, 21, 25, 31}},
        // An admitted camera lends its audio-placed clips only.
        {"camera admitted", {1}, false, false, {2, 11, 21, 25, 31}},
        // Holding the recorders back keeps the reference and the admitted cameras.
        {"recorders held", {1}, true, false, {2, 11}},
        // The retry drops the lavaliers and lends the cameras' laid clips too.
        {"lavs excluded", {1}, false, true, {2, 11, 12, 13, 21, 25}},
        {"tracks not ready are out", {1}, false, false, {2, 31}, {0, 3}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto run = poolRun();
        run.region.readyTracks = c.ready;
        run.region.poolCameras = c.poolCameras;
        run.region.holdRecorders = c.holdRecorders;
        run.region.excludeLavs = c.excludeLavs;
        EXPECT_EQ(poolOf(run), c.expected);
    }
    auto run = poolRun();
    run.region.keys.erase(regionKey(2, 0));
    EXPECT_EQ(poolOf(run), (std::vector<double>{2, 25, 31})) << "clips outside the region";
}

TEST(AudioPools, FlatClipsFollowTheTracksFirstFileOrder) {
    auto run = poolRun();
    // Numbers in names count as numbers: A9 goes before A10.
    run.sources[1].clips[0].url = "/shoot/B/A10.mov";
    run.sources[2].clips[0].url = "/shoot/A/A9.wav";
    const auto flat = orderedFlatClips(run, {1, 2});
    ASSERT_EQ(flat.size(), 8u);
    EXPECT_EQ(flat.front(), (ClipRef{2, 0}));
    EXPECT_EQ(flat[5], (ClipRef{1, 0}));
    EXPECT_EQ(flat.back(), (ClipRef{1, 2}));
}

TEST(AudioPools, BestMatchSearchesWhicheverFeatureIsLonger) {
    // A 60 s clip cut from 100 s, and pool segments both longer and shorter than the clip.
    const auto bands = randomBands(25 * 400, 11);
    const auto clip = cutFeature(bands, 25 * 100, 25 * 60, 1);
    const auto longer = featureSpan(500, 300, cutFeature(bands, 25 * 50, 25 * 300, 2));
    const auto shorter = featureSpan(1000, 30, cutFeature(bands, 25 * 120, 25 * 30, 3));
    // Name, pool segment, bracket, where the clip is found.
    const std::tuple<const char*, PoolSpan, double, double, std::optional<double>> cases[] = {
        {"segment longer than the clip", longer, -kWidest, kWidest, 550.0},
        {"segment shorter than the clip: roles turn round", shorter, -kWidest, kWidest, 980.0},
        {"segment shorter, bracket around the truth", shorter, 970, 990, 980.0},
        {"segment of exactly the clip's length gives nothing",
         featureSpan(500, 60, cutFeature(bands, 25 * 100, 25 * 60, 4)), -kWidest, kWidest,
         std::nullopt},
    };
    for (const auto& [name, span, lo, hi, expected] : cases) {
        SCOPED_TRACE(name);
        const auto m = bestMatch({span}, clip, lo, hi);
        ASSERT_EQ(m.has_value(), expected.has_value());
        if (m) {
            EXPECT_NEAR(m->pos, *expected, 0.041);
            EXPECT_GE(m->score, kStrongScore);
        }
    }
    // A bracket away from the truth keeps the result inside it.
    const auto m = bestMatch({longer}, clip, 700, 760);
    ASSERT_TRUE(m.has_value());
    EXPECT_LT(m->score, kStrongScore);
    EXPECT_GE(m->pos, 699.96);
    EXPECT_LE(m->pos, 760.04);
}
