#include "TessarinEngine/SyncEngine/Chain.h"
#include "tests/support/TestSupport.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>

using namespace SyncEngine;

namespace {

using Clocks = std::vector<std::optional<Date>>;

struct Laid {
    std::vector<double> pos;
    ChainCounts counts;
};

// Lays a chain of clips of `durs` (with `clocks`, and recorded by `devices` where the chain joins
// several) around the anchors at `posOf`.
Laid lay(const std::vector<double>& durs, Clocks clocks,
         const std::unordered_map<int, double>& posOf, double base = 0,
         const std::vector<int>& devices = {}) {
    clocks.resize(durs.size());
    std::vector<int> anchors;
    for (const auto& [i, pos] : posOf) {
        anchors.push_back(i);
    }
    std::sort(anchors.begin(), anchors.end());
    const auto n = durs.size();
    Laid laid{std::vector<double>(n, NAN), {}};
    laid.counts = layoutChain(
        anchors, posOf, [&](int i) { return durs[i]; }, [&](int i) { return clocks[i]; },
        [&](int i, double pos, Placement) { laid.pos[i] = pos; }, base, static_cast<int>(n),
        devices.empty() ? std::function<int(int)>{} : [&](int i) { return devices[i]; });
    return laid;
}

} // namespace

TEST(LayoutChain, LongestConsistentChainKeepsWhatCanAllBeTrue) {
    // Name, clip durations, anchors, the anchors kept.
    const std::tuple<const char*, std::vector<double>, std::vector<ChainAnchor>, std::vector<int>>
        cases[] = {
            {"overlap within slack", {100, 50}, {{0, 0}, {1, 98}}, {0, 1}},
            {"overlap beyond slack", {100, 50}, {{0, 0}, {1, 96.9}}, {0}},
            {"wild middle anchor", {100, 100, 100}, {{0, 0}, {1, -4000}, {2, 200}}, {0, 2}},
            {"reverse order: lower index wins the tie", {10, 10}, {{0, 100}, {1, 0}}, {0}},
            // Anchors 0 and 1 contradict each other; both can precede 2.
            {"equal predecessors", {10, 10, 10}, {{0, 100}, {1, 0}, {2, 500}}, {0, 2}},
            {"no anchors", {10}, {}, {}},
        };
    for (const auto& [name, durs, anchors, expected] : cases) {
        std::vector<double> prefix{0.0};
        for (double d : durs) {
            prefix.push_back(prefix.back() + d);
        }
        EXPECT_EQ(longestConsistentChain(anchors, prefix, 3.0), expected) << name;
    }
}

TEST(LayoutChain, ClipsAreLaidByClockOrSpreadAroundTheAnchors) {
    struct Case {
        const char* name;
        std::vector<double> durs;
        Clocks clocks;
        std::unordered_map<int, double> anchors;
        std::vector<double> expected;
        ChainCounts counts;
        double base = 0;
        bool logged = false;
    };
    const Clocks lateClock = {{}, {}, {}, 7777};
    const std::vector<Case> cases = {
        // Anchors that overlap within the slack are pushed to touch.
        {"touching", {100, 50}, {}, {{0, 0}, {1, 98}}, {0, 100}, {0, 0}},
        // Clips between anchors share the free time in equal gaps.
        {"spread", {10, 10, 10, 10}, {}, {{0, 0}, {3, 60}}, {0, 20, 40, 60}, {0, 2}},
        // Clocks over a week from both anchors are no use for a lay, yet still mark the spread
        // clips as clock-placed.
        {"week", {10, 10, 10, 10}, {0, 7e5, 7e5, 0}, {{0, 0}, {3, 60}}, {0, 20, 40, 60}, {2, 0}},
        // A clock lay between anchors at 0 and 30 says 10; the backward pass pulls it to
        // 30 - dur, which may start up to 0.05 s before its floor, else it butt-joins from 10.
        {"0.04 s early", {10, 20.04, 10}, {0, 10}, {{0, 0}, {2, 30}}, {0, 9.96, 30}, {1, 0}},
        {"0.06 s early", {10, 20.06, 10}, {0, 10}, {{0, 0}, {2, 30}}, {0, 10, 30}, {1, 0}},
        // A clock-laid tail may end its own length, at most two hours, after where butt-joining
        // would end it.
        {"tail at ceiling", {10, 100}, {0, 110}, {{0, 0}}, {0, 110}, {1, 0}},
        {"tail past ceiling", {10, 100}, {0, 110.7}, {{0, 0}}, {0, 10}, {1, 0}, 0, true},
        {"long tail at 2 h", {10, 8000}, {0, 7210}, {{0, 0}}, {0, 7210}, {1, 0}},
        {"long tail past 2 h", {10, 8000}, {0, 7211}, {{0, 0}}, {0, 10}, {1, 0}, 0, true},
        // The tail of an anchor without clock butt-joins, whatever its own clocks say.
        {"unclocked anchor", {10, 20, 30}, {std::nullopt, 99999}, {{0, 5}}, {5, 15, 35}, {2, 0}},
        // Clips before the first anchor are measured backwards from it, never from the base.
        {"before the first", {30, 20, 10}, {}, {{2, 40}}, {-10, 20, 40}, {0, 2}, 1000},
        // Without anchors clips ride from the base; a later clock opens a pause.
        {"free", {10, 20, 30, 40, 5}, lateClock, {}, {100, 110, 130, 160, 200}, {1, 4}, 100},
        {"pause", {10, 10}, {1000, 1100}, {}, {50, 150}, {2, 0}, 50},
        {"no clips", {}, {}, {}, {}, {0, 0}, 50},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TestSupport::LogCapture log;
        const auto laid = lay(c.durs, c.clocks, c.anchors, c.base);
        ASSERT_EQ(laid.pos.size(), c.expected.size());
        for (std::size_t i = 0; i < c.expected.size(); ++i) {
            EXPECT_NEAR(laid.pos[i], c.expected[i], 1e-9) << i;
        }
        EXPECT_EQ(laid.counts, c.counts);
        EXPECT_EQ(log.contains("clock-laid tail of 1 clip(s) from 10s reached"), c.logged);
    }
}

// Two cameras of one chain: camera 1's long take ran while camera 0 shot two clips. Audio put
// them side by side, and there they stay; camera 0's second clip still clears its first.
TEST(LayoutChain, AnchorsOfOtherDevicesRunSideBySide) {
    const auto laid = lay({100, 60, 300}, {}, {{0, 1000.0}, {1, 1090.0}, {2, 995.0}}, 0, {0, 0, 1});
    EXPECT_EQ(laid.pos, (std::vector<double>{1000, 1100, 995}));
}
