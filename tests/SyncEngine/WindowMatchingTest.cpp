#include "TessarinEngine/SyncEngine/Run.h"
#include "tests/SyncEngine/SyncFixtures.h"

#include <gtest/gtest.h>

using namespace SyncEngine;
using namespace SyncFixtures;

namespace {

const ProgressCallback noProgress;
const PlaceCallback noPlace;
constexpr Date kEpoch = 1.7e9;

PoolSpan tcSpan(double off, std::optional<double> startTC) {
    PoolSpan span;
    span.off = off;
    span.dur = 60;
    span.startTC = startTC;
    return span;
}

// A region whose epoch is kEpoch, standing at timeline position 100, with the reference "Ref".
struct WindowFixture {
    Run run;

    WindowFixture()
        : run({makeRecorder("Ref", {60}), makeRecorder("Rec", {60}), makeCamera("Cam", {60})},
              noProgress, noPlace, nullptr) {
        run.region.refTrack = 0;
        run.region.regionEpoch = kEpoch;
        run.baseOffset = 100;
    }

    ClipItem dated(double afterEpoch, ClockQuality quality) const {
        auto clip = makeClip("x", 60, kEpoch + afterEpoch, quality);
        return clip;
    }
};

} // namespace

TEST(WindowMatching, ClockWindowDependsOnTheSourceOfThePrior) {
    struct Case {
        const char* name;
        int si;
        ClockQuality quality;
        bool textOffset;
        Window expected;
    };
    const std::vector<Case> cases = {
        {"embedded clock of a recorder", 1, ClockQuality::embedded, false, {-300, 1500}},
        {"clock from the file name", 1, ClockQuality::filename, false, {-750, 1950}},
        {"asset date is no prior", 1, ClockQuality::asset, false, {}},
        {"cameras get none, whatever their clock", 2, ClockQuality::embedded, false, {}},
        {"a text offset to the reference goes first",
         1,
         ClockQuality::embedded,
         true,
         {100 - 40 - 360, 100 - 40 + 360}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        WindowFixture f;
        if (c.textOffset) {
            f.run.sources[1].textSyncOffsetByPeer["Ref"] = 40;
        }
        EXPECT_EQ(clockWindow(f.run, c.si, f.dated(500, c.quality)), c.expected);
    }
    {
        SCOPED_TRACE("no region epoch");
        WindowFixture f;
        f.run.region.regionEpoch.reset();
        EXPECT_EQ(clockWindow(f.run, 1, f.dated(500, ClockQuality::embedded)), Window{});
    }
}

TEST(WindowMatching, TimecodeWindowSpansEveryCandidate) {
    auto clip = makeClip("x", 60);
    clip.startTimecode = 100;
    EXPECT_EQ(tcWindow(clip, {tcSpan(0, 0), tcSpan(500, std::nullopt), tcSpan(1000, 0)}),
              (Window{98.5, 1101.5}));
    EXPECT_EQ(tcWindow(clip, {tcSpan(0, std::nullopt)}), std::nullopt);
    EXPECT_EQ(tcWindow(clip, {}), std::nullopt);
    clip.startTimecode.reset();
    EXPECT_EQ(tcWindow(clip, {tcSpan(0, 0)}), std::nullopt);
}

TEST(WindowMatching, TimecodeNarrowsTheClockUnlessTheyContradict) {
    WindowFixture f;
    auto clip = f.dated(500, ClockQuality::embedded); // clock window -300...1500
    clip.startTimecode = 3600;
    struct Case {
        const char* name;
        double spanOff;
        Window expected;
    };
    const std::vector<Case> cases = {
        {"inside the clock window", 0, {598.5, 601.5}},
        {"overlapping its end", 900, {1498.5, 1500}},
        {"wholly outside: the clock stands", 5000, {-300, 1500}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(jobWindow(f.run, 1, clip, {tcSpan(c.spanOff, 3000)}), c.expected);
    }
    {
        SCOPED_TRACE("a camera has only its timecode");
        EXPECT_EQ(jobWindow(f.run, 2, clip, {tcSpan(0, 3000)}), (Window{598.5, 601.5}));
    }
}

TEST(WindowMatching, TimecodeCheckToleratesTwoFrames) {
    struct Case {
        const char* name;
        std::optional<float> fps;
        double pos;
        bool disagrees;
    };
    // The nearest candidate is at 600 (span at 0); the other span puts the clip at 2600.
    const std::vector<Case> cases = {
        {"within two frames at 25 fps", 25.0f, 600.07, false},
        {"beyond two frames", 25.0f, 600.09, true},
        {"no rate: a twelfth of a second", std::nullopt, 599.92, false},
        {"no rate, beyond it", std::nullopt, 599.9, true},
        {"a rate below 1 counts as 1", 0.5f, 601.9, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto clip = makeClip("x", 60);
        clip.startTimecode = 3600;
        clip.frameRate = c.fps;
        checkTimecode(clip, c.pos, {tcSpan(0, 3000), tcSpan(2000, 3000), tcSpan(5, std::nullopt)});
        EXPECT_EQ(clip.tcDisagrees, c.disagrees);
    }
    auto clip = makeClip("x", 60);
    checkTimecode(clip, 0, {tcSpan(0, 3000)});
    EXPECT_FALSE(clip.tcDisagrees);
}

TEST(WindowMatching, ScoresGiveStatusesAtInclusiveLimits) {
    EXPECT_EQ(statusForScore(7.0f), SyncStatus::synced);
    EXPECT_EQ(statusForScore(6.99f), SyncStatus::weak);
    EXPECT_EQ(statusForScore(4.5f), SyncStatus::weak);
    EXPECT_EQ(statusForScore(4.49f), SyncStatus::failed);
}

TEST(WindowMatching, VotesClusterAroundTheSeedThatGathersMost) {
    const auto positions = [](const std::vector<Match>& votes) {
        std::vector<double> out;
        for (const auto& v : votes) {
            out.push_back(v.pos);
        }
        return out;
    };
    struct Case {
        const char* name;
        std::vector<double> votes;
        std::vector<double> expected;
    };
    const std::vector<Case> cases = {
        {"a middle seed gathers both ends", {0, 4, 8}, {0, 4, 8}},
        {"equal clusters: the first stays", {0, 4, 100}, {0, 4}},
        {"exactly 5 s apart", {10, 15, 40}, {10, 15}},
        {"5.01 s apart", {10, 15.01, 40}, {10}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<Match> votes;
        for (double p : c.votes) {
            votes.push_back(Match{p, 8.0f});
        }
        EXPECT_EQ(positions(largestCluster(votes, kVoteClusterRadius)), c.expected);
    }
}

TEST(WindowMatching, WindowsOfAClipCutFromThePoolAgree) {
    if (!signalCoreReady()) {
        GTEST_SKIP() << "the band search returns no peaks yet";
    }
    const auto bands = randomBands(25 * 600, 21);
    const std::vector<PoolSpan> pool = {PoolSpan{1000, 500, cutFeature(bands, 0, 25 * 500, 1),
                                                 std::nullopt, ClockQuality::none, std::nullopt}};
    struct Case {
        const char* name;
        double from;
        double dur;
    };
    // 24.9 s is matched whole; 25 s and longer by three windows.
    for (const auto& c : std::vector<Case>{
             {"short", 40, 24.9}, {"three windows", 200, 100}, {"long windows", 300, 150}}) {
        SCOPED_TRACE(c.name);
        const auto feature =
            cutFeature(bands, static_cast<int>(c.from * 25), static_cast<int>(c.dur * 25), 5);
        const auto m = multiWindowMatch(feature, c.dur, -kWidest, kWidest, pool, false);
        ASSERT_TRUE(m.has_value());
        EXPECT_NEAR(m->pos, 1000 + c.from, 0.041);
        EXPECT_GE(m->score, kStrongScore);
    }
}

TEST(WindowMatching, WindowsThatDisagreeNeedOneSingleStrongVote) {
    if (!signalCoreReady()) {
        GTEST_SKIP() << "the band search returns no peaks yet";
    }
    // A 100 s clip has windows of 40 s at 0, 25 and 55 s. Only its first 25 s exist in the pool,
    // so the first window alone can find its place.
    const auto pooled = randomBands(25 * 600, 31);
    const auto foreign = randomBands(25 * 100, 32);
    SpectralBands::Feature::Bands mixed(8);
    for (std::size_t b = 0; b < 8; ++b) {
        mixed[b].assign(pooled[b].begin() + 25 * 300, pooled[b].begin() + 25 * 325);
        mixed[b].insert(mixed[b].end(), foreign[b].begin() + 25 * 25, foreign[b].end());
    }
    const auto clip = cutFeature(mixed, 0, 25 * 100, 6, 0.0f);
    const std::vector<PoolSpan> pool = {PoolSpan{0, 600, cutFeature(pooled, 0, 25 * 600, 1, 0.0f),
                                                 std::nullopt, ClockQuality::none, std::nullopt}};
    EXPECT_EQ(multiWindowMatch(clip, 100, -kWidest, kWidest, pool, false), std::nullopt);
    const auto single = multiWindowMatch(clip, 100, -kWidest, kWidest, pool, true);
    ASSERT_TRUE(single.has_value());
    EXPECT_GE(single->score, kSingleStrongScore);
    EXPECT_NEAR(single->pos, 300, 0.041);
}
