#include "TessarinEngine/SyncCorrelator.h"

#include <cmath>
#include <gtest/gtest.h>
#include <random>

namespace {

std::vector<float> randomValues(std::size_t count, std::mt19937& rng) {
    std::normal_distribution<float> dist(0.0f, 1.0f);
    std::vector<float> v(count);
    for (auto& x : v) {
        x = dist(rng);
    }
    return v;
}

// 2 * sum over n of a[(n + k) mod N] * b[n], with both inputs cut to N, straight from the sums.
std::vector<double> bruteCorrelation(const std::vector<float>& a, const std::vector<float>& b,
                                     std::size_t size) {
    std::vector<double> r(size, 0.0);
    for (std::size_t k = 0; k < size; ++k) {
        for (std::size_t n = 0; n < std::min(b.size(), size); ++n) {
            const std::size_t i = (n + k) % size;
            if (i < a.size()) {
                r[k] += 2.0 * a[i] * b[n];
            }
        }
    }
    return r;
}

} // namespace

TEST(SyncCorrelator, MatchesDirectCorrelationAtEveryLag) {
    struct Case {
        std::size_t a, b, size;
    };
    // Sizes: the smallest allowed, an exact power of two, one past it, a long reference against
    // a short clip, and inputs cut because one is longer than the transform.
    const Case cases[] = {{4, 4, 8},       {9, 8, 16},  {9, 9, 32},      {100, 37, 256},
                          {1000, 1, 1024}, {17, 0, 16}, {300, 300, 1024}};
    std::mt19937 rng(11);
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "a " << c.a << ", b " << c.b);
        const auto a = randomValues(c.a, rng);
        const auto b = randomValues(c.b, rng);
        const auto r = SyncCorrelator::fftCrossCorrelate(a, b);
        ASSERT_TRUE(r.has_value());
        ASSERT_EQ(r->size(), c.size);
        const auto expected = bruteCorrelation(a, b, c.size);
        // Float rounding of the transforms grows with the energy of the inputs and log N.
        const double tolerance = 1e-5 * 2.0 * std::sqrt(double(c.a + 1) * double(c.b + 1)) + 1e-6;
        for (std::size_t k = 0; k < c.size; ++k) {
            ASSERT_NEAR((*r)[k], expected[k], tolerance) << "lag index " << k;
        }
    }
}

TEST(SyncCorrelator, RefusesTooShortInputs) {
    const std::vector<float> one{1.0f};
    EXPECT_FALSE(SyncCorrelator::fftCrossCorrelate(one, one).has_value()) << "n = 1";
    EXPECT_FALSE(SyncCorrelator::fftCrossCorrelate({1.0f, 2.0f}, one).has_value()) << "N = 2";
    EXPECT_FALSE(SyncCorrelator::fftCrossCorrelate({1, 2, 3}, {1, 2}).has_value()) << "N = 4";
    EXPECT_FALSE(SyncCorrelator::fftCrossCorrelate({}, {}).has_value());
}

TEST(SyncCorrelator, DelayedImpulseLandsAtItsLagWithFactorTwo) {
    const std::vector<float> a{0, 0, 0, 1, 0, 0, 0, 0};
    const std::vector<float> b{1, 0, 0, 0};
    const auto r = SyncCorrelator::fftCrossCorrelate(a, b);
    ASSERT_TRUE(r.has_value());
    ASSERT_EQ(r->size(), 16u);
    for (std::size_t k = 0; k < r->size(); ++k) {
        EXPECT_NEAR((*r)[k], k == 3 ? 2.0f : 0.0f, 1e-6f) << k;
    }
    // The clip starting before the reference shows as a negative lag, at N - m.
    const auto early = SyncCorrelator::fftCrossCorrelate(b, a);
    ASSERT_TRUE(early.has_value());
    EXPECT_NEAR((*early)[16 - 3], 2.0f, 1e-6f);
}

TEST(SyncCorrelator, EnvelopeIsBlockRms) {
    std::vector<float> samples;
    samples.insert(samples.end(), 160, 3.0f);
    for (int i = 0; i < 160; ++i) {
        samples.push_back(i % 2 ? 2.0f : -2.0f);
    }
    samples.insert(samples.end(), 100, 9.0f); // a partial block, dropped
    EXPECT_EQ(CrossCorrelator::magnitudeEnvelope(samples, 160), (std::vector<float>{3.0f, 2.0f}));

    const std::vector<float> short319(samples.begin(), samples.begin() + 319);
    EXPECT_EQ(CrossCorrelator::magnitudeEnvelope(short319, 160).size(), 1u);
    EXPECT_TRUE(CrossCorrelator::magnitudeEnvelope({1, 2, 3}, 160).empty());
    EXPECT_TRUE(CrossCorrelator::magnitudeEnvelope({1, 2, 3}, 0).empty());
}
