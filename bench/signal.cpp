// Speed of the band features and of the band search.
//
// compute_realtime_factor: seconds of 16 kHz audio turned into features per CPU second, over one
// hour of noise. peaks_fft_equivalents_*: one search of a 45 s clip against a reference of 10
// minutes, 1 hour or 3 hours of features, already searched before (as a pool segment is searched
// by clip after clip), in units of one forward real transform of the size the search uses.

#include "TessarinEngine/SpectralBands.h"
#include "TessarinEngine/SyncCorrelator.h"
#include "TessarinEngine/platform/Fft.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <time.h>

namespace {

constexpr int kClipFrames = 1125;
constexpr int kClipCount = 8;
constexpr double kHour = 3600.0;

std::vector<float> noise(std::size_t count, std::uint64_t seed) {
    // xorshift: an hour of samples in a fraction of a second.
    std::vector<float> out(count);
    std::uint64_t x = seed | 1;
    for (auto& v : out) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        v = static_cast<float>(x >> 40) / static_cast<float>(1 << 24) - 0.5f;
    }
    return out;
}

const std::vector<float>& hourOfAudio() {
    static const auto pcm = noise(static_cast<std::size_t>(16000 * kHour), 7);
    return pcm;
}

int referenceFrames(int minutes) {
    return minutes * 60 * 25;
}

unsigned searchLog2n(int minutes) {
    return static_cast<unsigned>(
        std::countr_zero(std::bit_ceil(std::size_t(referenceFrames(minutes) + kClipFrames - 1))));
}

SpectralBands::Feature randomFeature(int frames, std::uint64_t seed) {
    SpectralBands::Feature::Bands bands;
    for (int b = 0; b < 8; ++b) {
        bands.push_back(noise(std::size_t(frames), seed + std::uint64_t(b)));
    }
    return SpectralBands::Feature(std::move(bands), frames);
}

void computeHour(benchmark::State& state) {
    const auto& pcm = hourOfAudio();
    for (auto _ : state) {
        auto feature = SpectralBands::compute(pcm);
        benchmark::DoNotOptimize(feature);
    }
}

double threadSeconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) + 1e-9 * double(t.tv_nsec);
}

// Each iteration is one search and, right after it, a few forward transforms of the search's
// size, each timed on its own: the two share whatever else the machine is doing, so their ratio
// holds up on a busy machine. The ratio is reported as the counter fft_equivalents.
void peaksAgainstReference(benchmark::State& state) {
    const int minutes = static_cast<int>(state.range(0));
    const auto ref = randomFeature(referenceFrames(minutes), 100 + std::uint64_t(minutes));
    // Different clips in turn, each cut from somewhere in the reference.
    std::vector<SpectralBands::Feature> clips;
    for (int i = 0; i < kClipCount; ++i) {
        const double start = (ref.frames - kClipFrames) / 25.0 * i / kClipCount;
        clips.push_back(*SpectralBands::slice(ref, start, kClipFrames / 25.0));
    }
    const auto* setup = SyncCorrelator::sharedFFTSetup(searchLog2n(minutes));
    Fft::RealBuffer in(setup->size());
    const auto values = noise(setup->size(), 3);
    std::copy(values.begin(), values.end(), in.begin());
    Fft::ComplexBuffer out(setup->spectrumSize());

    const double bound = std::numeric_limits<double>::max();
    benchmark::DoNotOptimize(SpectralBands::peaks(clips[0], ref, -bound, bound, 8.0, 1, 0.5));
    constexpr int kTransforms = 4;
    double peaksTime = 0;
    double fftTime = 0;
    std::size_t i = 0;
    for (auto _ : state) {
        const double t0 = threadSeconds();
        auto found = SpectralBands::peaks(clips[i++ % kClipCount], ref, -bound, bound, 8.0, 1, 0.5);
        benchmark::DoNotOptimize(found);
        const double t1 = threadSeconds();
        for (int k = 0; k < kTransforms; ++k) {
            setup->forward(in, out);
            benchmark::DoNotOptimize(out.data());
            benchmark::ClobberMemory();
        }
        const double t2 = threadSeconds();
        peaksTime += t1 - t0;
        fftTime += (t2 - t1) / kTransforms;
    }
    state.counters["peaks_us"] = benchmark::Counter(1e6 * peaksTime / double(state.iterations()));
    state.counters["fft_us"] = benchmark::Counter(1e6 * fftTime / double(state.iterations()));
    state.counters["fft_equivalents"] = benchmark::Counter(peaksTime / fftTime);
}

void forwardTransform(benchmark::State& state) {
    const auto log2n = static_cast<unsigned>(state.range(0));
    const auto* setup = SyncCorrelator::sharedFFTSetup(log2n);
    Fft::RealBuffer in(setup->size());
    const auto values = noise(setup->size(), 3);
    std::copy(values.begin(), values.end(), in.begin());
    Fft::ComplexBuffer out(setup->spectrumSize());
    for (auto _ : state) {
        setup->forward(in, out);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
}

BENCHMARK(computeHour)->Unit(benchmark::kMillisecond)->Repetitions(3);
BENCHMARK(peaksAgainstReference)
    ->Arg(10)
    ->Arg(60)
    ->Arg(180)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(3);
BENCHMARK(forwardTransform)
    ->Arg(searchLog2n(10))
    ->Arg(searchLog2n(60))
    ->Arg(searchLog2n(180))
    ->Unit(benchmark::kMicrosecond);

// Keeps, for each benchmark, the least CPU time per iteration (or the least ratio, for searches)
// among its repetitions: other work on the machine only ever makes a run slower.
class BestTimes : public benchmark::ConsoleReporter {
public:
    // Without colour, so that the name=value lines after the table start clean.
    BestTimes() : ConsoleReporter(OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const auto& run : runs) {
            if (run.run_type != Run::RT_Iteration || run.error_occurred || run.iterations == 0) {
                continue;
            }
            double seconds = run.cpu_accumulated_time / double(run.iterations);
            if (auto ratio = run.counters.find("fft_equivalents"); ratio != run.counters.end()) {
                seconds = ratio->second.value;
            }
            auto name = run.run_name.function_name;
            if (!run.run_name.args.empty()) {
                name += "/" + run.run_name.args;
            }
            auto [entry, added] = best.emplace(name, seconds);
            if (!added) {
                entry->second = std::min(entry->second, seconds);
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

    std::map<std::string, double> best;
};

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    BestTimes reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    const auto& best = reporter.best;
    if (best.count("computeHour")) {
        std::printf("compute_realtime_factor=%.0f\n", kHour / best.at("computeHour"));
    }
    for (const auto& [minutes, label] :
         {std::pair{10, "10min"}, std::pair{60, "1h"}, std::pair{180, "3h"}}) {
        const auto peaks = "peaksAgainstReference/" + std::to_string(minutes);
        if (best.count(peaks)) {
            std::printf("peaks_fft_equivalents_%s=%.2f\n", label, best.at(peaks));
        }
    }
    return 0;
}
