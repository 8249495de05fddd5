#include "TessarinEngine/SyncEngine/Run.h"
#include "tests/SyncEngine/SyncFixtures.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>
#include <memory>

using namespace SyncEngine;
using namespace SyncFixtures;

namespace {

const ProgressCallback noProgress;
const PlaceCallback noPlace;

using Sound = std::vector<std::vector<float>>;

// A camera clip that heard [fromSec, fromSec + durSec) of `sound`, or nothing usable when `sound`
// is null.
ClipItem take(const Sound* sound, const std::string& name, double fromSec, double durSec,
              unsigned seed) {
    auto clip = makeClip(name, durSec);
    clip.url.replace_extension(".mov");
    if (sound) {
        clip.bandFeature = cutFeature(*sound, static_cast<int>(std::lround(fromSec * 25)),
                                      static_cast<int>(std::lround(durSec * 25)), seed);
    } else {
        clip.bandFeature = flatFeature(100);
    }
    return clip;
}

// Stretches of several sounds joined into one, as (sound, from, seconds).
Sound splice(const std::vector<std::tuple<const Sound*, double, double>>& parts) {
    Sound out(8);
    for (const auto& [sound, from, secs] : parts) {
        const auto a = static_cast<std::size_t>(std::lround(from * 25));
        const auto b = a + static_cast<std::size_t>(std::lround(secs * 25));
        for (std::size_t band = 0; band < 8; ++band) {
            out[band].insert(out[band].end(), (*sound)[band].begin() + a,
                             (*sound)[band].begin() + b);
        }
    }
    return out;
}

// One chain of camera clips in one region, each track holding the clips given for it, chained in
// the order the tracks are given.
struct ChainRig {
    std::unique_ptr<SyncEngine::Run> run;
    ChainState chain;
    std::vector<PoolSpan> noSpans;

    explicit ChainRig(std::vector<TrackSource> tracks) {
        run = std::make_unique<SyncEngine::Run>(std::move(tracks), noProgress, noPlace, nullptr);
        std::vector<ClipRef> refs;
        for (int si = 0; si < static_cast<int>(run->sources.size()); ++si) {
            for (int ci = 0; ci < static_cast<int>(run->sources[si].clips.size()); ++ci) {
                refs.push_back(ClipRef{si, ci});
            }
        }
        beginRegion(*run, "default", refs);
        run->region.refTrack = 0;
        chain.init(*run, refs);
        chain.checkSpans = &noSpans;
    }
    void place(int i, double pos, bool strong, float score = 9.0f) {
        chain.placed.insert(i);
        chain.posOf[i] = pos;
        if (strong) {
            chain.strong.insert(i);
        }
        run->placementLog[chain.clips[i].id] = PlacementRecord{pos, score, "A1"};
        run->clip(chain.refs[i]).startOffset = pos;
    }
    const ClipItem& clip(int i) const { return run->clip(chain.refs[i]); }
};

TrackSource camera(const std::string& name, std::vector<ClipItem> clips) {
    return makeTrack(name, SourceType::video, std::move(clips));
}

} // namespace

TEST(Rescues, CameraCrossTakesItsPlaceFromAPlacedCameraInsideTheBracket) {
    if (!signalCoreReady()) {
        GTEST_SKIP() << "band search not available";
    }
    const auto sound = randomBands(600 * 25, 5);
    struct Case {
        const char* name;
        // End of a strong clip chained before the unplaced one; none leaves the bracket open.
        std::optional<double> anchorEnd;
        std::optional<double> expected;
    };
    // The unplaced clip truly began 50 s after the witness, which stands at 1000.
    const std::vector<Case> cases = {
        {"open bracket", std::nullopt, 1050.0},
        {"2 s outside the bracket: held at its edge", 1052.0, 1052.0},
        {"3.5 s outside the bracket: refused", 1053.5, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ChainRig rig({camera("A", {take(&sound, "A_0", 100, 200, 1)}),
                      camera("K", {take(nullptr, "K_0", 0, 10, 0)}),
                      camera("B", {take(&sound, "B_0", 150, 60, 2)})});
        rig.place(0, 1000, false);
        if (c.anchorEnd) {
            rig.place(1, *c.anchorEnd - 10, true);
        }
        TestSupport::LogCapture log;
        ASSERT_TRUE(cameraCross(*rig.run, rig.chain));
        EXPECT_EQ(rig.chain.placed.contains(2), c.expected.has_value());
        if (c.expected) {
            EXPECT_NEAR(rig.clip(2).startOffset, *c.expected, 0.04);
            EXPECT_EQ(rig.clip(2).placementPass, "A3cam");
            EXPECT_GE(rig.clip(2).matchScore.value_or(0), 7.0f);
            // A camera cross is no proof to narrow other clips' brackets.
            EXPECT_FALSE(rig.chain.strong.contains(2));
            EXPECT_TRUE(log.contains("camera cross 'B_0' @ "));
        }
    }
}

TEST(Rescues, CameraCrossBelievesItsBestWitnessOutright) {
    if (!signalCoreReady()) {
        GTEST_SKIP() << "band search not available";
    }
    const auto sound = randomBands(600 * 25, 5);
    // Two cameras heard the unplaced clip; the one heard through more noise was placed 2 s wrong.
    auto clear = take(&sound, "A_0", 100, 200, 1);
    auto muffled = take(&sound, "C_0", 120, 200, 4);
    muffled.bandFeature = cutFeature(sound, 120 * 25, 200 * 25, 4, 1.5f);
    ChainRig rig({camera("A", {clear}), camera("C", {muffled}),
                  camera("B", {take(&sound, "B_0", 150, 60, 2)})});
    rig.place(0, 1000, false);
    rig.place(1, 1022, false);
    ASSERT_TRUE(cameraCross(*rig.run, rig.chain));
    ASSERT_TRUE(rig.chain.placed.contains(2));
    EXPECT_NEAR(rig.clip(2).startOffset, 1050.0, 0.04);
}

TEST(Rescues, CameraClusterLinksUnplacedClipsByTheirOwnAudio) {
    if (!signalCoreReady()) {
        GTEST_SKIP() << "band search not available";
    }
    const auto sound = randomBands(1200 * 25, 6);
    const auto other = randomBands(200 * 25, 66);
    // A 200 s clip that heard the long take from 100 s on, except that its last 80 s come `shift`
    // later and its middle 60 s are elsewhere: only its first and last windows can vote.
    auto shifted = [&](double shift) {
        return splice({{&sound, 100, 60}, {&other, 0, 60}, {&sound, 220 + shift, 80}});
    };
    const auto near = shifted(0.48);
    const auto far = shifted(0.6);
    struct Case {
        const char* name;
        ClipItem shorter;
        // A strong clip of 10 s chained before both clips (negative) or between them (positive),
        // at this position; none leaves both brackets open.
        std::optional<double> anchorAt;
        bool linked;
        double longAt;
    };
    const std::vector<Case> cases = {
        {"20 s clip, open brackets: the longest stands at 0", take(&sound, "S", 300, 20, 3),
         std::nullopt, true, 0.0},
        {"19 s clip is never compared", take(&sound, "S", 300, 19, 3), std::nullopt, false, 0},
        {"windows 0.48 s apart agree", take(&near, "S", 0, 200, 3), std::nullopt, true, 0.0},
        {"windows 0.6 s apart do not", take(&far, "S", 0, 200, 3), std::nullopt, false, 0},
        {"bracket closed below: the group starts at its floor", take(&sound, "S", 300, 20, 3),
         -100.0, true, -90.0},
        {"one member's bracket excludes the other's", take(&sound, "S", 300, 20, 3), 1000.0, false,
         0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto anchorTrack = camera("K", {take(nullptr, "K_0", 0, 10, 0)});
        auto longTrack = camera("L", {take(&sound, "L_0", 0, 600, 1)});
        auto shortTrack = camera("S", {c.shorter});
        std::vector<TrackSource> tracks;
        int anchor = -1;
        if (c.anchorAt && *c.anchorAt < 0) {
            tracks = {anchorTrack, longTrack, shortTrack};
            anchor = 0;
        } else if (c.anchorAt) {
            tracks = {longTrack, anchorTrack, shortTrack};
            anchor = 1;
        } else {
            tracks = {longTrack, anchorTrack, shortTrack};
        }
        ChainRig rig(tracks);
        const int longIdx = anchor == 0 ? 1 : 0;
        if (anchor >= 0) {
            rig.place(anchor, *c.anchorAt, true);
        } else {
            // The idle clip of 10 s takes part only as a clip that hears nothing.
            rig.chain.placed.insert(1);
            rig.chain.posOf[1] = 5000;
        }
        TestSupport::LogCapture log;
        cameraCluster(*rig.run, rig.chain);
        EXPECT_EQ(rig.chain.placed.contains(2), c.linked);
        EXPECT_EQ(rig.chain.placed.contains(longIdx), c.linked);
        if (c.linked) {
            EXPECT_NEAR(rig.clip(longIdx).startOffset, c.longAt, 0.04);
            const double truth = c.shorter.duration == 200 ? 100.24 : 300.0;
            EXPECT_NEAR(rig.clip(2).startOffset - rig.clip(longIdx).startOffset, truth, 0.04);
            EXPECT_EQ(rig.clip(2).placementPass, "A3cluster");
            EXPECT_EQ(rig.clip(longIdx).placementPass, "A3cluster");
            EXPECT_TRUE(log.contains("camera cluster 'L_0 + S' @ "));
        } else {
            EXPECT_FALSE(log.contains("camera cluster"));
        }
    }
}

TEST(Rescues, SiblingPropOnlyTrustsAnAlikeTakeOfAnotherCamera) {
    struct Case {
        const char* name;
        double placedDur;
        double openDur;
        bool sameTrack;
        // Seconds between the two takes' clocks; none leaves them undated.
        std::optional<double> clockGap;
        bool propped;
    };
    const std::vector<Case> cases = {
        {"600 s beside 700 s", 700, 600, false, std::nullopt, true},
        {"same camera, however well it fits", 700, 600, true, std::nullopt, false},
        {"300 s beside 600 s, no clocks", 600, 300, false, std::nullopt, false},
        {"300 s beside 600 s, clocks 100 s apart", 600, 300, false, 100.0, true},
        {"300 s beside 600 s, clocks 130 s apart", 600, 300, false, 130.0, false},
        {"299.9 s is no long take", 299.9, 299.9, false, std::nullopt, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::optional<Date> d1;
        std::optional<Date> d2;
        if (c.clockGap) {
            d1 = 1.7e9;
            d2 = 1.7e9 + *c.clockGap;
        }
        auto placedClip = makeClip("P_0", c.placedDur, d1, ClockQuality::filename);
        auto openClip = makeClip("O_0", c.openDur, d2, ClockQuality::filename);
        std::vector<TrackSource> tracks;
        if (c.sameTrack) {
            tracks = {camera("P", {placedClip, openClip})};
        } else {
            tracks = {camera("P", {placedClip}), camera("O", {openClip})};
        }
        ChainRig rig(tracks);
        rig.place(0, 500, false, 9.5f);
        TestSupport::LogCapture log;
        siblingProp(*rig.run, rig.chain);
        EXPECT_EQ(rig.chain.placed.contains(1), c.propped);
        if (c.propped) {
            EXPECT_EQ(rig.clip(1).startOffset, 500.0);
            EXPECT_EQ(rig.clip(1).placementPass, "sibling");
            EXPECT_EQ(rig.clip(1).matchScore, 9.5f);
            EXPECT_EQ(rig.clip(1).placementNote, "alongside 'P_0'");
            EXPECT_TRUE(log.contains("sibling prop 'O_0' ← 'P_0' @ 500.0s"));
        } else {
            EXPECT_EQ(rig.clip(1).placementPass, std::nullopt);
        }
    }
}

TEST(Rescues, CameraGroupFarFromTheRecorderIsLaidByWhatItsCamerasHearOfEachOther) {
    if (!signalCoreReady()) {
        GTEST_SKIP() << "band search not available";
    }
    constexpr double kDay = 1.7e9;
    const auto sound = randomBands(2400 * 25, 21);
    std::vector<ClipItem> refClips;
    // Two clips only: a recorder of more would make the two cameras lead as an ensemble.
    for (int k = 0; k < 2; ++k) {
        auto clip = makeClip("Ref_" + std::to_string(k), 120, kDay + 200.0 * k);
        clip.bandFeature = cutFeature(sound, 200 * 25 * k, 120 * 25, 30 + k);
        refClips.push_back(clip);
    }
    // One camera's clips over two card folders: the first heard the recorder, the rest were shot
    // half an hour later, where only the camera's other clips were listening.
    auto card1 =
        camera("G_card1", {take(&sound, "G001", 30, 60, 1), take(&sound, "G002", 2000, 240, 2)});
    auto card2 =
        camera("G_card2", {take(&sound, "G003", 2100, 100, 3), take(&sound, "G004", 2200, 35, 4)});
    card1.cameraGroup = "G";
    card2.cameraGroup = "G";
    std::vector<TrackSource> tracks = {makeTrack("Ref", SourceType::audio, refClips), card1, card2};

    TestSupport::LogCapture log;
    const auto out = runEngine(tracks);
    const auto& g001 = out[1].clips[0];
    const auto& g002 = out[1].clips[1];
    const auto& g003 = out[2].clips[0];
    const auto& g004 = out[2].clips[1];
    EXPECT_NEAR(g001.startOffset - out[0].clips[0].startOffset, 30.0, 0.04);
    for (const auto* clip : {&g002, &g003, &g004}) {
        SCOPED_TRACE(clipName(*clip));
        EXPECT_TRUE(clip->placementPass == "A3cluster" || clip->placementPass == "A3cam");
    }
    // The cluster stands on the floor its chained predecessor leaves, each member where the others
    // heard it; the chain's layout then keeps one camera's clips from overlapping each other.
    EXPECT_NEAR(g002.startOffset, g001.startOffset + 60.0, 0.04);
    EXPECT_TRUE(log.contains("camera cluster 'G002 + G003 + G004' @ 90.0s — 3 clip(s)"));
    const std::vector<std::pair<std::string, double>> raw = {
        {"G002", 90.0}, {"G003", 190.0}, {"G004", 290.0}};
    for (const auto& [name, pos] : raw) {
        SCOPED_TRACE(name);
        bool seen = false;
        for (const auto& line : log.lines()) {
            if (line.find("   " + name + " ") != std::string::npos) {
                const auto at = line.find("raw=");
                ASSERT_NE(at, std::string::npos) << line;
                EXPECT_NEAR(std::stod(line.substr(at + 4)), pos, 0.04) << line;
                seen = true;
            }
        }
        EXPECT_TRUE(seen);
    }
}

TEST(Rescues, LongTakeHeardNowhereElseIsFoundNearItsBroll) {
    if (!signalCoreReady()) {
        GTEST_SKIP() << "band search not available";
    }
    // The recorder's first 500 s are a loud rhythmic machine that the long take also carries
    // faintly: searched over the whole recorder, the machine drowns every match of the take.
    const auto sound = randomBands(1200 * 25, 8);
    auto recorded = sound;
    auto onCamera = sound;
    for (int b = 0; b < 8; ++b) {
        for (int f = 0; f < 1200 * 25; ++f) {
            const float machine = 3.0f * std::sin(2 * 3.14159f * f / (25 * 4.0f) + b);
            if (f < 500 * 25) {
                recorded[b][f] = machine + 0.1f * recorded[b][f];
            }
            onCamera[b][f] += machine;
        }
    }
    auto rec = makeClip("Rec_0", 1000);
    rec.bandFeature = cutFeature(recorded, 0, 1000 * 25, 1);
    auto longCam = camera("L_card1", {take(&onCamera, "L001", 600, 400, 2)});
    auto idle = camera("L_card2", {take(nullptr, "L002", 0, 10, 0)});
    longCam.cameraGroup = "L";
    idle.cameraGroup = "L";
    struct Case {
        const char* name;
        // Where each B-roll clip was shot; none for one that heard nothing.
        std::vector<std::optional<double>> broll;
        bool rescued;
    };
    const std::vector<Case> cases = {
        {"two B-roll clips during the take", {610, 650}, true},
        {"one B-roll clip is no prior", {610, std::nullopt}, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        // The B-roll camera's clips lie on two cards, so that they form a group of their own:
        // placed against the recorder, yet never lent to the pool the long take is sought in.
        std::vector<TrackSource> tracks = {makeTrack("Rec", SourceType::audio, {rec})};
        for (std::size_t k = 0; k < c.broll.size(); ++k) {
            auto card =
                camera("B_card" + std::to_string(k),
                       {take(c.broll[k] ? &sound : nullptr, "B00" + std::to_string(k),
                             c.broll[k].value_or(0), 30 + 10.0 * k, 5 + static_cast<unsigned>(k))});
            card.cameraGroup = "B";
            tracks.push_back(card);
        }
        tracks.push_back(longCam);
        tracks.push_back(idle);
        TestSupport::LogCapture log;
        const auto out = runEngine(tracks);
        for (std::size_t k = 0; k < c.broll.size(); ++k) {
            if (c.broll[k]) {
                EXPECT_NEAR(out[1 + k].clips[0].startOffset - out[0].clips[0].startOffset,
                            *c.broll[k], 0.04);
            }
        }
        const auto& l001 = out[1 + c.broll.size()].clips[0];
        if (c.rescued) {
            EXPECT_EQ(l001.placementPass, "A3b-broll");
            EXPECT_NEAR(l001.startOffset - out[0].clips[0].startOffset, 600.0, 0.04);
            EXPECT_TRUE(log.contains("long rescue 'L001' @ 600.0s score="));
            // The window opens 30 s before the first B-roll clip and runs 240 s past it.
            EXPECT_TRUE(log.contains("via B-roll prior (580…850)"));
        } else {
            EXPECT_NE(l001.placementPass, "A3b-broll");
            EXPECT_TRUE(log.contains("long rescue miss 'L001' (400s) window "));
        }
    }
}

TEST(Rescues, LongRescueOfATrackSearchesOnlyBetweenItsStrongNeighbours) {
    if (!signalCoreReady()) {
        GTEST_SKIP() << "band search not available";
    }
    // As above: the pool's first 500 s are a machine the takes carry faintly.
    const auto sound = randomBands(1200 * 25, 8);
    auto recorded = sound;
    auto heardByTrack = sound;
    for (int b = 0; b < 8; ++b) {
        for (int f = 0; f < 1200 * 25; ++f) {
            const float machine = 3.0f * std::sin(2 * 3.14159f * f / (25 * 4.0f) + b);
            if (f < 500 * 25) {
                recorded[b][f] = machine + 0.1f * recorded[b][f];
            }
            heardByTrack[b][f] += machine;
        }
    }
    std::vector<PoolSpan> pool(1);
    pool[0].dur = 1000;
    pool[0].bands = cutFeature(recorded, 0, 1000 * 25, 1);
    struct Case {
        const char* name;
        double duration;
        bool bracketed;
        bool rescued;
    };
    const std::vector<Case> cases = {
        {"a 300 s take between strong neighbours", 300, true, true},
        {"a 299.9 s take is no long take", 299.9, true, false},
        {"an open bracket lets the machine drown it, silently", 300, false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        // Neighbours of 10 s chained before and after the take, which truly began at 600.
        ChainRig rig({makeTrack("T", SourceType::audio,
                                {take(nullptr, "T_0", 0, 10, 0),
                                 take(&heardByTrack, "T_1", 600, c.duration, 2),
                                 take(nullptr, "T_2", 0, 10, 0)})});
        if (c.bracketed) {
            rig.place(0, 560, true);
            rig.place(2, 990, true);
        }
        rig.chain.checkSpans = &pool;
        TestSupport::LogCapture log;
        ASSERT_TRUE(longRescueTrack(*rig.run, rig.chain, pool));
        EXPECT_EQ(rig.chain.placed.contains(1), c.rescued);
        if (c.rescued) {
            EXPECT_NEAR(rig.clip(1).startOffset, 600.0, 0.04);
            EXPECT_EQ(rig.clip(1).placementPass, "A3b");
            EXPECT_TRUE(log.contains("long rescue 'T_1' @ 600.0s score="));
            EXPECT_TRUE(log.contains("(track 'T')"));
        } else {
            EXPECT_TRUE(log.lines().empty());
        }
    }
}
