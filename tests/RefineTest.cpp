#include "TessarinEngine/Refine.h"

#include "TessarinEngine/platform/MediaDecoder.h"
#include "tests/support/MediaFixtures.h"
#include "tests/support/TestSupport.h"

#include <cmath>
#include <complex>
#include <gtest/gtest.h>
#include <map>
#include <numeric>
#include <random>
#include <sstream>

namespace {

constexpr int kRate = Refine::kRateHz;

// Something like speech: noise through a resonance, in bursts of 0.1-0.3 s with pauses.
std::vector<float> burstyNoise(double seconds, unsigned seed) {
    std::mt19937 gen(seed);
    std::normal_distribution<float> noise(0.0f, 1.0f);
    std::uniform_real_distribution<double> span(0.1, 0.3);
    std::vector<float> x(static_cast<std::size_t>(seconds * kRate));
    float y1 = 0;
    float y2 = 0;
    std::size_t next = 0;
    bool on = true;
    for (std::size_t i = 0; i < x.size(); ++i) {
        if (i == next) {
            on = !on;
            next = i + static_cast<std::size_t>(span(gen) * kRate);
        }
        const float y = noise(gen) + 1.6f * y1 - 0.8f * y2;
        y2 = y1;
        y1 = y;
        x[i] = on ? 0.02f * y : 0.0005f * noise(gen);
    }
    return x;
}

// `x` delayed by `delay` samples (a fraction allowed), by a phase ramp over its spectrum.
std::vector<float> delayed(const std::vector<float>& x, double delay) {
    const std::size_t n = x.size();
    std::vector<std::complex<double>> spectrum(n);
    for (std::size_t k = 0; k < n; ++k) {
        for (std::size_t i = 0; i < n; ++i) {
            spectrum[k] += static_cast<double>(x[i]) *
                           std::polar(1.0, -2 * M_PI * static_cast<double>(k * i % n) / n);
        }
    }
    std::vector<float> out(n);
    for (std::size_t i = 0; i < n; ++i) {
        std::complex<double> sum = 0;
        for (std::size_t k = 0; k < n; ++k) {
            const double f = k <= n / 2 ? static_cast<double>(k) : static_cast<double>(k) - n;
            sum += spectrum[k] *
                   std::polar(1.0, 2 * M_PI * (f * (static_cast<double>(i) - delay)) / n);
        }
        out[i] = static_cast<float>(sum.real() / n);
    }
    return out;
}

// The normalised correlation at one lag, by its definition.
double bruteScore(const std::vector<float>& clip, const std::vector<float>& partner, int maxLag,
                  int lag) {
    const std::size_t n = clip.size();
    const double clipMean = std::accumulate(clip.begin(), clip.end(), 0.0) / n;
    const double partnerMean =
        std::accumulate(partner.begin(), partner.end(), 0.0) / partner.size();
    double dot = 0;
    double own = 0;
    double theirs = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const double c = clip[i] - clipMean;
        const double p = partner[i + static_cast<std::size_t>(maxLag + lag)] - partnerMean;
        dot += c * p;
        own += c * c;
        theirs += p * p;
    }
    return dot / std::sqrt(own * theirs);
}

// Files held in memory, read as the program reads stretches of real ones.
struct MemoryFiles {
    std::map<std::filesystem::path, std::vector<float>> files;

    Refine::StretchOpener opener() const {
        return [this](const std::filesystem::path& path) -> Refine::Stretches {
            const auto& x = files.at(path);
            return [&x](double from, double seconds) {
                const auto a =
                    std::min(x.size(), static_cast<std::size_t>(std::lround(from * kRate)));
                const auto b =
                    std::min(x.size(), a + static_cast<std::size_t>(std::lround(seconds * kRate)));
                return std::vector<float>(x.begin() + static_cast<std::ptrdiff_t>(a),
                                          x.begin() + static_cast<std::ptrdiff_t>(b));
            };
        };
    }
};

// A reference track of one clip and a track of one clip matched against it, `placed` where the
// band features put it.
std::vector<TrackSource> twoTracks(double referenceSeconds, double clipSeconds, double placed) {
    std::vector<TrackSource> tracks(2);
    ClipItem reference("ref.wav");
    reference.duration = referenceSeconds;
    reference.placementPass = PlacementCode::ref;
    ClipItem clip("clip.wav");
    clip.duration = clipSeconds;
    clip.startOffset = placed;
    clip.placementPass = PlacementCode::A1;
    clip.placedAgainst = reference.id;
    tracks[0].clips = {reference};
    tracks[1].clips = {clip};
    return tracks;
}

} // namespace

TEST(Refine, PeakMatchesTheCorrelationByItsDefinitionAndFindsAFractionalDelay) {
    constexpr int kMaxLag = 40;
    const auto source = burstyNoise(0.16, 3);
    for (const double delay : {-17.3, 0.0, 6.5, 23.81}) {
        SCOPED_TRACE(delay);
        // The partner holds the clip's sound `delay` samples later than the centre of its range.
        const auto partner = delayed(source, delay);
        const std::vector<float> clip(source.begin() + kMaxLag, source.end() - kMaxLag);
        const auto peak = Refine::correlationPeak(clip, partner, kMaxLag);
        ASSERT_TRUE(peak);
        double best = -2;
        int bestLag = 0;
        for (int lag = -kMaxLag; lag <= kMaxLag; ++lag) {
            const double score = bruteScore(clip, partner, kMaxLag, lag);
            if (score > best) {
                best = score;
                bestLag = lag;
            }
        }
        EXPECT_NEAR(peak->score, best, 1e-4);
        const double before = bruteScore(clip, partner, kMaxLag, bestLag - 1);
        const double after = bruteScore(clip, partner, kMaxLag, bestLag + 1);
        const double vertex = bestLag + 0.5 * (before - after) / (before - 2 * best + after);
        EXPECT_NEAR(peak->lag, vertex, 1e-3);
        EXPECT_NEAR(peak->lag, delay, 0.15);
        EXPECT_TRUE(Refine::isClearPeak(*peak));
    }
}

TEST(Refine, ARepeatedKnockInTheRangeIsRefused) {
    constexpr int kMaxLag = 960;
    // One knock in the clip; the partner's range holds it twice, 45 ms apart, alike.
    std::vector<float> knock(1200, 0.0f);
    std::mt19937 gen(9);
    std::normal_distribution<float> noise(0.0f, 1.0f);
    for (std::size_t i = 0; i < 400; ++i) {
        knock[i + 400] = noise(gen) * std::exp(-static_cast<float>(i) / 80.0f);
    }
    std::vector<float> clip(8000, 0.0f);
    std::copy(knock.begin(), knock.end(), clip.begin() + 3000);
    std::vector<float> partner(clip.size() + 2 * kMaxLag, 0.0f);
    for (const int at : {kMaxLag + 3000 - 320, kMaxLag + 3000 + 400}) {
        std::copy(knock.begin(), knock.end(), partner.begin() + at);
    }
    const auto twice = Refine::correlationPeak(clip, partner, kMaxLag);
    ASSERT_TRUE(twice);
    EXPECT_GT(twice->runnerUp, 0.9f * twice->score);
    EXPECT_FALSE(Refine::isClearPeak(*twice));

    // Once only: the same knock tells its lag.
    std::fill(partner.begin(), partner.end(), 0.0f);
    std::copy(knock.begin(), knock.end(), partner.begin() + kMaxLag + 3000 + 400);
    const auto once = Refine::correlationPeak(clip, partner, kMaxLag);
    ASSERT_TRUE(once);
    EXPECT_TRUE(Refine::isClearPeak(*once));
    EXPECT_NEAR(once->lag, 400, 0.5);

    // Through the whole refinement, a knock that repeats throughout leaves the clip where it was.
    MemoryFiles memory;
    std::vector<float> reference(30 * kRate, 0.0f);
    for (std::size_t at = 800; at + knock.size() < reference.size(); at += 720) {
        std::copy(knock.begin(), knock.end(), reference.begin() + static_cast<std::ptrdiff_t>(at));
    }
    memory.files["ref.wav"] = reference;
    memory.files["clip.wav"] =
        std::vector<float>(reference.begin() + 5 * kRate, reference.begin() + 25 * kRate);
    auto tracks = twoTracks(30, 20, 5.012);
    Refine::refineTracks(tracks, memory.opener(), 1);
    EXPECT_FALSE(tracks[1].clips[0].refinedBy);
    EXPECT_DOUBLE_EQ(tracks[1].clips[0].startOffset, 5.012);
}

TEST(Refine, AFourMinuteClipOfAClockRunning100PpmFastGetsItsStartAndDrift) {
    const double trueStart = 20.00317;
    const double minutes = 4;
    const auto master = burstyNoise(300, 11);
    // The clip's sample k holds the master at trueStart + k / (rate * 1.0001).
    const auto from = static_cast<std::size_t>(std::floor(trueStart * kRate));
    std::vector<float> span(master.begin() + static_cast<std::ptrdiff_t>(from),
                            master.begin() + static_cast<std::ptrdiff_t>(from) + 260 * kRate);
    auto stretched = MediaDecoder::resampleMono(span, 160000, 160016);
    // Drop the whole samples of the clip before trueStart; the fraction left is under one.
    const auto skip = static_cast<std::size_t>(
        std::lround((trueStart * kRate - static_cast<double>(from)) * 1.0001));
    std::vector<float> clip(stretched.begin() + static_cast<std::ptrdiff_t>(skip),
                            stretched.begin() + static_cast<std::ptrdiff_t>(skip) +
                                static_cast<std::ptrdiff_t>(minutes * 60 * kRate));
    const double start = (static_cast<double>(from) + static_cast<double>(skip) / 1.0001) / kRate;

    MemoryFiles memory;
    memory.files["ref.wav"] = master;
    memory.files["clip.wav"] = clip;
    // The band features place a drifting clip by its middle: 12 ms late at its start.
    auto tracks = twoTracks(300, minutes * 60, start + 0.012);
    Refine::refineTracks(tracks, memory.opener(), 2);
    const auto& refined = tracks[1].clips[0];
    ASSERT_TRUE(refined.refinedBy);
    ASSERT_TRUE(refined.driftPpm);
    EXPECT_NEAR(refined.startOffset, start, 0.0005);
    EXPECT_NEAR(*refined.refinedBy, -0.012, 0.0005);
    EXPECT_NEAR(*refined.driftPpm, 100.0, 2.0);
    EXPECT_FALSE(tracks[0].clips[0].refinedBy) << "the reference stays put";
}

TEST(Refine, SightingsOffOneLineOrTooSteepAreRefused) {
    const auto line = [](double start, double ppm) {
        std::vector<Refine::Sighting> s;
        for (const double at : {1.0, 90.0, 179.0}) {
            s.push_back({at, start + at * (1 - ppm * 1e-6)});
        }
        return s;
    };
    auto fit = Refine::fitSightings(line(12.5, -80), false);
    ASSERT_TRUE(fit);
    EXPECT_NEAR(fit->start, 12.5, 1e-9);
    EXPECT_NEAR(*fit->driftPpm, -80, 1e-6);
    // A clock taken as true is held to it, and a lag 2 ms off the line breaks the fit.
    EXPECT_FALSE(Refine::fitSightings(line(12.5, -80), true));
    auto bent = line(12.5, 0);
    bent[1].when += 0.002;
    EXPECT_FALSE(Refine::fitSightings(bent, false));
    EXPECT_FALSE(Refine::fitSightings(line(12.5, 600), false));
    // Over less than a minute no drift is told.
    const std::vector<Refine::Sighting> close{{10.0, 30.0}, {40.0, 60.0005}};
    fit = Refine::fitSightings(close, false);
    ASSERT_TRUE(fit);
    EXPECT_FALSE(fit->driftPpm);
    EXPECT_NEAR(fit->start, 20.00025, 1e-9);
}

TEST(Refine, StretchesLieWhereAWholeDecodeHasThem) {
    TestSupport::TempDir dir;
    MediaFixtures::writeWav(dir / "source.wav", burstyNoise(24, 5));
    // AAC and MP3 both prime their decoders with samples the container tells the decoder to drop.
    for (const auto& [name, codec] : std::vector<std::pair<std::string, std::string>>{
             {"aac.m4a", "aac"}, {"mp3.mp3", "libmp3lame"}, {"pcm.wav", "pcm_s16le"}}) {
        SCOPED_TRACE(name);
        MediaFixtures::runFfmpeg({"-i", (dir / "source.wav").string(), "-ar", "48000", "-c:a",
                                  codec, (dir / name).string()});
        const auto whole = MediaDecoder::decodeMixedMono(dir / name, kRate, {});
        MediaDecoder::StretchDecoder stretches(dir / name, kRate);
        for (const double from : {13.7, 0.1, 6.25, 21.0}) {
            SCOPED_TRACE(from);
            const auto stretch = stretches.read(from, 1.0);
            ASSERT_EQ(stretch.size(), static_cast<std::size_t>(kRate));
            const auto at = static_cast<std::size_t>(std::lround(from * kRate));
            int bestLag = 0;
            double best = -2;
            for (int lag = -8; lag <= 8; ++lag) {
                const std::vector<float> there(
                    whole.begin() + static_cast<std::ptrdiff_t>(at) + lag,
                    whole.begin() + static_cast<std::ptrdiff_t>(at) + lag + kRate);
                const double score = bruteScore(stretch, there, 0, 0);
                if (score > best) {
                    best = score;
                    bestLag = lag;
                }
            }
            EXPECT_LE(std::abs(bestLag), 1);
            EXPECT_GT(best, 0.95);
        }
    }
}

TEST(Refine, WithoutTheFlagTheResultsAreTheBandPlacementAndRefiningOnlyAddsToThem) {
    TestSupport::TempDir dir;
    const auto master = burstyNoise(40, 21);
    std::filesystem::create_directories(dir / "A");
    std::filesystem::create_directories(dir / "B");
    MediaFixtures::writeWav(dir / "A" / "ref.wav", master);
    // 10.0123 s in: not on a band frame, so the band placement is a few milliseconds off.
    const std::size_t from = 160197;
    MediaFixtures::writeWav(
        dir / "B" / "clip.wav",
        std::vector<float>(master.begin() + from, master.begin() + from + 20 * kRate));
    nlohmann::json request = {{"version", 1}, {"items", nlohmann::json::array()}};
    for (const auto* side : {"A/ref.wav", "B/clip.wav"}) {
        const auto path = dir / side;
        request["items"].push_back(
            {{"path", path.string()}, {"dropHint", path.parent_path().string()}});
    }
    TestSupport::writeText(dir / "request.json", request.dump());
    const std::vector<std::string> env{"XDG_CACHE_HOME=" + (dir / "cache").string()};
    const auto plain = TestSupport::runProcess(
        {TESSARIN_CLI_PATH, "--input", (dir / "request.json").string()}, {}, env);
    const auto refined = TestSupport::runProcess(
        {TESSARIN_CLI_PATH, "--refine", "--input", (dir / "request.json").string()}, {}, env);
    ASSERT_EQ(plain.exitCode, 0) << plain.err;
    ASSERT_EQ(refined.exitCode, 0) << refined.err;
    EXPECT_EQ(refined.err.find("Unknown argument"), std::string::npos);
    EXPECT_EQ(plain.out.find("refined"), std::string::npos);
    EXPECT_EQ(plain.out.find("driftPpm"), std::string::npos);
    EXPECT_EQ(plain.err.find("refined by their own audio"), std::string::npos)
        << "without the flag the step does not run";
    EXPECT_NE(refined.err.find("1 clips refined by their own audio"), std::string::npos);

    // Results and the closing event; progress of parallel extraction comes in any order.
    const auto placements = [](const std::string& out) {
        std::vector<nlohmann::json> kept;
        std::istringstream lines(out);
        for (std::string line; std::getline(lines, line);) {
            auto e = nlohmann::json::parse(line);
            if (e["type"] != "progress") {
                kept.push_back(std::move(e));
            }
        }
        return kept;
    };
    const auto bands = placements(plain.out);
    const auto refinements = placements(refined.out);
    ASSERT_EQ(bands.size(), refinements.size());
    int moved = 0;
    for (std::size_t i = 0; i < bands.size(); ++i) {
        const auto& band = bands[i];
        auto undone = refinements[i];
        if (undone.contains("refinedBy")) {
            ++moved;
            const double by = undone["refinedBy"];
            undone["startOffset"] = undone["startOffset"].get<double>() - by;
            EXPECT_NEAR(undone["startOffset"].get<double>(), band["startOffset"].get<double>(),
                        1e-9);
            undone["startOffset"] = band["startOffset"];
            auto text = undone["explanation"].get<std::string>();
            ASSERT_TRUE(text.ends_with(" \u00B7 refined")) << text;
            undone["explanation"] =
                text.substr(0, text.size() - std::string(" \u00B7 refined").size());
            undone.erase("refinedBy");
        }
        EXPECT_EQ(undone.dump(), band.dump());
    }
    EXPECT_EQ(moved, 1);
    // The pair lies within a fraction of a millisecond of its truth once refined.
    std::map<std::string, double> starts;
    std::istringstream events(refined.out);
    for (std::string line; std::getline(events, line);) {
        const auto e = nlohmann::json::parse(line);
        if (e["type"] == "result") {
            starts[std::filesystem::path(e["path"].get<std::string>()).filename()] =
                e["startOffset"];
        }
    }
    EXPECT_NEAR(starts["clip.wav"] - starts["ref.wav"], from / static_cast<double>(kRate), 0.0002);
}

TEST(Refine, AShortClipLaidByItsClockIsFoundSampleBySampleOrLeftWhereItWas) {
    const auto master = burstyNoise(60, 31);
    const auto unrelated = burstyNoise(60, 32);
    for (const bool related : {true, false}) {
        SCOPED_TRACE(related);
        MemoryFiles memory;
        memory.files["ref.wav"] = master;
        // 3 s of the master from 20.25 s, laid by its clock 0.3 s early.
        const auto& source = related ? master : unrelated;
        std::vector<float> heard(source.begin() + 20 * kRate + kRate / 4,
                                 source.begin() + 23 * kRate + kRate / 4);
        // The camera hears sound of its own too: what it shares correlates well under 1.
        const auto own = burstyNoise(3, 33);
        for (std::size_t i = 0; i < heard.size(); ++i) {
            heard[i] += own[i];
        }
        memory.files["clip.wav"] = heard;
        auto tracks = twoTracks(60, 3, 19.95);
        tracks[0].clips[0].syncStatus = SyncStatus::synced;
        auto& clip = tracks[1].clips[0];
        clip.placementPass = PlacementCode::clock;
        clip.syncStatus = SyncStatus::weak;
        clip.placedAgainst.reset();
        Refine::placeShortClipsBySamples(tracks, memory.opener(), 1);
        if (related) {
            EXPECT_NEAR(clip.startOffset, 20.25, 1.0 / kRate);
            EXPECT_EQ(clip.placementPass, PlacementCode::A3s);
            EXPECT_EQ(clip.syncStatus, SyncStatus::synced);
            EXPECT_EQ(clip.placedAgainst, tracks[0].clips[0].id);
        } else {
            EXPECT_DOUBLE_EQ(clip.startOffset, 19.95);
            EXPECT_EQ(clip.placementPass, PlacementCode::clock);
        }
    }
}
