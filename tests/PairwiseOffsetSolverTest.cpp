#include "TessarinEngine/PairwiseOffsetSolver.h"

#include <cmath>
#include <gtest/gtest.h>
#include <random>

using PairwiseOffsetSolver::Measurement;
using PairwiseOffsetSolver::solve;

namespace {

void expectPositions(const std::vector<double>& actual, const std::vector<double>& expected,
                     double tolerance) {
    ASSERT_EQ(actual.size(), expected.size());
    for (std::size_t i = 0; i < actual.size(); ++i) {
        EXPECT_NEAR(actual[i], expected[i], tolerance) << "node " << i;
    }
}

} // namespace

TEST(PairwiseOffsetSolver, OneMeasurementIsPulledSlightlyTowardsZero) {
    // The normal equation of node 1 is (1 + 1e-6) x = 5.
    const double pulled = 5.0 / (1.0 + 1e-6);
    const std::vector<Measurement> forward{{0, 1, 5.0, 1.0f}};
    const std::vector<Measurement> reversed{{1, 0, -5.0, 1.0f}};
    for (const auto& ms : {forward, reversed}) {
        const auto x = solve(2, 0, ms);
        ASSERT_EQ(x.size(), 2u);
        EXPECT_EQ(x[0], 0.0);
        EXPECT_NEAR(x[1], pulled, 1e-12);
        EXPECT_LT(x[1], 5.0);
    }
    // With the other node as master, node 0 sits 5 before it.
    expectPositions(solve(2, 1, forward), {-pulled, 0.0}, 1e-12);
}

TEST(PairwiseOffsetSolver, InconsistentTriangleSpreadsTheResidual) {
    const std::vector<Measurement> triangle{
        {0, 1, 1.0, 1.0f}, {1, 2, 1.0, 1.0f}, {0, 2, 3.0, 1.0f}};
    expectPositions(solve(3, 0, triangle), {0.0, 4.0 / 3.0, 8.0 / 3.0}, 1e-5);

    // A doubled weight on the direct edge pulls node 2 towards it: minimising
    // (x1 - 1)^2 + (x2 - x1 - 1)^2 + 2 (x2 - 3)^2 gives x1 = 1.4, x2 = 2.8.
    auto weighted = triangle;
    weighted[2].weight = 2.0f;
    expectPositions(solve(3, 0, weighted), {0.0, 1.4, 2.8}, 1e-5);
}

TEST(PairwiseOffsetSolver, RecoversConsistentPositionsOnALargerGraph) {
    std::mt19937 rng(3);
    std::uniform_real_distribution<double> place(-500.0, 500.0);
    std::uniform_real_distribution<float> weight(0.5f, 20.0f);
    const int nodes = 12;
    const int master = 4;
    std::vector<double> truth(nodes);
    for (auto& t : truth) {
        t = place(rng);
    }
    truth[master] = 0.0;
    std::vector<Measurement> ms;
    for (int i = 0; i < nodes; ++i) {
        for (int j : {(i + 1) % nodes, (i + 5) % nodes}) {
            ms.push_back({i, j, truth[std::size_t(j)] - truth[std::size_t(i)], weight(rng)});
        }
    }
    // Positions of a few hundred seconds move by about 1e-6 of themselves under the pull to 0.
    expectPositions(solve(nodes, master, ms), truth, 1e-3);
}

TEST(PairwiseOffsetSolver, MeasurementsWithoutUseChangeNothing) {
    const std::vector<Measurement> base{{0, 1, 2.0, 1.0f}, {1, 2, 3.0, 2.0f}};
    const auto expected = solve(4, 0, base);
    expectPositions(expected, {0.0, 2.0, 5.0, 0.0}, 1e-4); // node 3 has no measurement
    struct Case {
        const char* what;
        Measurement extra;
    };
    const Case cases[] = {{"zero weight", {0, 2, 100.0, 0.0f}},
                          {"negative weight", {0, 2, 100.0, -3.0f}},
                          {"weight not a number", {1, 2, 100.0, std::nanf("")}},
                          {"self-measurement", {2, 2, 100.0, 5.0f}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        auto ms = base;
        ms.insert(ms.begin() + 1, c.extra);
        EXPECT_EQ(solve(4, 0, ms), expected);
    }
}

TEST(PairwiseOffsetSolver, OddGraphsAndSizes) {
    EXPECT_TRUE(solve(0, 0, {{0, 1, 1.0, 1.0f}}).empty());
    EXPECT_TRUE(solve(-2, 0, {}).empty());
    EXPECT_EQ(solve(1, 0, {{0, 1, 7.0, 1.0f}}), std::vector<double>{0.0});

    // Two nodes measured only against each other keep their offset, centred on 0.
    const auto apart = solve(3, 0, {{1, 2, 4.0, 1.0f}});
    EXPECT_NEAR(apart[2] - apart[1], 4.0, 1e-5);
    EXPECT_NEAR(apart[1] + apart[2], 0.0, 1e-5);

    // A node index outside the range is fixed at 0, like the master.
    expectPositions(solve(3, 0, {{7, 1, 3.0, 1.0f}, {1, 2, 1.0, 1.0f}}), {0.0, 3.0, 4.0}, 1e-4);

    // A master outside the range fixes no node: every node is free, centred by the pull to 0.
    const auto free = solve(2, 9, {{0, 1, 6.0, 1.0f}});
    EXPECT_NEAR(free[0], -3.0, 1e-5);
    EXPECT_NEAR(free[1], 3.0, 1e-5);
}
