#include "TessarinEngine/SpectralBands.h"

#include "TessarinEngine/platform/MediaDecoder.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>
#include <map>
#include <numbers>
#include <numeric>
#include <random>
#include <tuple>

using SpectralBands::Feature;
using SpectralBands::Peak;

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();

std::vector<double> zscored(std::vector<double> v) {
    const double n = double(v.size()), mean = std::accumulate(v.begin(), v.end(), 0.0) / n;
    const double sd =
        std::sqrt(std::inner_product(v.begin(), v.end(), v.begin(), 0.0) / n - mean * mean);
    for (auto& x : v) {
        x = (x - mean) / sd;
    }
    return v;
}

// Noise bands, added to the frames [start, start + frames) of `base` when given.
Feature::Bands randomBands(int frames, std::mt19937& rng, float noise = 1.0f,
                           const Feature::Bands* base = nullptr, int start = 0) {
    std::normal_distribution<float> dist(0.0f, noise);
    Feature::Bands bands(8, std::vector<float>(std::size_t(frames)));
    for (std::size_t b = 0; b < 8; ++b) {
        for (int t = 0; t < frames; ++t) {
            bands[b][std::size_t(t)] =
                (base ? (*base)[b][std::size_t(start + t)] : 0.0f) + dist(rng);
        }
    }
    return bands;
}

// Noise whose loudness (up to `loudest`) and colour change every `period` samples, so that every
// band moves over time.
std::vector<float> textureAudio(std::size_t samples, std::size_t period, float loudest,
                                unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> noise(0.0f, 1.0f);
    std::uniform_real_distribution<float> level(0.002f, loudest), tilt(0.0f, 0.95f);
    std::vector<float> pcm(samples);
    float gain = 0, pole = 0, state = 0;
    for (std::size_t i = 0; i < samples; ++i) {
        if (i % period == 0) {
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
    const long nc = clip.frames, nr = ref.frames, overlap = long(minOverlapSec * 25.0);
    if (topK < 1 || nc < 5 || nr <= nc || nc <= overlap) {
        return out;
    }
    const long size = long(std::bit_ceil(std::size_t(nc + nr - 1)));
    std::vector<double> summed(std::size_t(size), 0.0);
    for (std::size_t i = 0; i < clip.bandCount(); ++i) {
        std::vector<double> r(std::size_t(size), 0.0);
        double squares = 0;
        for (long k = 0; k < size; ++k) {
            for (long n = 0; n < nc; ++n) {
                const long j = (n + k) % size;
                r[k] += j < nr ? 2.0 * ref.band(i)[j] * clip.band(i)[n] : 0.0;
            }
            squares += r[k] * r[k];
        }
        for (long k = 0; k < size && squares > 0; ++k) {
            summed[k] += r[k] / std::sqrt(squares / double(size));
        }
    }
    const long lo = overlap - nc, hi = nr - overlap;
    auto bound = [&](double sec, long none) {
        return std::isfinite(sec * 25.0) ? std::clamp(std::lround(sec * 25.0), lo, hi) : none;
    };
    const long first = bound(minOffsetSec, lo), last = bound(maxOffsetSec, hi);
    auto at = [&](long lag) {
        return summed[lag < 0 ? lag + size : lag];
    };
    double mean = 0, square = 0;
    for (long lag = first; lag <= last; ++lag) {
        mean += at(lag) / double(last - first + 1);
        square += at(lag) * at(lag) / double(last - first + 1);
    }
    const double spread = std::sqrt(std::max(0.0, square - mean * mean));
    std::vector<std::pair<float, long>> candidates;
    for (long lag = first; lag <= last && spread > 1e-6; ++lag) {
        if ((lag == first || at(lag - 1) <= at(lag)) && (lag == last || at(lag + 1) <= at(lag))) {
            candidates.push_back({float((at(lag) - mean) / spread), lag});
            out.scoreAt[lag] = candidates.back().first;
        }
    }
    std::stable_sort(candidates.begin(), candidates.end(),
                     [](const auto& x, const auto& y) { return x.first > y.first; });
    const long separation = std::max(1L, std::lround(minSeparationSec * 25.0));
    std::vector<long> accepted;
    for (const auto& [score, lag] : candidates) {
        if (long(accepted.size()) < topK &&
            std::none_of(accepted.begin(), accepted.end(),
                         [&](long other) { return std::abs(other - lag) < separation; })) {
            accepted.push_back(lag);
            out.peaks.push_back({double(lag) / 25.0, score});
        }
    }
    return out;
}

} // namespace

TEST(SpectralBands, ComputeMatchesDirectWindowedTransform) {
    // Eight frames of noise quiet enough that the band powers sit around 1, where log1p is far
    // from a pure logarithm: a wrong window or power scale then changes the normalised values.
    const std::size_t frames = 8;
    // A trailing stretch shorter than a window is left out.
    const auto pcm = textureAudio(1024 + 640 * (frames - 1) + 639, 640, 0.04f, 5);
    const Feature f = SpectralBands::compute(pcm);
    ASSERT_EQ(f.frames, int(frames));
    ASSERT_EQ(f.bandCount(), 8u);
    EXPECT_TRUE(SpectralBands::compute(std::vector<float>(3583, 0.1f)).empty()) << "4 frames";

    const int edges[9] = {1, 2, 4, 10, 22, 49, 107, 234, 512};
    const double pi = std::numbers::pi;
    for (int b = 0; b < 8; ++b) {
        std::vector<double> expected(frames);
        for (std::size_t t = 0; t < frames; ++t) {
            for (int m = edges[b]; m < edges[b + 1]; ++m) {
                double re = 0, im = 0;
                for (std::size_t n = 0; n < 1024; ++n) {
                    const double x =
                        pcm[640 * t + n] * 0.8165 * (1 - std::cos(2 * pi * n / 1024.0));
                    re += x * std::cos(2 * pi * m * n / 1024.0);
                    im -= x * std::sin(2 * pi * m * n / 1024.0);
                }
                expected[t] += 4 * (re * re + im * im);
            }
            expected[t] = std::log1p(expected[t]);
        }
        EXPECT_THAT(f.band(std::size_t(b)),
                    testing::Pointwise(testing::DoubleNear(1e-3), zscored(expected)))
            << "band " << b;
    }
}

TEST(SpectralBands, PeaksMatchBruteForceSearch) {
    struct Case {
        int clip, ref;
        double minOffset, maxOffset, overlap;
        int topK;
        double separation;
        int silentBand = -1;   // 8: every band
        bool loudEnds = false; // the features' outermost frames dominate the lags that reach them
    };
    // Short references are correlated whole; from about three blocks of twice the clip's length
    // (at least 2048 frames a block) on, block by block from kept spectra.
    const Case cases[] = {
        {40, 300, -kInf, kInf, 0.0, 5, 0.5},
        {40, 300, -kInf, kInf, 1.02, 3, 0.0, 6},           // 25.5 frames of overlap are 25
        {17, 48, -kInf, kInf, 0.0, 6, 0.04, -1, true},     // N = 64 exactly: the range's ends alias
        {60, 61, -kInf, kInf, 0.0, 2, 0.2},                // reference one frame longer
        {40, 40, -kInf, kInf, 0.0, 2, 0.2},                // not longer: nothing
        {4, 300, -kInf, kInf, 0.0, 2, 0.2},                // too short: nothing
        {40, 300, -kInf, kInf, 1.6, 2, 0.2},               // overlap of the whole clip: nothing
        {30, 500, 2.0, 6.0, 0.5, 3, 0.3},                  // a window inside the range
        {30, 500, 25.0, 1e9, 0.8, 2, 0.5},                 // bounds held to the range
        {25, 200, -kInf, kInf, 0.2, 1000, 0.04},           // every local maximum
        {100, 6000, -kInf, kInf, 0.0, 5, 0.5, 8},          // a silent clip: nothing
        {97, 4000, -kInf, kInf, 0.0, 6, 0.04, -1, true},   // N = 4096 exactly, by blocks
        {150, 5000, 40.0, 48.0, 2.0, 3, 0.3},              // a few blocks only
        {1024, 3500, -kInf, kInf, 8.0, 3, 0.5, -1, true}}; // a clip of half a block
    std::mt19937 rng(21);
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "row " << &c - cases);
        auto refBands = randomBands(c.ref, rng);
        const bool inside = c.ref / 3 + c.clip <= c.ref;
        auto clipBands =
            randomBands(c.clip, rng, inside ? 0.8f : 1.0f, inside ? &refBands : nullptr, c.ref / 3);
        for (std::size_t b = 0; b < 8; ++b) {
            if (c.loudEnds) {
                refBands[b].front() = clipBands[b].front() = 20.0f;
                refBands[b].back() = 15.0f;
                clipBands[b].back() = 12.0f;
            }
            if (c.silentBand == int(b) || c.silentBand == 8) {
                clipBands[b].assign(std::size_t(c.clip), 0.0f);
            }
        }
        const Feature ref(refBands, c.ref), clip(clipBands, c.clip);
        auto search = [&] {
            return SpectralBands::peaks(clip, ref, c.minOffset, c.maxOffset, c.overlap, c.topK,
                                        c.separation);
        };
        const auto actual = search();
        const auto expected =
            brutePeaks(clip, ref, c.minOffset, c.maxOffset, c.overlap, c.topK, c.separation);
        ASSERT_EQ(actual.size(), expected.peaks.size());
        for (std::size_t i = 0; i < actual.size(); ++i) {
            EXPECT_NEAR(actual[i].score, expected.peaks[i].score, 2e-3) << "peak " << i;
            if (actual[i].offsetSeconds != expected.peaks[i].offsetSeconds) {
                // Only a near tie may come out in the other order.
                const long lag = std::lround(actual[i].offsetSeconds * 25.0);
                ASSERT_TRUE(expected.scoreAt.count(lag)) << actual[i].offsetSeconds;
                EXPECT_NEAR(expected.scoreAt.at(lag), expected.peaks[i].score, 2e-3);
            }
        }
        EXPECT_EQ(search(), actual) << "searched again, from what the first search kept";
    }
}

TEST(SpectralBands, FindsAudioCutFromTheReferenceAndSlicesLikeIt) {
    const auto audio = textureAudio(16000 * 60, 1600, 0.3f, 17);
    const Feature ref = SpectralBands::compute(audio);
    // The clip's audio starts 49 frames (1.96 s) into the reference's: its frames line up exactly.
    const Feature fromAudio = SpectralBands::compute(
        std::vector<float>(audio.begin() + 49 * 640, audio.begin() + 49 * 640 + 16000 * 20));
    // 1.94 s is frame 48.5, which rounds away from zero to 49. Each band is normalised anew,
    // which undoes the reference's own normalisation: the slice is the clip's feature.
    const auto fromSlice = SpectralBands::slice(ref, 1.94, 19.96);
    ASSERT_TRUE(fromSlice.has_value());
    ASSERT_EQ(fromSlice->frames, fromAudio.frames);
    for (std::size_t b = 0; b < 8; ++b) {
        EXPECT_THAT(fromSlice->band(b),
                    testing::Pointwise(testing::FloatNear(1e-3f), fromAudio.band(b)));
    }
    const auto found = SpectralBands::peaks(fromAudio, ref, -kInf, kInf, 8.0, 3, 0.5);
    ASSERT_EQ(found.size(), 3u);
    EXPECT_EQ(found[0].offsetSeconds, 1.96);
    EXPECT_GT(found[0].score, 14.0f);
    EXPECT_LT(found[1].score, found[0].score / 2);
    EXPECT_EQ(SpectralBands::slice(ref, -1.0, 2.0), SpectralBands::slice(ref, 0.0, 2.0));
    EXPECT_EQ(SpectralBands::slice(ref, 0.0, 0.18)->frames, 5) << "4.5 frames";
    EXPECT_FALSE(SpectralBands::slice(ref, 0.0, 0.17)) << "4.25 frames";
    EXPECT_TRUE(SpectralBands::slice(ref, 40.0, 19.96)) << "up to the last frame";
    EXPECT_FALSE(SpectralBands::slice(ref, 40.04, 19.96)) << "one past it";
    EXPECT_FALSE(SpectralBands::slice(ref, std::nan(""), 1.0));
}

TEST(SpectralBands, PickPeaksLooksBeyondTheBestCandidatesWhenSeparationDropsThem) {
    // A hill of a hundred local maxima climbing by small steps outranks everything else; with a
    // wide separation only its top survives, so the next peak has to come from far beyond the
    // best candidates kept while scanning.
    std::vector<float> hill(1000);
    for (std::size_t k = 0; k < hill.size(); ++k) {
        hill[k] = k >= 100 && k < 300 ? 10.0f + (k % 2 ? 0.5f : 0.0f) + 0.001f * float(k)
                                      : 0.001f * float(k % 7);
    }
    auto lags = [&](int topK, double separation) {
        std::vector<double> out;
        for (const auto& p : SpectralBands::pickPeaks(hill, 0, 999, topK, separation)) {
            out.push_back(std::round(p.offsetSeconds * 25.0));
        }
        return out;
    };
    EXPECT_EQ(lags(2, 20.0), (std::vector<double>{299, 804}));
    EXPECT_EQ(lags(1, 0.5), std::vector<double>{299}) << "the single best";
}

TEST(SpectralBands, KeptSpectraAreBoundedAndLetGoWithTheirFeature) {
    std::mt19937 rng(31);
    std::vector<Feature> refs;
    for (int i = 0; i < 3; ++i) {
        refs.emplace_back(randomBands(3500, rng), 3500);
    }
    const Feature clip(randomBands(300, rng, 0.5f, refs[0].bands.get(), 200), 300);
    auto search = [&](const Feature& ref) {
        return SpectralBands::peaks(clip, ref, -kInf, kInf, 4.0, 2, 0.5);
    };
    // With no room the search still works, from one whole-length correlation.
    const std::size_t previous = SpectralBands::setSpectrumCacheBudget(0);
    EXPECT_EQ(search(refs[0]).at(0).offsetSeconds, 8.0);
    EXPECT_EQ(SpectralBands::spectrumCacheUsage().entries, 0u);
    SpectralBands::setSpectrumCacheBudget(previous);
    search(refs[0]);
    const std::size_t room = SpectralBands::spectrumCacheUsage().bytes * 5 / 2; // two of three
    SpectralBands::setSpectrumCacheBudget(room);
    for (std::size_t i = 0; i < refs.size(); ++i) {
        search(refs[i]);
        EXPECT_LE(SpectralBands::spectrumCacheUsage().bytes, room);
        EXPECT_EQ(SpectralBands::spectrumCacheUsage().entries, std::min<std::size_t>(i + 1, 2));
    }
    SpectralBands::setSpectrumCacheBudget(previous);
    refs.pop_back();
    EXPECT_EQ(SpectralBands::spectrumCacheUsage().entries, 1u) << "one dead feature let go";
    refs.clear();
    EXPECT_EQ(SpectralBands::spectrumCacheUsage().bytes, 0u);
}

TEST(SpectralBands, FindsKnownOffsetsInRecordings) {
    const std::filesystem::path dir = TESSARIN_REALDATA_DIR;
    if (!std::filesystem::exists(dir / "truth.json")) {
        GTEST_SKIP() << "no recordings at " << dir;
    }
    auto bandsOf = [&](const char* media) {
        return SpectralBands::compute(MediaDecoder::decodeMixedMono(dir / media, 16000, {}));
    };
    // Radio speech cut and re-encoded; ambient noise cut and re-encoded; the same behind three
    // minutes of silence.
    const std::tuple<const char*, const char*, double> cases[] = {
        {"bbc_timbl_1.mp3", "bbc_timbl_2.mp3", 12.254},
        {"avbs_full.mp4", "avbs_3-secs-in.mp4", 3.0},
        {"avbs_full-with-prepad-sec-180.mp4", "avbs_full.mp4", 180.032}};
    for (const auto& [ref, clip, offset] : cases) {
        SCOPED_TRACE(clip);
        const auto found =
            SpectralBands::peaks(bandsOf(clip), bandsOf(ref), -kInf, kInf, 8.0, 1, 0.5);
        ASSERT_EQ(found.size(), 1u);
        // Frames are 0.04 s apart: either frame next to the true offset will do.
        EXPECT_NEAR(found[0].offsetSeconds, offset, 0.041);
        EXPECT_GT(found[0].score, 7.0f);
    }
}
