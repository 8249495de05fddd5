#include "TessarinEngine/PairwiseOffsetSolver.h"

#include <cmath>
#include <cstddef>
#include <utility>

namespace PairwiseOffsetSolver {

namespace {

// Added to the diagonal: makes the normal equations solvable when part of the graph has no path to
// the master, at the price of pulling every position towards 0 by about one part in a million.
constexpr double kRegularisation = 1e-6;
constexpr double kSingular = 1e-12;

// Solves the square system by elimination with partial pivoting; a column without a usable pivot
// is skipped and its unknown comes out as 0.
std::vector<double> gaussianSolve(std::vector<std::vector<double>> a, std::vector<double> b) {
    const std::size_t n = b.size();
    for (std::size_t k = 0; k < n; ++k) {
        std::size_t pivot = k;
        for (std::size_t r = k + 1; r < n; ++r) {
            // Only a strictly larger entry moves the pivot, so the first of equals wins.
            if (std::abs(a[r][k]) > std::abs(a[pivot][k])) {
                pivot = r;
            }
        }
        if (pivot != k) {
            std::swap(a[pivot], a[k]);
            std::swap(b[pivot], b[k]);
        }
        if (k + 1 == n || !(std::abs(a[k][k]) > kSingular)) {
            continue;
        }
        for (std::size_t r = k + 1; r < n; ++r) {
            const double factor = a[r][k] / a[k][k];
            for (std::size_t c = k; c < n; ++c) {
                a[r][c] -= factor * a[k][c];
            }
            b[r] -= factor * b[k];
        }
    }
    std::vector<double> x(n, 0.0);
    for (std::size_t i = n; i-- > 0;) {
        double s = b[i];
        for (std::size_t j = i + 1; j < n; ++j) {
            s -= a[i][j] * x[j];
        }
        x[i] = std::abs(a[i][i]) > kSingular ? s / a[i][i] : 0.0;
    }
    return x;
}

} // namespace

std::vector<double> solve(int nodeCount, int master, const std::vector<Measurement>& measurements) {
    if (nodeCount <= 0) {
        return {};
    }
    if (nodeCount == 1) {
        return {0.0};
    }
    // place[node] is the node's row among the unknowns, or -1 for the master.
    std::vector<int> place(static_cast<std::size_t>(nodeCount), -1);
    std::vector<int> unknowns;
    for (int node = 0; node < nodeCount; ++node) {
        if (node != master) {
            place[static_cast<std::size_t>(node)] = static_cast<int>(unknowns.size());
            unknowns.push_back(node);
        }
    }
    auto placeOf = [&](int node) {
        return node >= 0 && node < nodeCount ? place[static_cast<std::size_t>(node)] : -1;
    };

    const std::size_t n = unknowns.size();
    std::vector<std::vector<double>> a(n, std::vector<double>(n, 0.0));
    std::vector<double> b(n, 0.0);
    // The normal equations of minimising the sum of w * (x[to] - x[from] - offset)^2, with every
    // node that is not an unknown held at 0.
    for (const auto& m : measurements) {
        const double w = m.weight;
        if (m.from == m.to || !(w > 0) || n == 0) {
            continue;
        }
        const int f = placeOf(m.from);
        const int t = placeOf(m.to);
        if (f >= 0) {
            a[f][f] += w;
            b[f] -= m.offset * w;
        }
        if (t >= 0) {
            a[t][t] += w;
            b[t] += m.offset * w;
        }
        if (f >= 0 && t >= 0) {
            a[f][t] -= w;
            a[t][f] -= w;
        }
    }
    for (std::size_t i = 0; i < n; ++i) {
        a[i][i] += kRegularisation;
    }
    const auto x = gaussianSolve(std::move(a), std::move(b));

    std::vector<double> positions(static_cast<std::size_t>(nodeCount), 0.0);
    for (std::size_t i = 0; i < n; ++i) {
        positions[static_cast<std::size_t>(unknowns[i])] = x[i];
    }
    return positions;
}

} // namespace PairwiseOffsetSolver
