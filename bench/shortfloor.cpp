// How high unrelated audio scores when a short clip is sought in a narrow stretch of a recording:
// the floor a clip under 5 s must pass so that a chance likeness passes it in under 1 % of
// searches.
//
// Usage: bench_shortfloor --clips FILE... --refs FILE... [--truth SHOOT/truth.json]
// The clips and the references must not share audio (two shoots of different seeds). Prints, for
// each clip length and searched width, the 99th percentile of the best score over random searches,
// and last one line `short_floor_<width>s=<score>` per width: the largest percentile of any length.
// With --truth, also how true short matches of that shoot's cameras against its recorders score
// (10th percentile) and how often the best peak is the true one, by the same lengths and widths.

#include "TessarinEngine/AudioExtractor.h"
#include "TessarinEngine/SpectralBands.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

namespace {

// With --stats S: the peak is chosen inside the searched width, but scored over S seconds of lags
// on either side, so that a true peak stands out against a broad background.
double gStatsHalf = 0;

std::vector<SpectralBands::Peak> narrowPeaks(const SpectralBands::Feature& clip,
                                             const SpectralBands::Feature& ref, double lo,
                                             double hi, double minOverlap) {
    if (gStatsHalf <= 0) {
        return SpectralBands::peaks(clip, ref, lo, hi, minOverlap, 1, 0.5);
    }
    const double mid = (lo + hi) / 2;
    const auto all =
        SpectralBands::peaks(clip, ref, mid - gStatsHalf, mid + gStatsHalf, minOverlap, 1000, 0.04);
    for (const auto& p : all) {
        if (p.offsetSeconds >= lo - 1e-9 && p.offsetSeconds <= hi + 1e-9) {
            return {p};
        }
    }
    return {};
}

std::vector<SpectralBands::Feature> features(const std::vector<std::string>& paths) {
    std::vector<SpectralBands::Feature> out;
    for (const auto& path : paths) {
        try {
            const auto audio = AudioExtractor::extract(path, 0.0, {});
            auto f = SpectralBands::compute(audio.samples);
            if (f.frames >= 25 * 10) {
                out.push_back(std::move(f));
            }
        } catch (const std::exception& e) {
            std::fprintf(stderr, "skipped %s: %s\n", path.c_str(), e.what());
        }
    }
    return out;
}

struct TrueClip {
    SpectralBands::Feature feature;
    double start = 0;
    std::string kind;
};

void trueScores(const std::string& truthPath, const double (&lengths)[8], const double (&widths)[9],
                const std::map<std::pair<double, double>, double>& floors) {
    std::ifstream in(truthPath);
    const auto truth = nlohmann::json::parse(in);
    std::vector<TrueClip> cams;
    std::vector<TrueClip> recs;
    for (const auto& c : truth["clips"]) {
        const auto f = features({c["path"].get<std::string>()});
        if (f.empty()) {
            continue;
        }
        TrueClip t{f.front(), c["start"].get<double>(), c["kind"].get<std::string>()};
        (t.kind == "camera" ? cams : recs).push_back(t);
    }
    std::mt19937 rng(9);
    std::printf("true matches: median score / share found within 0.04 s / share found and above "
                "the unrelated 99th percentile\n");
    for (double len : lengths) {
        std::printf("%8.1f ", len);
        for (double width : widths) {
            std::vector<float> scores;
            int found = 0;
            int tried = 0;
            int passed = 0;
            const auto floor = floors.find({len, width});
            for (int s = 0; s < 600 && !cams.empty(); ++s) {
                const auto& cam = cams[rng() % cams.size()];
                const double camSec = cam.feature.frames / 25.0;
                if (camSec <= len + 0.1) {
                    continue;
                }
                const double from = std::uniform_real_distribution<double>(0, camSec - len)(rng);
                const double master = cam.start + from;
                const TrueClip* rec = nullptr;
                for (const auto& r : recs) {
                    if (r.start <= master && master + len <= r.start + r.feature.frames / 25.0) {
                        rec = &r;
                    }
                }
                const auto slice = SpectralBands::slice(cam.feature, from, len);
                if (!rec || !slice || slice->frames >= rec->feature.frames) {
                    continue;
                }
                const double at = master - rec->start;
                const double centre =
                    at + std::uniform_real_distribution<double>(-width / 4, width / 4)(rng);
                const auto peaks = narrowPeaks(*slice, rec->feature, centre - width / 2,
                                               centre + width / 2, std::min(8.0, 0.8 * len));
                ++tried;
                if (!peaks.empty() && std::abs(peaks.front().offsetSeconds - at) <= 0.041) {
                    ++found;
                    scores.push_back(peaks.front().score);
                    if (floor != floors.end() && peaks.front().score >= floor->second) {
                        ++passed;
                    }
                }
            }
            std::sort(scores.begin(), scores.end());
            const double median = scores.empty() ? 0 : scores[scores.size() / 2];
            std::printf(" %4.1f/%2.0f/%2.0f%%", median, tried ? 100.0 * found / tried : 0.0,
                        tried ? 100.0 * passed / tried : 0.0);
        }
        std::printf("\n");
    }
}

} // namespace

int main(int argc, char** argv) {
    std::vector<std::string> clipPaths;
    std::vector<std::string> refPaths;
    std::vector<std::string> truthPaths;
    std::vector<std::string>* into = nullptr;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--stats") == 0 && i + 1 < argc) {
            gStatsHalf = std::atof(argv[++i]);
        } else if (std::strcmp(argv[i], "--truth") == 0) {
            into = &truthPaths;
        } else if (std::strcmp(argv[i], "--clips") == 0) {
            into = &clipPaths;
        } else if (std::strcmp(argv[i], "--refs") == 0) {
            into = &refPaths;
        } else if (into) {
            into->push_back(argv[i]);
        }
    }
    const auto clips = features(clipPaths);
    const auto refs = features(refPaths);
    if (clips.empty() || refs.empty()) {
        std::fprintf(stderr, "usage: bench_shortfloor --clips FILE... --refs FILE...\n");
        return 2;
    }
    const double lengths[] = {1.5, 2.0, 3.0, 4.0, 5.0, 8.0, 20.0, 60.0};
    const double widths[] = {1, 2, 3, 5, 10, 20, 40, 80, 160};
    constexpr int kSearches = 1000;
    std::mt19937 rng(5);
    std::map<double, double> worst;
    std::map<std::pair<double, double>, double> floors;
    std::printf("%8s", "len\\width");
    for (double w : widths) {
        std::printf(" %6.0f", w);
    }
    std::printf("\n");
    for (double len : lengths) {
        std::printf("%8.1f ", len);
        for (double width : widths) {
            std::vector<float> best;
            for (int s = 0; s < kSearches; ++s) {
                const auto& clip = clips[rng() % clips.size()];
                const auto& ref = refs[rng() % refs.size()];
                const double clipSec = clip.frames / 25.0;
                const double refSec = ref.frames / 25.0;
                if (clipSec <= len + 0.1 || refSec <= width + len + 1) {
                    continue;
                }
                const double from = std::uniform_real_distribution<double>(0, clipSec - len)(rng);
                const auto slice = SpectralBands::slice(clip, from, len);
                if (!slice) {
                    continue;
                }
                const double at = std::uniform_real_distribution<double>(
                    width / 2, refSec - len - width / 2)(rng);
                const auto peaks = narrowPeaks(*slice, ref, at - width / 2, at + width / 2,
                                               std::min(8.0, 0.8 * len));
                if (!peaks.empty()) {
                    best.push_back(peaks.front().score);
                }
            }
            if (best.empty()) {
                std::printf(" %6s", "-");
                continue;
            }
            std::sort(best.begin(), best.end());
            const double p99 = best[std::min(best.size() - 1, best.size() * 99 / 100)];
            worst[width] = std::max(worst[width], p99);
            floors[{len, width}] = p99;
            std::printf(" %6.2f", p99);
        }
        std::printf("\n");
    }
    if (!truthPaths.empty()) {
        trueScores(truthPaths.front(), lengths, widths, floors);
    }
    for (const auto& [width, score] : worst) {
        std::printf("short_floor_%.0fs=%.2f\n", width, score);
    }
    return 0;
}
