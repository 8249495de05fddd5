#include "tests/SyncEngine/SyncFixtures.h"

#include <gtest/gtest.h>

using namespace SyncEngine;
using namespace SyncFixtures;

namespace {

// A clip that hears nothing usable.
ClipItem idle(const std::string& name, double dur = 10) {
    auto clip = makeClip(name, dur);
    clip.bandFeature = flatFeature(100);
    return clip;
}

// A shoot whose recorder hears a loud rhythmic machine for its first 500 s, which the takes
// carry faintly throughout: searched over the whole recorder, the machine drowns every match of
// a take. Returns what the recorder heard and what the takes heard.
std::pair<Sound, Sound> machineShoot() {
    const auto sound = randomBands(1200 * 25, 8);
    std::pair<Sound, Sound> out{sound, sound};
    for (int b = 0; b < 8; ++b) {
        for (int f = 0; f < 1200 * 25; ++f) {
            const float machine = 3.0f * std::sin(2 * 3.14159f * f / (25 * 4.0f) + b);
            if (f < 500 * 25) {
                out.first[b][f] = machine + 0.1f * sound[b][f];
            }
            out.second[b][f] += machine;
        }
    }
    return out;
}

} // namespace

TEST(Rescues, CameraCrossTakesItsBestWitnessInsideTheBracket) {
    const auto sound = randomBands(600 * 25, 5);
    auto muffled = makeClip("C_0", 200);
    muffled.bandFeature = cutFeature(sound, 120 * 25, 200 * 25, 4, 1.5f);
    // The unplaced clip B truly began 50 s after the clear witness A, which stands at 1000. K is a
    // strong clip ending at `anchorEnd` chained before B, or else a second witness that heard B
    // through more noise and was placed 2 s wrong.
    const std::tuple<const char*, std::optional<double>, std::optional<double>> cases[] = {
        {"2 s outside the bracket: held at its edge", 1052.0, 1052.0},
        {"3.5 s outside the bracket: refused", 1053.5, std::nullopt},
        {"the best witness is believed outright", std::nullopt, 1050.0},
    };
    for (const auto& [name, anchorEnd, expected] : cases) {
        SCOPED_TRACE(name);
        ChainRig rig({videoTrack("A", {heardClip(sound, "A_0", 100, 200, 1)}),
                      videoTrack("K", {anchorEnd ? idle("K_0") : muffled}),
                      videoTrack("B", {heardClip(sound, "B_0", 150, 60, 2)})});
        rig.place(0, 1000, false);
        rig.place(1, anchorEnd ? *anchorEnd - 10 : 1022, anchorEnd.has_value());
        TestSupport::LogCapture log;
        ASSERT_TRUE(cameraCross(rig.run, rig.chain));
        ASSERT_EQ(rig.chain.placed.contains(2), expected.has_value());
        if (expected) {
            EXPECT_NEAR(rig.clip(2).startOffset, *expected, 0.04);
            EXPECT_EQ(rig.clip(2).placementPass, "A3cam");
            // A camera cross is no proof to narrow other clips' brackets.
            EXPECT_FALSE(rig.chain.strong.contains(2));
            EXPECT_TRUE(log.contains("camera cross 'B_0' @ "));
        }
    }
}

TEST(Rescues, CameraClusterLinksUnplacedClipsByTheirOwnAudio) {
    const auto sound = randomBands(1200 * 25, 6);
    const auto other = randomBands(200 * 25, 66);
    // A 200 s clip that heard the long take from 100 s on, except that its middle 60 s are
    // elsewhere and its last 80 s come 0.6 s late: its first and last windows disagree (0.48 s
    // apart, they would still agree).
    Sound late(8);
    for (std::size_t b = 0; b < 8; ++b) {
        late[b].assign(sound[b].begin() + 100 * 25, sound[b].begin() + 160 * 25);
        late[b].insert(late[b].end(), other[b].begin(), other[b].begin() + 60 * 25);
        late[b].insert(late[b].end(), sound[b].begin() + 220 * 25 + 15,
                       sound[b].begin() + 300 * 25 + 15);
    }
    struct Case {
        const char* name;
        // How long the shorter clip heard the take from 300 s on; 0 for the shifted clip.
        double shortDur;
        // A strong clip of 10 s chained before both clips (negative) or between them (positive),
        // at this position; none leaves both brackets open.
        std::optional<double> anchorAt;
        // Where the long take lands, if the two are linked.
        std::optional<double> longAt;
    };
    const Case cases[] = {
        {"20 s clip, open brackets: the longest stands at 0", 20, {}, 0.0},
        {"19 s clip is never compared", 19, {}, {}},
        {"windows 0.6 s apart do not agree", 0, {}, {}},
        {"bracket closed below: the group starts at its floor", 20, -100.0, -90.0},
        {"one member's bracket excludes the other's", 20, 1000.0, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<TrackSource> tracks = {
            videoTrack("L", {heardClip(sound, "L_0", 0, 600, 1)}), videoTrack("K", {idle("K_0")}),
            videoTrack("S", {c.shortDur ? heardClip(sound, "S", 300, c.shortDur, 3)
                                        : heardClip(late, "S", 0, 200, 3)})};
        const int longIdx = c.anchorAt.value_or(0) < 0 ? 1 : 0;
        std::swap(tracks[0], tracks[longIdx]);
        ChainRig rig(tracks);
        if (c.anchorAt) {
            rig.place(1 - longIdx, *c.anchorAt, true);
        }
        TestSupport::LogCapture log;
        cameraCluster(rig.run, rig.chain);
        EXPECT_EQ(rig.chain.placed.contains(2), c.longAt.has_value());
        EXPECT_EQ(rig.chain.placed.contains(longIdx), c.longAt.has_value());
        EXPECT_EQ(log.contains("camera cluster 'L_0 + S' @ "), c.longAt.has_value());
        if (c.longAt) {
            EXPECT_NEAR(rig.clip(longIdx).startOffset, *c.longAt, 0.04);
            EXPECT_NEAR(rig.clip(2).startOffset - rig.clip(longIdx).startOffset, 300.0, 0.04);
            EXPECT_EQ(rig.clip(2).placementPass, "A3cluster");
            EXPECT_EQ(rig.clip(longIdx).placementPass, "A3cluster");
        }
    }
}

TEST(Rescues, SiblingPropOnlyTrustsAnAlikeTakeOfAnotherCamera) {
    // Name, the placed and the open take's lengths, whether both are of one camera, seconds
    // between their clocks (none leaves them undated), whether the open one is propped.
    const std::tuple<const char*, double, double, bool, std::optional<double>, bool> cases[] = {
        {"600 s beside 700 s", 700, 600, false, std::nullopt, true},
        {"same camera, however well it fits", 700, 600, true, std::nullopt, false},
        {"300 s beside 600 s, no clocks", 600, 300, false, std::nullopt, false},
        {"300 s beside 600 s, clocks 100 s apart", 600, 300, false, 100.0, true},
        {"300 s beside 600 s, clocks 130 s apart", 600, 300, false, 130.0, false},
        {"299.9 s is no long take", 299.9, 299.9, false, std::nullopt, false},
    };
    for (const auto& [name, placedDur, openDur, sameTrack, gap, propped] : cases) {
        SCOPED_TRACE(name);
        const std::optional<Date> date = gap ? std::optional(1.7e9) : std::nullopt;
        auto placedClip = makeClip("P_0", placedDur, date, ClockQuality::filename);
        auto openClip =
            makeClip("O_0", openDur, date ? *date + *gap : date, ClockQuality::filename);
        ChainRig rig(sameTrack ? std::vector<TrackSource>{videoTrack("P", {placedClip, openClip})}
                               : std::vector<TrackSource>{videoTrack("P", {placedClip}),
                                                          videoTrack("O", {openClip})});
        rig.place(0, 500, false, 9.5f);
        TestSupport::LogCapture log;
        siblingProp(rig.run, rig.chain);
        EXPECT_EQ(rig.chain.placed.contains(1), propped);
        if (propped) {
            EXPECT_EQ(rig.clip(1).placementPass, "sibling");
            EXPECT_EQ(rig.clip(1).startOffset, 500.0);
            EXPECT_EQ(rig.clip(1).matchScore, 9.5f);
            EXPECT_EQ(rig.clip(1).placementNote, "alongside 'P_0'");
            EXPECT_TRUE(log.contains("sibling prop 'O_0' ← 'P_0' @ 500.0s"));
        }
    }
}

TEST(Rescues, LongRescueOfATrackSearchesOnlyBetweenItsStrongNeighbours) {
    const auto [recorded, heardByTrack] = machineShoot();
    std::vector<PoolSpan> pool(1);
    pool[0].dur = 1000;
    pool[0].bands = cutFeature(recorded, 0, 1000 * 25, 1);
    const std::tuple<const char*, double, bool, bool> cases[] = {
        {"a 300 s take between strong neighbours", 300, true, true},
        {"a 299.9 s take is no long take", 299.9, true, false},
        {"an open bracket lets the machine drown it, silently", 300, false, false},
    };
    for (const auto& [name, duration, bracketed, rescued] : cases) {
        SCOPED_TRACE(name);
        // Neighbours of 10 s chained before and after the take, which truly began at 600.
        ChainRig rig({audioTrack(
            "T", {idle("T_0"), heardClip(heardByTrack, "T_1", 600, duration, 2), idle("T_2")})});
        if (bracketed) {
            rig.place(0, 560, true);
            rig.place(2, 990, true);
        }
        rig.chain.checkSpans = &pool;
        TestSupport::LogCapture log;
        ASSERT_TRUE(longRescueTrack(rig.run, rig.chain, pool));
        EXPECT_EQ(rig.chain.placed.contains(1), rescued);
        if (rescued) {
            EXPECT_NEAR(rig.clip(1).startOffset, 600.0, 0.04);
            EXPECT_EQ(rig.clip(1).placementPass, "A3b");
            EXPECT_TRUE(log.contains("long rescue 'T_1' @ 600.0s score="));
            EXPECT_TRUE(log.contains("(track 'T')"));
        } else {
            EXPECT_TRUE(log.lines().empty());
        }
    }
}
