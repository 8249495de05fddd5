#include "TessarinEngine/SpectralBands.h"

#include "TessarinEngine/SyncCorrelator.h"
#include "tests/support/TestSupport.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <limits>
#include <map>
#include <numbers>
#include <random>
#include <thread>

using SpectralBands::Feature;
using SpectralBands::Peak;

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kMaxFinite = std::numeric_limits<double>::max();

std::vector<double> zscoreDouble(std::vector<double> v) {
    double mean = 0;
    for (double x : v) {
        mean += x;
    }
    mean /= double(v.size());
    double squares = 0;
    for (auto& x : v) {
        x -= mean;
        squares += x * x;
    }
    const double rms = std::sqrt(squares / double(v.size()));
    if (rms > 1e-9) {
        for (auto& x : v) {
            x /= rms;
        }
    }
    return v;
}

Feature randomFeature(int frames, std::mt19937& rng) {
    std::normal_distribution<float> dist(0.0f, 1.0f);
    Feature::Bands bands(8, std::vector<float>(std::size_t(frames)));
    for (auto& band : bands) {
        for (auto& v : band) {
            v = dist(rng);
        }
    }
    return Feature(std::move(bands), frames);
}

// The frames [start, start + count) of a feature with noise added, not re-normalised.
Feature noisyExcerpt(const Feature& f, int start, int count, float noise, std::mt19937& rng) {
    std::normal_distribution<float> dist(0.0f, noise);
    Feature::Bands bands;
    for (std::size_t i = 0; i < f.bandCount(); ++i) {
        const auto& band = f.band(i);
        bands.emplace_back(band.begin() + start, band.begin() + start + count);
        for (auto& v : bands.back()) {
            v += dist(rng);
        }
    }
    return Feature(std::move(bands), count);
}

// Noise whose loudness and colour change every 0.1 s, so that every band moves over time.
std::vector<float> textureAudio(std::size_t samples, unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> noise(0.0f, 1.0f);
    std::uniform_real_distribution<float> level(0.002f, 0.3f);
    std::uniform_real_distribution<float> tilt(0.0f, 0.95f);
    std::vector<float> pcm(samples);
    float gain = level(rng), pole = tilt(rng), state = 0;
    for (std::size_t i = 0; i < samples; ++i) {
        if (i % 1600 == 0) {
            gain = level(rng);
            pole = tilt(rng);
        }
        state = pole * state + (1 - pole) * noise(rng);
        pcm[i] = gain * state;
    }
    return pcm;
}

struct BruteSearch {
    std::vector<Peak> peaks;
    std::map<long, float> scoreAt; // every candidate lag's score
};

// The whole search done the slow, plain way: direct circular correlations in double, every
// candidate sorted, separation checked against every accepted lag.
BruteSearch brutePeaks(const Feature& clip, const Feature& ref, double minOffsetSec,
                       double maxOffsetSec, double minOverlapSec, int topK,
                       double minSeparationSec) {
    BruteSearch out;
    const long nc = clip.frames, nr = ref.frames;
    if (topK < 1 || nc < 5 || nr < 5 || nr <= nc || clip.bandCount() != ref.bandCount()) {
        return out;
    }
    long size = 2;
    while (size < nc + nr - 1) {
        size *= 2;
    }
    std::vector<double> summed(std::size_t(size), 0.0);
    bool used = false;
    for (std::size_t i = 0; i < clip.bandCount(); ++i) {
        const auto& a = ref.band(i);
        const auto& b = clip.band(i);
        std::vector<double> r(std::size_t(size), 0.0);
        double squares = 0;
        for (long k = 0; k < size; ++k) {
            for (long n = 0; n < nc; ++n) {
                const long j = (n + k) % size;
                if (j < nr) {
                    r[std::size_t(k)] += 2.0 * a[std::size_t(j)] * b[std::size_t(n)];
                }
            }
            squares += r[std::size_t(k)] * r[std::size_t(k)];
        }
        const double rms = std::sqrt(squares / double(size));
        if (rms > 1e-9) {
            for (long k = 0; k < size; ++k) {
                summed[std::size_t(k)] += r[std::size_t(k)] / rms;
            }
            used = true;
        }
    }
    if (!used) {
        return out;
    }
    const long overlap = long(minOverlapSec * 25.0);
    const long lo = overlap - nc, hi = nr - overlap;
    if (nc <= overlap || hi < lo) {
        return out;
    }
    auto bound = [&](double sec, long none) {
        const double f = sec * 25.0;
        return std::isfinite(f) ? std::clamp(long(std::round(f)), lo, hi) : none;
    };
    const long first = bound(minOffsetSec, lo), last = bound(maxOffsetSec, hi);
    if (last < first) {
        return out;
    }
    auto at = [&](long lag) {
        return summed[std::size_t(lag < 0 ? lag + size : lag)];
    };
    double s1 = 0, s2 = 0;
    for (long lag = first; lag <= last; ++lag) {
        s1 += at(lag);
        s2 += at(lag) * at(lag);
    }
    const double count = double(last - first + 1);
    const double mean = s1 / count;
    const double spread = std::sqrt(std::max(0.0, s2 / count - mean * mean));
    if (spread <= 1e-6) {
        return out;
    }
    std::vector<std::pair<float, long>> candidates;
    for (long lag = first; lag <= last; ++lag) {
        const double left = lag > first ? at(lag - 1) : -1e300;
        const double right = lag < last ? at(lag + 1) : -1e300;
        if (left <= at(lag) && right <= at(lag)) {
            const auto score = float((at(lag) - mean) / spread);
            candidates.push_back({score, lag});
            out.scoreAt[lag] = score;
        }
    }
    std::stable_sort(candidates.begin(), candidates.end(),
                     [](const auto& x, const auto& y) { return x.first > y.first; });
    const long separation = std::max(1L, long(std::round(minSeparationSec * 25.0)));
    std::vector<long> accepted;
    for (const auto& [score, lag] : candidates) {
        if (std::any_of(accepted.begin(), accepted.end(),
                        [&](long other) { return std::abs(other - lag) < separation; })) {
            continue;
        }
        accepted.push_back(lag);
        out.peaks.push_back({double(lag) / 25.0, score});
        if (long(accepted.size()) == topK) {
            break;
        }
    }
    return out;
}

void expectSamePeaks(const std::vector<Peak>& actual, const BruteSearch& expected) {
    ASSERT_EQ(actual.size(), expected.peaks.size());
    for (std::size_t i = 0; i < actual.size(); ++i) {
        SCOPED_TRACE(testing::Message() << "peak " << i);
        EXPECT_NEAR(actual[i].score, expected.peaks[i].score, 2e-3);
        if (actual[i].offsetSeconds != expected.peaks[i].offsetSeconds) {
            // Only a near tie may come out in the other order.
            const long lag = std::lround(actual[i].offsetSeconds * 25.0);
            ASSERT_TRUE(expected.scoreAt.count(lag)) << actual[i].offsetSeconds;
            EXPECT_NEAR(expected.scoreAt.at(lag), expected.peaks[i].score, 2e-3);
        }
    }
}

} // namespace

TEST(SpectralBands, ComputeMatchesDirectWindowedTransform) {
    // Eight frames of noise whose level changes from frame to frame, quiet enough that the band
    // powers sit around 1, where log1p is far from a pure logarithm: a wrong window or power
    // scale then changes the normalised values.
    const std::size_t frames = 8;
    std::vector<float> pcm(1024 + 640 * (frames - 1));
    std::mt19937 rng(5);
    std::normal_distribution<float> noise(0.0f, 1.0f);
    for (std::size_t i = 0; i < pcm.size(); ++i) {
        pcm[i] = noise(rng) * (0.003f + 0.01f * float((i / 640) % 5));
    }
    const Feature f = SpectralBands::compute(pcm);
    ASSERT_EQ(f.frames, int(frames));
    ASSERT_EQ(f.bandCount(), 8u);

    const int edges[9] = {1, 2, 4, 10, 22, 49, 107, 234, 512};
    std::vector<std::vector<double>> expected(8, std::vector<double>(frames));
    for (std::size_t t = 0; t < frames; ++t) {
        std::vector<double> x(1024);
        for (std::size_t n = 0; n < 1024; ++n) {
            x[n] = pcm[640 * t + n] * 0.8165 * (1 - std::cos(2 * std::numbers::pi * n / 1024.0));
        }
        for (int b = 0; b < 8; ++b) {
            double power = 0;
            for (int m = edges[b]; m < edges[b + 1]; ++m) {
                double re = 0, im = 0;
                for (std::size_t n = 0; n < 1024; ++n) {
                    const double phase = 2 * std::numbers::pi * double(m) * double(n) / 1024.0;
                    re += x[n] * std::cos(phase);
                    im -= x[n] * std::sin(phase);
                }
                power += 4 * (re * re + im * im);
            }
            expected[std::size_t(b)][t] = std::log1p(power);
        }
    }
    for (std::size_t b = 0; b < 8; ++b) {
        const auto z = zscoreDouble(expected[b]);
        for (std::size_t t = 0; t < frames; ++t) {
            EXPECT_NEAR(f.band(b)[t], z[t], 1e-3) << "band " << b << " frame " << t;
        }
    }
}

TEST(SpectralBands, FrameCountFollowsWholeWindows) {
    const std::pair<std::size_t, int> cases[] = {{0, 0},    {1023, 0},       {3583, 0},
                                                 {3584, 5}, {3584 + 639, 5}, {3584 + 640, 6}};
    for (const auto& [samples, frames] : cases) {
        SCOPED_TRACE(testing::Message() << samples << " samples");
        const auto f = SpectralBands::compute(textureAudio(samples, 3));
        EXPECT_EQ(f.frames, frames);
        EXPECT_EQ(f.bandCount(), frames ? 8u : 0u);
        for (std::size_t b = 0; b < f.bandCount(); ++b) {
            EXPECT_EQ(f.band(b).size(), std::size_t(frames));
        }
    }
}

TEST(SpectralBands, SilenceGivesZeroBandsAndNoMatch) {
    const auto silent = SpectralBands::compute(std::vector<float>(16000 * 20, 0.0f));
    ASSERT_EQ(silent.frames, 499);
    for (std::size_t b = 0; b < 8; ++b) {
        EXPECT_TRUE(std::all_of(silent.band(b).begin(), silent.band(b).end(),
                                [](float v) { return v == 0.0f; }));
    }
    const auto clip = SpectralBands::slice(silent, 3.0, 10.0);
    ASSERT_TRUE(clip.has_value());
    EXPECT_TRUE(SpectralBands::peaks(*clip, silent, -kInf, kInf, 1.0, 3, 0.5).empty());
}

TEST(SpectralBands, SliceRoundsHalvesAwayFromZeroAndRenormalises) {
    // Values with no affine relation between stretches, so a wrong start shows after z-scoring.
    Feature::Bands bands(8, std::vector<float>(100));
    for (std::size_t b = 0; b < 8; ++b) {
        for (std::size_t t = 0; t < 100; ++t) {
            bands[b][t] = float((t * t + 7 * b) % 23) + 0.1f * float(t);
        }
    }
    const Feature f(bands, 100);
    struct Case {
        double from, duration;
        int start, count; // count 0: nothing
    };
    const Case cases[] = {{0.0, 0.18, 0, 5},         {0.0, 0.17, 0, 0},        {-1.0, 2.0, 0, 50},
                          {0.02, 1.0, 1, 25},        {-0.02, 1.0, 0, 25},      {0.0, 0.22, 0, 6},
                          {2.0, 2.0, 50, 50},        {2.02, 2.0, 0, 0},        {0.0, 4.0, 0, 100},
                          {0.0, 4.04, 0, 0},         {kInf, 1.0, 0, 0},        {0.0, kInf, 0, 0},
                          {std::nan(""), 1.0, 0, 0}, {0.0, std::nan(""), 0, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "from " << c.from << " for " << c.duration);
        const auto s = SpectralBands::slice(f, c.from, c.duration);
        if (c.count == 0) {
            EXPECT_FALSE(s.has_value());
            continue;
        }
        ASSERT_TRUE(s.has_value());
        ASSERT_EQ(s->frames, c.count);
        ASSERT_EQ(s->bandCount(), 8u);
        for (std::size_t b = 0; b < 8; ++b) {
            const auto expected = zscoreDouble(std::vector<double>(
                bands[b].begin() + c.start, bands[b].begin() + c.start + c.count));
            ASSERT_EQ(s->band(b).size(), std::size_t(c.count));
            for (int t = 0; t < c.count; ++t) {
                EXPECT_NEAR(s->band(b)[std::size_t(t)], expected[std::size_t(t)], 1e-5);
            }
        }
    }
    Feature::Bands seven(bands.begin(), bands.begin() + 7);
    EXPECT_FALSE(SpectralBands::slice(Feature(seven, 100), 0.0, 1.0).has_value());

    // A flat band stays all zeros, unscaled; two alternating levels become -1 and 1.
    for (std::size_t t = 0; t < 100; ++t) {
        bands[0][t] = 0.37f;
        bands[1][t] = t % 2 ? 3.0f : 1.0f;
    }
    const auto flat = SpectralBands::slice(Feature(bands, 100), 0.2, 0.96);
    ASSERT_TRUE(flat.has_value());
    for (std::size_t t = 0; t < 24; ++t) {
        EXPECT_EQ(flat->band(0)[t], 0.0f) << t;
        EXPECT_FLOAT_EQ(flat->band(1)[t], t % 2 ? -1.0f : 1.0f) << t;
    }
}

TEST(SpectralBands, PeaksMatchBruteForceSearch) {
    struct Case {
        int clip, ref;
        double minOffset, maxOffset, overlap;
        int topK;
        double separation;
        int silentBand = -1;
        bool loudEnds = false; // the features' outermost frames dominate the lags that reach them
    };
    // Short references are correlated whole; from about three blocks of twice the clip's length
    // (at least 2048 frames a block) on, block by block from kept spectra.
    const Case cases[] = {
        {40, 300, -kInf, kInf, 0.0, 5, 0.5},
        {40, 300, -kInf, kInf, 1.0, 3, 0.0, 6},
        {17, 48, -kInf, kInf, 0.0, 6, 0.04, -1, true}, // N = 64 exactly: the range's ends alias
        {60, 61, -kInf, kInf, 0.0, 2, 0.2},            // reference one frame longer
        {30, 500, 2.0, 6.0, 0.5, 3, 0.3},              // a window inside the range
        {30, 500, -kMaxFinite, kMaxFinite, 0.8, 2, 0.5},
        {30, 500, 25.0, 1e9, 0.8, 2, 0.5},       // bounds held to the range
        {25, 200, -0.5, -0.5, 0.4, 1, 0.5},      // a single lag: no spread, nothing
        {25, 200, -kInf, kInf, 0.2, 1000, 0.04}, // every local maximum
        {100, 6000, -kInf, kInf, 0.0, 5, 0.5, 0},
        {97, 4000, -kInf, kInf, 0.0, 6, 0.04, -1, true}, // N = 4096 exactly, by blocks
        {150, 5000, 40.0, 48.0, 2.0, 3, 0.3},            // a few blocks only
        {150, 5000, -kInf, -2.0, 0.0, 2, 0.3},           // the clip starting first
        {300, 5100, -kInf, kInf, 4.0, 200, 0.04},
        {1024, 3500, -kInf, kInf, 8.0, 3, 0.5, -1, true}, // a clip of half a block
        {1100, 6200, -kInf, kInf, 8.0, 3, 0.5}};          // blocks of 4096
    std::mt19937 rng(21);
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "clip " << c.clip << ", ref " << c.ref << ", offsets "
                                        << c.minOffset << ".." << c.maxOffset << ", topK " << c.topK
                                        << ", separation " << c.separation);
        Feature ref = randomFeature(c.ref, rng);
        const int start = c.ref / 3;
        Feature clip = start + c.clip <= c.ref ? noisyExcerpt(ref, start, c.clip, 0.8f, rng)
                                               : randomFeature(c.clip, rng);
        if (c.loudEnds) {
            auto refBands = *ref.bands;
            auto clipBands = *clip.bands;
            for (std::size_t b = 0; b < 8; ++b) {
                refBands[b].front() = 20.0f;
                refBands[b].back() = 15.0f;
                clipBands[b].front() = 20.0f;
                clipBands[b].back() = 12.0f;
            }
            ref = Feature(refBands, ref.frames);
            clip = Feature(clipBands, clip.frames);
        }
        if (c.silentBand >= 0) {
            auto bands = *clip.bands;
            std::fill(bands[std::size_t(c.silentBand)].begin(),
                      bands[std::size_t(c.silentBand)].end(), 0.0f);
            clip = Feature(bands, clip.frames);
        }
        const auto actual = SpectralBands::peaks(clip, ref, c.minOffset, c.maxOffset, c.overlap,
                                                 c.topK, c.separation);
        const auto expected =
            brutePeaks(clip, ref, c.minOffset, c.maxOffset, c.overlap, c.topK, c.separation);
        expectSamePeaks(actual, expected);
        // Searching the same reference again reuses what the first search kept.
        EXPECT_EQ(SpectralBands::peaks(clip, ref, c.minOffset, c.maxOffset, c.overlap, c.topK,
                                       c.separation),
                  actual);
    }
}

TEST(SpectralBands, RefusesWhatCannotBeSearched) {
    std::mt19937 rng(4);
    const Feature ref100 = randomFeature(100, rng);
    const Feature ref101 = randomFeature(101, rng);
    const Feature clip = randomFeature(100, rng);
    EXPECT_TRUE(SpectralBands::peaks(clip, ref100, -kInf, kInf, 0.0, 1, 0.5).empty());
    EXPECT_EQ(SpectralBands::peaks(clip, ref101, -kInf, kInf, 0.0, 1, 0.5).size(), 1u);

    const Feature small = randomFeature(40, rng);
    EXPECT_TRUE(SpectralBands::peaks(small, ref101, -kInf, kInf, 0.0, 0, 0.5).empty());
    EXPECT_TRUE(SpectralBands::peaks(small, ref101, -kInf, kInf, 1.6, 1, 0.5).empty())
        << "overlap of the whole clip";
    EXPECT_TRUE(SpectralBands::peaks(small, ref101, -kInf, kInf, kInf, 1, 0.5).empty());
    EXPECT_TRUE(SpectralBands::peaks(small, ref101, 3.0, 2.0, 0.0, 1, 0.5).empty());
    EXPECT_TRUE(
        SpectralBands::peaks(randomFeature(4, rng), ref101, -kInf, kInf, 0.0, 1, 0.5).empty());
    Feature::Bands seven(ref101.bands->begin(), ref101.bands->begin() + 7);
    EXPECT_TRUE(SpectralBands::peaks(small, Feature(seven, 101), -kInf, kInf, 0.0, 1, 0.5).empty());
    EXPECT_TRUE(SpectralBands::peaks(Feature(), Feature(), -kInf, kInf, 0.0, 1, 0.5).empty());
}

TEST(SpectralBands, FindsAudioCutFromTheReference) {
    const auto audio = textureAudio(16000 * 60, 17);
    const Feature ref = SpectralBands::compute(audio);
    ASSERT_EQ(ref.frames, 1499);

    // The clip's audio starts 50 frames (2.0 s) into the reference's: its frames line up exactly.
    const std::vector<float> cut(audio.begin() + 50 * 640, audio.begin() + 50 * 640 + 16000 * 20);
    const Feature fromAudio = SpectralBands::compute(cut);
    const auto fromSlice = SpectralBands::slice(ref, 2.0, 20.0);
    ASSERT_TRUE(fromSlice.has_value());
    for (const auto* clip : {&fromAudio, &*fromSlice}) {
        const auto found = SpectralBands::peaks(*clip, ref, -kInf, kInf, 8.0, 3, 0.5);
        ASSERT_EQ(found.size(), 3u);
        EXPECT_EQ(found[0].offsetSeconds, 2.0);
        EXPECT_GT(found[0].score, 14.0f);
        EXPECT_LT(found[1].score, found[0].score / 2);
    }
    // Bounds that exclude the truth find something else, and a bound at it still finds it.
    const auto bounded = SpectralBands::peaks(fromAudio, ref, 3.0, kMaxFinite, 8.0, 1, 0.5);
    ASSERT_EQ(bounded.size(), 1u);
    EXPECT_GE(bounded[0].offsetSeconds, 3.0);
    EXPECT_EQ(SpectralBands::peaks(fromAudio, ref, 2.0, 2.5, 8.0, 1, 0.5)[0].offsetSeconds, 2.0);
}

TEST(SpectralBands, PickPeaksTiesEndsAndSeparation) {
    std::vector<float> s(64, 0.0f);
    for (std::size_t i = 0; i < s.size(); ++i) {
        s[i] = 0.01f * float(i % 7);
    }
    s[10] = s[11] = 5.0f; // two equal maxima one lag apart
    s[20] = 3.0f;
    s[23] = 2.0f;     // three lags from the one above
    s[64 - 3] = 4.0f; // lag -3

    auto lags = [](const std::vector<Peak>& found) {
        std::vector<long> out;
        for (const auto& p : found) {
            out.push_back(std::lround(p.offsetSeconds * 25.0));
        }
        return out;
    };
    struct Case {
        int first, last, topK;
        double separation;
        std::vector<long> expected;
    };
    const Case cases[] = {
        {-5, 40, 5, 0.04, {10, 11, -3, 20, 23}}, // ties keep ascending lag
        {-5, 40, 4, 0.08, {10, -3, 20, 23}},     // the higher of two tied lags is dropped
        {-5, 40, 4, 0.12, {10, -3, 20, 23}},     // 3 apart with a separation of 3: both stay
        {-5, 40, 4, 0.16, {10, -3, 20, 6}},      // with 4, 23 goes and lag 6 is 4 from 10
        {-5, 40, 1, 0.5, {10}},
        {-5, -3, 1, 0.04, {-3}},
        {-80, 10, 1, 0.04, {}}, // outside the circle
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.first << ".." << c.last << " top " << c.topK
                                        << " separation " << c.separation);
        EXPECT_EQ(lags(SpectralBands::pickPeaks(s, c.first, c.last, c.topK, c.separation)),
                  c.expected);
    }
    // The ends of the range are candidates against a missing neighbour; lags beyond the range
    // (0.5 before, 1.0 after) are not consulted.
    const std::vector<float> ends{0.5f, 0.2f, 0.1f, 0.3f, 0.9f, 1.0f, 0.4f, 0,
                                  0,    0,    0,    0,    0,    0,    0,    0};
    EXPECT_EQ(lags(SpectralBands::pickPeaks(ends, 1, 4, 2, 0.04)), (std::vector<long>{4, 1}));
    EXPECT_TRUE(SpectralBands::pickPeaks(std::vector<float>(16, 2.5f), 0, 15, 1, 0.04).empty())
        << "no spread";

    // A hill of a hundred local maxima outranks everything else; with a wide separation only its
    // top survives, and the next peak has to come from far beyond the best hundred candidates.
    std::vector<float> hill(1000);
    for (std::size_t k = 0; k < hill.size(); ++k) {
        hill[k] = 0.001f * float(k % 7);
        if (k >= 100 && k < 300) {
            hill[k] = 10.0f + (k % 2 ? 0.5f : 0.0f) + 0.001f * float(k);
        }
    }
    EXPECT_EQ(lags(SpectralBands::pickPeaks(hill, 0, 999, 2, 20.0)), (std::vector<long>{299, 804}));
    // Its maxima climb by small steps; the single best is the last of them.
    EXPECT_EQ(lags(SpectralBands::pickPeaks(hill, 0, 999, 1, 0.5)), (std::vector<long>{299}));

    // A flat top: every lag of it is a candidate, scored alike.
    std::vector<float> plateau(32, 0.0f);
    plateau[5] = plateau[6] = plateau[7] = 1.0f;
    const auto top = SpectralBands::pickPeaks(plateau, 0, 20, 3, 0.04);
    EXPECT_EQ(lags(top), (std::vector<long>{5, 6, 7}));
    ASSERT_EQ(top.size(), 3u);
    // Three ones among 21 lags: mean 1/7, deviation sqrt(1/7 - 1/49).
    EXPECT_NEAR(top[0].score, (1 - 1.0 / 7) / std::sqrt(1.0 / 7 - 1.0 / 49), 1e-5);
    EXPECT_EQ(top[0].score, top[2].score);
}

TEST(SpectralBands, KeptSpectraAreBoundedAndLetGoWithTheirFeature) {
    std::mt19937 rng(31);
    std::vector<Feature> refs;
    for (int i = 0; i < 3; ++i) {
        refs.push_back(randomFeature(3500, rng));
    }
    const Feature clip = noisyExcerpt(refs[0], 200, 300, 0.5f, rng);
    auto search = [&](const Feature& ref) {
        return SpectralBands::peaks(clip, ref, -kInf, kInf, 4.0, 2, 0.5);
    };
    const std::size_t previous = SpectralBands::setSpectrumCacheBudget(0);
    std::vector<std::vector<Peak>> unkept;
    for (const auto& ref : refs) {
        unkept.push_back(search(ref));
    }
    EXPECT_EQ(SpectralBands::spectrumCacheUsage().entries, 0u);

    SpectralBands::setSpectrumCacheBudget(previous);
    search(refs[0]);
    const auto one = SpectralBands::spectrumCacheUsage();
    ASSERT_EQ(one.entries, 1u);
    ASSERT_GT(one.bytes, 0u);
    // Room for two of the three references.
    SpectralBands::setSpectrumCacheBudget(one.bytes * 5 / 2);
    for (std::size_t i = 0; i < refs.size(); ++i) {
        const auto kept = search(refs[i]);
        const auto usage = SpectralBands::spectrumCacheUsage();
        EXPECT_LE(usage.bytes, one.bytes * 5 / 2);
        EXPECT_EQ(usage.entries, std::min<std::size_t>(i + 1, 2));
        // Kept spectra give the results of the whole-length correlation, up to float rounding.
        ASSERT_EQ(kept.size(), unkept[i].size());
        for (std::size_t p = 0; p < kept.size(); ++p) {
            EXPECT_EQ(kept[p].offsetSeconds, unkept[i][p].offsetSeconds);
            EXPECT_NEAR(kept[p].score, unkept[i][p].score, 1e-3);
        }
        EXPECT_EQ(search(refs[i]), kept) << "searched again";
    }
    SpectralBands::setSpectrumCacheBudget(previous);
    refs.pop_back();
    EXPECT_EQ(SpectralBands::spectrumCacheUsage().entries, 1u) << "one dead feature let go";
    refs.clear();
    EXPECT_EQ(SpectralBands::spectrumCacheUsage().entries, 0u);
    EXPECT_EQ(SpectralBands::spectrumCacheUsage().bytes, 0u);
}

TEST(SpectralBands, ConcurrentCallsGiveTheSerialResults) {
    std::mt19937 rng(41);
    const auto audio = textureAudio(16000 * 30, 9);
    const Feature ref = randomFeature(5000, rng);
    // A reference short enough to be correlated whole.
    Feature::Bands head;
    for (const auto& band : *ref.bands) {
        head.emplace_back(band.begin(), band.begin() + 2000);
    }
    const Feature shortRef(head, 2000);
    std::vector<Feature> clips;
    for (int i = 0; i < 6; ++i) {
        clips.push_back(noisyExcerpt(ref, 300 * i, 400, 0.7f, rng));
    }
    const std::vector<float> longA(ref.band(3).begin(), ref.band(3).begin() + 1000);

    auto run = [&](int i) {
        struct Out {
            Feature feature;
            std::optional<Feature> sliced;
            std::optional<std::vector<float>> correlation;
            std::vector<Peak> found;
            std::vector<Peak> foundShort;
        } out;
        out.feature = SpectralBands::compute(audio);
        out.sliced = SpectralBands::slice(ref, 2.0 * i, 10.0);
        out.correlation = SyncCorrelator::fftCrossCorrelate(longA, clips[std::size_t(i)].band(2));
        // A fresh reference per call as well, so that spectra are made, kept and let go at once.
        const Feature own(*ref.bands, ref.frames);
        out.found = SpectralBands::peaks(clips[std::size_t(i)], i % 2 ? ref : own, -kInf, kInf, 8.0,
                                         3, 0.5);
        out.foundShort =
            SpectralBands::peaks(clips[std::size_t(i)], shortRef, -kInf, kInf, 8.0, 3, 0.5);
        return out;
    };
    std::vector<decltype(run(0))> serial;
    for (int i = 0; i < 6; ++i) {
        serial.push_back(run(i));
    }
    std::vector<decltype(run(0))> parallel(12);
    std::vector<std::thread> threads;
    for (int t = 0; t < 12; ++t) {
        threads.emplace_back([&, t] { parallel[std::size_t(t)] = run(t % 6); });
    }
    for (auto& t : threads) {
        t.join();
    }
    for (int t = 0; t < 12; ++t) {
        SCOPED_TRACE(t);
        const auto& expected = serial[std::size_t(t % 6)];
        const auto& got = parallel[std::size_t(t)];
        EXPECT_EQ(got.feature, expected.feature);
        EXPECT_EQ(got.sliced, expected.sliced);
        EXPECT_EQ(got.correlation, expected.correlation);
        EXPECT_EQ(got.found, expected.found);
        EXPECT_EQ(got.foundShort, expected.foundShort);
        ASSERT_FALSE(got.found.empty() || got.foundShort.empty());
        EXPECT_EQ(got.found[0].offsetSeconds, 12.0 * (t % 6));
        EXPECT_EQ(got.foundShort[0].offsetSeconds, 12.0 * (t % 6));
    }
}

namespace {

std::optional<std::vector<float>> decodeWithFfmpeg(const std::filesystem::path& media,
                                                   const TestSupport::TempDir& dir) {
    const auto raw = dir / (media.stem().string() + ".f32");
    const auto result =
        TestSupport::runProcess({"ffmpeg", "-nostdin", "-v", "error", "-i", media.string(), "-ac",
                                 "1", "-ar", "16000", "-f", "f32le", "-y", raw.string()});
    if (result.exitCode != 0) {
        return std::nullopt;
    }
    std::ifstream in(raw, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::vector<float> samples(bytes.size() / sizeof(float));
    std::memcpy(samples.data(), bytes.data(), samples.size() * sizeof(float));
    return samples;
}

} // namespace

TEST(SpectralBands, FindsKnownOffsetsInRecordings) {
    const std::filesystem::path dir = TESSARIN_REALDATA_DIR;
    if (!std::filesystem::exists(dir / "truth.json")) {
        GTEST_SKIP() << "no recordings at " << dir;
    }
    struct Case {
        const char* ref;
        const char* clip;
        double offset;
    };
    // Radio speech cut and re-encoded; ambient noise cut and re-encoded; the same behind three
    // minutes of silence.
    const Case cases[] = {{"bbc_timbl_1.mp3", "bbc_timbl_2.mp3", 12.254},
                          {"avbs_full.mp4", "avbs_3-secs-in.mp4", 3.0},
                          {"avbs_full-with-prepad-sec-180.mp4", "avbs_full.mp4", 180.032}};
    TestSupport::TempDir temp;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.clip);
        const auto refAudio = decodeWithFfmpeg(dir / c.ref, temp);
        const auto clipAudio = decodeWithFfmpeg(dir / c.clip, temp);
        ASSERT_TRUE(refAudio && clipAudio) << "ffmpeg could not decode";
        const auto ref = SpectralBands::compute(*refAudio);
        const auto clip = SpectralBands::compute(*clipAudio);
        const auto found = SpectralBands::peaks(clip, ref, -kInf, kInf, 8.0, 1, 0.5);
        ASSERT_EQ(found.size(), 1u);
        // Frames are 0.04 s apart: either frame next to the true offset will do.
        EXPECT_NEAR(found[0].offsetSeconds, c.offset, 0.041);
        EXPECT_GT(found[0].score, 7.0f);
    }
}
