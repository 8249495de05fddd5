#include "TessarinEngine/SyncEngine/Run.h"
#include "tests/SyncEngine/SyncFixtures.h"

#include <gtest/gtest.h>

using namespace SyncEngine;
using namespace SyncFixtures;

namespace {

const ProgressCallback noProgress;
const PlaceCallback noPlace;

ClipItem placedClip(const std::string& name, double offset, double duration,
                    std::optional<std::string> pass) {
    auto clip = makeClip(name, duration);
    clip.startOffset = offset;
    clip.placementPass = std::move(pass);
    return clip;
}

// A region of four tracks whose clips stand at distinct offsets, so that a pool can be read back
// as the list of its offsets.
struct PoolFixture {
    Run run;

    PoolFixture() : run(tracks(), noProgress, noPlace, nullptr) {
        std::vector<ClipRef> clips;
        for (int si = 0; si < static_cast<int>(run.sources.size()); ++si) {
            for (int ci = 0; ci < static_cast<int>(run.sources[si].clips.size()); ++ci) {
                clips.push_back(ClipRef{si, ci});
            }
        }
        beginRegion(run, "default", clips);
        run.region.refTrack = 0;
        run.region.lavTracks = {3};
        run.region.readyTracks = {0, 1, 2, 3};
    }

    static std::vector<TrackSource> tracks() {
        return {
            makeTrack("Ref", SourceType::audio,
                      {placedClip("r1", 1, 4.9, "ref"), placedClip("r2", 2, 5.0, "ref")}),
            makeTrack("Cam", SourceType::video,
                      {placedClip("c1", 11, 10, "A1"), placedClip("c2", 12, 10, "clock"),
                       placedClip("c3", 13, 10, "interp")}),
            makeTrack("Rec", SourceType::audio,
                      {placedClip("a1", 21, 10, "A3"), placedClip("a2", 22, 10, "clock"),
                       placedClip("a3", 23, 10, "interp"), placedClip("a4", 24, 10, "unlinked"),
                       placedClip("a5", 25, 10, std::nullopt)}),
            makeTrack("Lav", SourceType::audio, {placedClip("l1", 31, 10, "A1w")}),
        };
    }

    std::vector<double> pool() {
        refreshMatchSpans(run);
        std::vector<double> offsets;
        for (const auto& span : run.region.matchSpans) {
            offsets.push_back(span.off);
        }
        return offsets;
    }
};

PoolSpan featureSpan(double off, double dur, SpectralBands::Feature bands) {
    PoolSpan span;
    span.off = off;
    span.dur = dur;
    span.bands = std::move(bands);
    return span;
}

} // namespace

TEST(AudioPools, AdmissionFollowsTheTrustOrder) {
    struct Case {
        const char* name;
        std::set<int> ready;
        std::set<int> poolCameras;
        bool holdRecorders;
        bool excludeLavs;
        std::vector<double> expected;
    };
    const std::set<int> all = {0, 1, 2, 3};
    const std::vector<Case> cases = {
        {"a camera stays out until admitted; clips under 5 s never enter",
         all,
         {},
         false,
         false,
         {2, 21, 25, 31}},
        {"an admitted camera lends its audio-placed clips only",
         all,
         {1},
         false,
         false,
         {2, 11, 21, 25, 31}},
        {"holding recorders keeps the reference and admitted cameras",
         all,
         {1},
         true,
         false,
         {2, 11}},
        {"the retry drops lavaliers and lends the cameras' laid clips",
         all,
         {1},
         false,
         true,
         {2, 11, 12, 13, 21, 25}},
        {"tracks not ready are out", {0, 3}, {1}, false, false, {2, 31}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        PoolFixture f;
        f.run.region.readyTracks = c.ready;
        f.run.region.poolCameras = c.poolCameras;
        f.run.region.holdRecorders = c.holdRecorders;
        f.run.region.excludeLavs = c.excludeLavs;
        EXPECT_EQ(f.pool(), c.expected);
    }
}

TEST(AudioPools, ClipsOutsideTheRegionNeverEnter) {
    PoolFixture f;
    f.run.region.keys.erase(regionKey(2, 0));
    EXPECT_EQ(f.pool(), (std::vector<double>{2, 25, 31}));
}

TEST(AudioPools, FlatClipsFollowTheTracksFirstFileOrder) {
    PoolFixture f;
    // Numbers in names count as numbers: A9 goes before A10.
    f.run.sources[1].clips[0].url = "/shoot/B/A10.mov";
    f.run.sources[2].clips[0].url = "/shoot/A/A9.wav";
    const auto flat = orderedFlatClips(f.run, {1, 2});
    ASSERT_EQ(flat.size(), 8u);
    EXPECT_EQ(flat.front(), (ClipRef{2, 0}));
    EXPECT_EQ(flat[5], (ClipRef{1, 0}));
    EXPECT_EQ(flat.back(), (ClipRef{1, 2}));
}

TEST(AudioPools, BestMatchSearchesWhicheverFeatureIsLonger) {
    if (!signalCoreReady()) {
        GTEST_SKIP() << "the band search returns no peaks yet";
    }
    // A long signal; a 60 s clip cut from 100 s, and pool segments both longer and shorter than
    // the clip.
    const auto bands = randomBands(25 * 400, 11);
    const auto clip = cutFeature(bands, 25 * 100, 25 * 60, 1);
    struct Case {
        const char* name;
        PoolSpan span;
        double lo;
        double hi;
        std::optional<double> expected;
    };
    const std::vector<Case> cases = {
        {"segment longer than the clip",
         featureSpan(500, 300, cutFeature(bands, 25 * 50, 25 * 300, 2)), -kWidest, kWidest, 550.0},
        {"segment shorter than the clip: roles turn round",
         featureSpan(1000, 30, cutFeature(bands, 25 * 120, 25 * 30, 3)), -kWidest, kWidest, 980.0},
        {"segment shorter, bracket around the truth",
         featureSpan(1000, 30, cutFeature(bands, 25 * 120, 25 * 30, 3)), 970, 990, 980.0},
        {"segment of exactly the clip's length gives nothing",
         featureSpan(500, 60, cutFeature(bands, 25 * 100, 25 * 60, 4)), -kWidest, kWidest,
         std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto m = bestMatch({c.span}, clip, c.lo, c.hi);
        ASSERT_EQ(m.has_value(), c.expected.has_value());
        if (m) {
            EXPECT_NEAR(m->pos, *c.expected, 0.041);
            EXPECT_GE(m->score, kStrongScore);
        }
    }
    {
        SCOPED_TRACE("a bracket away from the truth keeps the result inside it");
        const auto m = bestMatch({cases[0].span}, clip, 700, 760);
        ASSERT_TRUE(m.has_value());
        EXPECT_LT(m->score, kStrongScore);
        {
            EXPECT_GE(m->pos, 699.96);
            EXPECT_LE(m->pos, 760.04);
        }
    }
}
