#include "TessarinEngine/SyncEngine/Chain.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>
#include <map>

using namespace SyncEngine;

namespace {

std::vector<double> prefixOf(const std::vector<double>& durs) {
    std::vector<double> prefix{0.0};
    for (double d : durs) {
        prefix.push_back(prefix.back() + d);
    }
    return prefix;
}

struct Laid {
    double pos = 0;
    Placement how = Placement::interp;
};

// A chain of clips with durations and optional clocks, laid by layoutChain into a map.
struct ChainFixture {
    std::vector<double> durs;
    std::vector<std::optional<Date>> clocks;
    std::unordered_map<int, double> posOf;
    // Recording device of each clip, where the chain joins several.
    std::vector<int> devices;
    std::map<int, Laid> laid;

    ChainCounts lay(const std::vector<int>& anchors, double base = 0) {
        clocks.resize(durs.size());
        return layoutChain(
            anchors, posOf, [&](int i) { return durs[i]; }, [&](int i) { return clocks[i]; },
            [&](int i, double pos, Placement how) {
                laid[i] = Laid{pos, how};
            },
            base, static_cast<int>(durs.size()),
            devices.empty() ? std::function<int(int)>{} : [&](int i) { return devices[i]; });
    }
};

} // namespace

TEST(LayoutChain, LongestConsistentChainKeepsWhatCanAllBeTrue) {
    struct Case {
        const char* name;
        std::vector<double> durs;
        std::vector<ChainAnchor> anchors;
        std::vector<int> expected;
    };
    const std::vector<Case> cases = {
        {"overlap within slack", {100, 50}, {{0, 0}, {1, 98}}, {0, 1}},
        {"overlap beyond slack", {100, 50}, {{0, 0}, {1, 96.9}}, {0}},
        {"pause between clips is fine", {100, 50}, {{0, 0}, {1, 5000}}, {0, 1}},
        {"wild middle anchor drops out", {100, 100, 100}, {{0, 0}, {1, -4000}, {2, 200}}, {0, 2}},
        {"reverse order: lower index wins the tie", {10, 10}, {{0, 100}, {1, 0}}, {0}},
        {"two equal predecessors: the lower one",
         {10, 10, 10},
         // Anchors 0 and 1 contradict each other; both can precede 2.
         {{0, 100}, {1, 0}, {2, 500}},
         {0, 2}},
        {"no anchors", {10}, {}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(longestConsistentChain(c.anchors, prefixOf(c.durs), 3.0), c.expected);
    }
}

TEST(LayoutChain, AnchorsOverlappingWithinSlackArePushedToTouch) {
    ChainFixture f;
    f.durs = {100, 50};
    f.posOf = {{0, 0.0}, {1, 98.0}};
    const auto counts = f.lay({0, 1});
    EXPECT_EQ(counts, (ChainCounts{0, 0}));
    EXPECT_DOUBLE_EQ(f.laid.at(0).pos, 0.0);
    EXPECT_DOUBLE_EQ(f.laid.at(1).pos, 100.0);
    EXPECT_EQ(f.laid.at(1).how, Placement::matched);
}

// Two cameras of one chain: camera 1's long take ran while camera 0 shot two clips. Audio put
// them side by side, and there they stay; camera 0's second clip still clears its first.
TEST(LayoutChain, AnchorsOfOtherDevicesRunSideBySide) {
    ChainFixture f;
    f.durs = {100, 60, 300};
    f.devices = {0, 0, 1};
    f.posOf = {{0, 1000.0}, {1, 1090.0}, {2, 995.0}};
    f.lay({0, 1, 2});
    EXPECT_DOUBLE_EQ(f.laid.at(0).pos, 1000.0);
    EXPECT_DOUBLE_EQ(f.laid.at(1).pos, 1100.0);
    EXPECT_DOUBLE_EQ(f.laid.at(2).pos, 995.0);
}

TEST(LayoutChain, ClipsBetweenAnchorsShareTheFreeTimeInEqualGaps) {
    struct Case {
        const char* name;
        std::optional<Date> anchorClock;
        std::optional<Date> clipClock;
        Placement expected;
    };
    // Clip clocks more than a week from both anchors are unusable for a lay, but they still mark
    // the spread clips as clock-placed.
    const std::vector<Case> cases = {
        {"no clocks", std::nullopt, std::nullopt, Placement::interp},
        {"clocks over a week off", 1000.0, 1000.0 + 700000.0, Placement::clock},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ChainFixture f;
        f.durs = {10, 10, 10, 10};
        f.clocks = {c.anchorClock, c.clipClock, c.clipClock, c.anchorClock};
        f.posOf = {{0, 0.0}, {3, 60.0}};
        const auto counts = f.lay({0, 3});
        EXPECT_DOUBLE_EQ(f.laid.at(1).pos, 20.0);
        EXPECT_DOUBLE_EQ(f.laid.at(2).pos, 40.0);
        EXPECT_DOUBLE_EQ(f.laid.at(3).pos, 60.0);
        EXPECT_EQ(f.laid.at(1).how, c.expected);
        EXPECT_EQ(counts.byClock + counts.byInterp, 2);
    }
}

TEST(LayoutChain, ClockLayIsRefusedWhenItStartsMoreThanToleranceBeforeItsFloor) {
    struct Case {
        double clipDur;
        double expectedPos;
    };
    // Between an anchor ending at 10 and one at 30, a clip whose clock says 10.0: the backward
    // pass pulls it to 30 - dur. Refused lays fall back to butt-joining from 10.
    const std::vector<Case> cases = {{20.04, 30.0 - 20.04}, {20.06, 10.0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.clipDur);
        ChainFixture f;
        f.durs = {10, c.clipDur, 10};
        f.clocks = {5000.0, 5010.0, std::nullopt};
        f.posOf = {{0, 0.0}, {2, 30.0}};
        const auto counts = f.lay({0, 2});
        EXPECT_NEAR(f.laid.at(1).pos, c.expectedPos, 1e-9);
        EXPECT_EQ(f.laid.at(1).how, Placement::clock);
        EXPECT_EQ(counts, (ChainCounts{1, 0}));
    }
}

TEST(LayoutChain, ClockLaidTailMayNotRunPastItsCeiling) {
    struct Case {
        const char* name;
        double clipClockAfterAnchor;
        double expectedPos;
        bool logged;
    };
    // Anchor 0 at 0 for 10 s; the tail clip lasts 100 s, so it may end at most at 10 + 200.
    const std::vector<Case> cases = {
        {"exactly at the ceiling", 110.0, 110.0, false},
        {"past the ceiling", 110.7, 10.0, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TestSupport::LogCapture log;
        ChainFixture f;
        f.durs = {10, 100};
        f.clocks = {1000.0, 1000.0 + c.clipClockAfterAnchor};
        f.posOf = {{0, 0.0}};
        const auto counts = f.lay({0});
        EXPECT_DOUBLE_EQ(f.laid.at(1).pos, c.expectedPos);
        EXPECT_EQ(f.laid.at(1).how, Placement::clock);
        EXPECT_EQ(counts, (ChainCounts{1, 0}));
        EXPECT_EQ(log.contains("clock-laid tail of 1 clip(s) from 10s reached 211s (ceiling 210s)"),
                  c.logged);
    }
}

TEST(LayoutChain, TailAllowanceStopsAtTwoHours) {
    // 8000 s of footage may reach at most from + 15200 s.
    struct Case {
        double offset;
        bool kept;
    };
    for (const auto& c : std::vector<Case>{{7200.0, true}, {7201.0, false}}) {
        SCOPED_TRACE(c.offset);
        TestSupport::LogCapture log;
        ChainFixture f;
        f.durs = {10, 8000};
        f.clocks = {0.0, 10.0 + c.offset};
        f.posOf = {{0, 0.0}};
        f.lay({0});
        EXPECT_DOUBLE_EQ(f.laid.at(1).pos, c.kept ? 10.0 + c.offset : 10.0);
    }
}

TEST(LayoutChain, TailOfAnAnchorWithoutClockButtJoinsSilently) {
    TestSupport::LogCapture log;
    ChainFixture f;
    f.durs = {10, 20, 30};
    f.clocks = {std::nullopt, 99999.0, std::nullopt};
    f.posOf = {{0, 5.0}};
    const auto counts = f.lay({0});
    EXPECT_DOUBLE_EQ(f.laid.at(1).pos, 15.0);
    EXPECT_DOUBLE_EQ(f.laid.at(2).pos, 35.0);
    EXPECT_EQ(counts, (ChainCounts{2, 0}));
    EXPECT_TRUE(log.lines().empty());
}

TEST(LayoutChain, ClipsBeforeTheFirstAnchorAreMeasuredBackwards) {
    ChainFixture f;
    f.durs = {30, 20, 10};
    f.posOf = {{2, 40.0}};
    const auto counts = f.lay({2}, 1000.0);
    // Laid back to back ending at the anchor; the base is not consulted and the start may be
    // negative.
    EXPECT_DOUBLE_EQ(f.laid.at(0).pos, -10.0);
    EXPECT_DOUBLE_EQ(f.laid.at(1).pos, 20.0);
    EXPECT_DOUBLE_EQ(f.laid.at(2).pos, 40.0);
    EXPECT_EQ(counts, (ChainCounts{0, 2}));
}

TEST(LayoutChain, WithoutAnchorsClipsRideFromBase) {
    {
        SCOPED_TRACE("only clip 3 has a clock");
        ChainFixture f;
        f.durs = {10, 20, 30, 40, 50};
        f.clocks = {std::nullopt, std::nullopt, std::nullopt, 7777.0, std::nullopt};
        const auto counts = f.lay({}, 100.0);
        EXPECT_DOUBLE_EQ(f.laid.at(0).pos, 100.0);
        EXPECT_DOUBLE_EQ(f.laid.at(1).pos, 110.0);
        EXPECT_DOUBLE_EQ(f.laid.at(2).pos, 130.0);
        EXPECT_DOUBLE_EQ(f.laid.at(3).pos, 160.0);
        EXPECT_EQ(f.laid.at(3).how, Placement::clock);
        EXPECT_EQ(f.laid.at(0).how, Placement::interp);
        EXPECT_DOUBLE_EQ(f.laid.at(4).pos, 200.0);
        EXPECT_EQ(counts, (ChainCounts{1, 4}));
    }
    {
        SCOPED_TRACE("later clock opens a pause");
        ChainFixture f;
        f.durs = {10, 10};
        f.clocks = {1000.0, 1100.0};
        const auto counts = f.lay({}, 50.0);
        EXPECT_DOUBLE_EQ(f.laid.at(0).pos, 50.0);
        EXPECT_DOUBLE_EQ(f.laid.at(1).pos, 150.0);
        EXPECT_EQ(counts, (ChainCounts{2, 0}));
    }
    {
        SCOPED_TRACE("no clips");
        ChainFixture f;
        EXPECT_EQ(f.lay({}, 50.0), (ChainCounts{0, 0}));
        EXPECT_TRUE(f.laid.empty());
    }
}

TEST(LayoutChain, NeighbourNoteNamesTheAnchorsAround) {
    const auto names = [](int i) {
        return "C" + std::to_string(i);
    };
    EXPECT_EQ(neighbourNote(2, {1, 4}, names), "between 'C1' and 'C4'");
    EXPECT_EQ(neighbourNote(5, {1, 4}, names), "after 'C4'");
    EXPECT_EQ(neighbourNote(0, {1, 4}, names), "before 'C1'");
    EXPECT_EQ(neighbourNote(0, {}, names), std::nullopt);
}
