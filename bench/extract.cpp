// Extraction speed against the ffmpeg program doing the same conversion (every channel to one,
// 16 kHz, 32-bit float) on a generated 10-minute 48 kHz stereo AAC MP4, and the peak memory of
// one extraction in a process of its own. Prints extract_vs_ffmpeg_ratio and
// extract_peak_rss_mb last.

#include "TessarinEngine/AudioExtractor.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

namespace {

std::filesystem::path gMedia;
double gBestExtract = std::numeric_limits<double>::infinity();
double gBestFfmpeg = std::numeric_limits<double>::infinity();

std::string ffmpegCommand(const std::filesystem::path& media) {
    return "ffmpeg -v error -i '" + media.string() +
           "' -ac 1 -ar 16000 -f f32le -y /dev/null </dev/null";
}

template <class F>
double secondsOf(F&& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The two runs alternate, so that load from other processes falls on both alike; the best of
// each is compared.
void BM_ExtractAgainstFfmpeg(benchmark::State& state) {
    for (auto _ : state) {
        const double extract = secondsOf([] {
            auto audio = AudioExtractor::extract(gMedia, 600.0, {});
            benchmark::DoNotOptimize(audio.samples.data());
        });
        const double ffmpeg = secondsOf([] {
            if (std::system(ffmpegCommand(gMedia).c_str()) != 0) {
                std::fprintf(stderr, "ffmpeg failed\n");
                std::exit(1);
            }
        });
        gBestExtract = std::min(gBestExtract, extract);
        gBestFfmpeg = std::min(gBestFfmpeg, ffmpeg);
        state.SetIterationTime(extract);
    }
    state.counters["extract_s"] = gBestExtract;
    state.counters["ffmpeg_s"] = gBestFfmpeg;
}
BENCHMARK(BM_ExtractAgainstFfmpeg)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);

// The child's own peak resident size, in MiB, after one extraction.
int reportPeakRss(const char* media) {
    auto audio = AudioExtractor::extract(media, 600.0, {});
    benchmark::DoNotOptimize(audio.samples.data());
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    std::printf("%.1f\n", static_cast<double>(usage.ru_maxrss) / 1024.0);
    return 0;
}

double peakRssInChild(const std::filesystem::path& media) {
    const auto self = std::filesystem::read_symlink("/proc/self/exe");
    const std::string command = "'" + self.string() + "' --peak-rss '" + media.string() + "'";
    FILE* child = ::popen(command.c_str(), "r");
    if (!child) {
        return -1;
    }
    double mb = -1;
    if (std::fscanf(child, "%lf", &mb) != 1) {
        mb = -1;
    }
    ::pclose(child);
    return mb;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::string(argv[1]) == "--peak-rss") {
        return reportPeakRss(argv[2]);
    }

    char folder[] = "/tmp/tessarin-bench-extract-XXXXXX";
    if (!::mkdtemp(folder)) {
        std::perror("mkdtemp");
        return 1;
    }
    gMedia = std::filesystem::path(folder) / "ten-minutes.mp4";
    std::fprintf(stderr, "making %s\n", gMedia.c_str());
    const std::string make = "ffmpeg -nostdin -v error -y -f lavfi -i "
                             "'anoisesrc=c=pink:r=48000:a=0.3:d=600' -ac 2 -c:a aac -b:a 192k '" +
                             gMedia.string() + "'";
    if (std::system(make.c_str()) != 0) {
        std::fprintf(stderr, "cannot make the test media\n");
        std::filesystem::remove_all(folder);
        return 1;
    }

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    const double rss = peakRssInChild(gMedia);
    std::filesystem::remove_all(folder);

    std::printf("extract_seconds=%.3f\n", gBestExtract);
    std::printf("ffmpeg_seconds=%.3f\n", gBestFfmpeg);
    std::printf("extract_vs_ffmpeg_ratio=%.3f\n", gBestExtract / gBestFfmpeg);
    std::printf("extract_peak_rss_mb=%.1f\n", rss);
    return 0;
}
