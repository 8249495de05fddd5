#pragma once

#include <vector>

namespace PairwiseOffsetSolver {

// One measured offset between two nodes: position of `to` minus position of `from`, in the
// caller's unit. A weight that is zero, negative or not a number leaves the measurement out.
struct Measurement {
    int from = 0;
    int to = 0;
    double offset = 0;
    float weight = 0;
    bool operator==(const Measurement&) const = default;
};

// One position per node (nodeCount entries) that best agrees with the measurements in the
// weighted least-squares sense, with the master fixed at 0. A slight pull of every node towards 0
// keeps nodes without a path to the master solvable; a node with no measurement stays at 0. Node
// indices outside 0 ... nodeCount - 1 count as fixed at 0, and a master outside that range fixes
// no node. A negative nodeCount gives an empty result.
std::vector<double> solve(int nodeCount, int master, const std::vector<Measurement>& measurements);

} // namespace PairwiseOffsetSolver
