#include "TessarinEngine/PairwiseOffsetSolver.h"

#include <cmath>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>

using PairwiseOffsetSolver::Measurement;
using PairwiseOffsetSolver::solve;

namespace {

auto near(std::vector<double> expected, double tolerance) {
    return testing::Pointwise(testing::DoubleNear(tolerance), std::move(expected));
}

} // namespace

TEST(PairwiseOffsetSolver, HandWorkedAndOddGraphs) {
    // One edge, either way round: the normal equation of node 1 is (1 + 1e-6) x = 5.
    EXPECT_THAT(solve(2, 0, {{0, 1, 5.0, 1.0f}}), near({0.0, 5.0 / (1.0 + 1e-6)}, 1e-12));
    EXPECT_THAT(solve(2, 0, {{1, 0, -5.0, 1.0f}}), near({0.0, 5.0 / (1.0 + 1e-6)}, 1e-12));

    // An inconsistent triangle spreads the residual; a doubled weight on the direct edge pulls
    // node 2 towards it: minimising (x1 - 1)^2 + (x2 - x1 - 1)^2 + 2 (x2 - 3)^2 gives 1.4, 2.8.
    std::vector<Measurement> triangle{{0, 1, 1.0, 1.0f}, {1, 2, 1.0, 1.0f}, {0, 2, 3.0, 1.0f}};
    EXPECT_THAT(solve(3, 0, triangle), near({0.0, 4.0 / 3.0, 8.0 / 3.0}, 1e-5));
    triangle[2].weight = 2.0f;
    EXPECT_THAT(solve(3, 0, triangle), near({0.0, 1.4, 2.8}, 1e-5));

    EXPECT_TRUE(solve(0, 0, {{0, 1, 1.0, 1.0f}}).empty());
    EXPECT_EQ(solve(1, 0, {{0, 1, 7.0, 1.0f}}), std::vector<double>{0.0});

    // Two nodes measured only against each other keep their offset, centred on 0.
    EXPECT_THAT(solve(3, 0, {{1, 2, 4.0, 1.0f}}), near({0.0, -2.0, 2.0}, 1e-5));
    // A node index outside the range is fixed at 0, like the master.
    EXPECT_THAT(solve(3, 0, {{7, 1, 3.0, 1.0f}, {1, 2, 1.0, 1.0f}}), near({0.0, 3.0, 4.0}, 1e-4));
    // A master outside the range fixes no node: both are free, centred by the pull to 0.
    EXPECT_THAT(solve(2, 9, {{0, 1, 6.0, 1.0f}}), near({-3.0, 3.0}, 1e-5));
}

TEST(PairwiseOffsetSolver, RecoversConsistentPositionsOnALargerGraph) {
    std::mt19937 rng(3);
    std::uniform_real_distribution<double> place(-500.0, 500.0);
    std::uniform_real_distribution<float> weight(0.5f, 20.0f);
    std::vector<double> truth(12);
    for (auto& t : truth) {
        t = place(rng);
    }
    truth[4] = 0.0; // the master
    std::vector<Measurement> ms;
    for (int i = 0; i < 12; ++i) {
        for (int j : {(i + 1) % 12, (i + 5) % 12}) {
            ms.push_back({i, j, truth[std::size_t(j)] - truth[std::size_t(i)], weight(rng)});
        }
    }
    // Positions of a few hundred seconds move by about 1e-6 of themselves under the pull to 0.
    EXPECT_THAT(solve(12, 4, ms), near(truth, 1e-3));
}

TEST(PairwiseOffsetSolver, MeasurementsWithoutUseChangeNothing) {
    const std::vector<Measurement> base{{0, 1, 2.0, 1.0f}, {1, 2, 3.0, 2.0f}};
    const auto expected = solve(4, 0, base);
    EXPECT_THAT(expected, near({0.0, 2.0, 5.0, 0.0}, 1e-4)); // node 3 has no measurement
    const Measurement extras[] = {{0, 2, 100.0, 0.0f},
                                  {0, 2, 100.0, -3.0f},
                                  {1, 2, 100.0, std::nanf("")},
                                  {2, 2, 100.0, 5.0f}};
    for (const auto& extra : extras) {
        SCOPED_TRACE(testing::Message() << extra.from << "->" << extra.to << " w " << extra.weight);
        auto ms = base;
        ms.insert(ms.begin() + 1, extra);
        EXPECT_EQ(solve(4, 0, ms), expected);
    }
}
