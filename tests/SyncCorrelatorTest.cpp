#include "TessarinEngine/SyncCorrelator.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <random>

TEST(SyncCorrelator, MatchesDirectCorrelationAtEveryLag) {
    struct Case {
        std::size_t a, b, size;
    };
    // The smallest transform, an exact power of two, one past it, a long reference against a
    // short clip, and an input cut because it is longer than the transform.
    const Case cases[] = {{4, 4, 8}, {9, 8, 16}, {9, 9, 32}, {100, 37, 256}, {17, 0, 16}};
    std::mt19937 rng(11);
    std::normal_distribution<float> dist(0.0f, 1.0f);
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "a " << c.a << ", b " << c.b);
        std::vector<float> a(c.a), b(c.b);
        for (auto* v : {&a, &b}) {
            std::generate(v->begin(), v->end(), [&] { return dist(rng); });
        }
        const auto r = SyncCorrelator::fftCrossCorrelate(a, b);
        ASSERT_TRUE(r.has_value());
        ASSERT_EQ(r->size(), c.size);
        // Float rounding of the transforms grows with the energy of the inputs.
        const double tolerance = 2e-5 * std::sqrt(double(c.a + 1) * double(c.b + 1)) + 1e-6;
        for (std::size_t k = 0; k < c.size; ++k) {
            // 2 * sum over n of a[(n + k) mod N] * b[n]: a negative lag -m stands at N - m.
            double expected = 0;
            for (std::size_t n = 0; n < std::min(c.b, c.size); ++n) {
                if ((n + k) % c.size < c.a) {
                    expected += 2.0 * a[(n + k) % c.size] * b[n];
                }
            }
            ASSERT_NEAR((*r)[k], expected, tolerance) << "lag index " << k;
        }
    }
    EXPECT_FALSE(SyncCorrelator::fftCrossCorrelate({1, 2, 3}, {1, 2}).has_value()) << "N = 4";
    EXPECT_FALSE(SyncCorrelator::fftCrossCorrelate({}, {}).has_value());
}

TEST(SyncCorrelator, EnvelopeIsBlockRms) {
    std::vector<float> samples(160, 3.0f);
    for (int i = 0; i < 160; ++i) {
        samples.push_back(i % 2 ? 2.0f : -2.0f);
    }
    samples.insert(samples.end(), 100, 9.0f); // a partial block, dropped
    EXPECT_EQ(CrossCorrelator::magnitudeEnvelope(samples, 160), (std::vector<float>{3.0f, 2.0f}));
    EXPECT_TRUE(CrossCorrelator::magnitudeEnvelope({1, 2, 3}, 160).empty());
    EXPECT_TRUE(CrossCorrelator::magnitudeEnvelope({1, 2, 3}, 0).empty());
}
