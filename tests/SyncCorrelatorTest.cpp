#include "TessarinEngine/SyncCorrelator.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <random>

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
