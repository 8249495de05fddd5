// Clips per second through flat ingest and metadata loading, for a drop of 500 short WAV and MP4
// files already in the page cache.

#include "TessarinEngine/EngineLog.h"
#include "TessarinEngine/IngestEngine.h"

#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace fs = std::filesystem;

namespace {

constexpr int kClipsPerKind = 250;

struct Drop {
    fs::path root;
    std::vector<IngestItem> items;
};

Drop* drop = nullptr;
double totalClips = 0;
double totalSeconds = 0;

bool run(const std::string& command) {
    return std::system(command.c_str()) == 0;
}

// One file of each kind made by ffmpeg, copied under numbered names: metadata reading costs the
// same for every copy, and 500 encoder runs would only slow the set-up.
std::optional<Drop> makeDrop() {
    char pattern[] = "/tmp/tessarin-bench-ingest-XXXXXX";
    if (!mkdtemp(pattern)) {
        return std::nullopt;
    }
    Drop d{pattern, {}};
    const fs::path wav = d.root / "tone.wav";
    const fs::path mp4 = d.root / "clip.mp4";
    const std::string ffmpeg = "ffmpeg -nostdin -v error -y ";
    if (!run(ffmpeg + "-f lavfi -i sine=frequency=440:duration=2 -ar 48000 '" + wav.string() +
             "'") ||
        !run(ffmpeg + "-f lavfi -i testsrc=size=160x120:rate=25:duration=2 -f lavfi -i " +
             "sine=frequency=440:duration=2 -c:v mpeg4 -c:a aac -shortest '" + mp4.string() +
             "'")) {
        return std::nullopt;
    }
    const fs::path cam = d.root / "A_CAM";
    const fs::path sound = d.root / "Sound";
    fs::create_directories(cam / "DCIM" / "100MEDIA");
    fs::create_directories(sound);
    for (int i = 1; i <= kClipsPerKind; ++i) {
        const auto video = cam / "DCIM" / "100MEDIA" / ("C" + std::to_string(1000 + i) + ".MP4");
        const auto audio = sound / ("T" + std::to_string(i) + ".WAV");
        fs::copy_file(mp4, video);
        fs::copy_file(wav, audio);
        d.items.push_back({video, cam});
        d.items.push_back({audio, sound});
    }
    return d;
}

void ingestAndLoadMetadata(benchmark::State& state) {
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        IngestEngine ingest;
        auto tracks = ingest.ingestFlat(drop->items, {});
        tracks = IngestEngine::loadMetadata(std::move(tracks), {});
        benchmark::DoNotOptimize(tracks);
        totalSeconds +=
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        totalClips += static_cast<double>(drop->items.size());
    }
    state.counters["clips_per_s"] = benchmark::Counter(
        static_cast<double>(state.iterations() * drop->items.size()), benchmark::Counter::kIsRate);
}

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    auto made = makeDrop();
    if (!made) {
        std::fprintf(stderr, "bench_ingest: could not make the test files with ffmpeg\n");
        return 1;
    }
    drop = &*made;
    EngineLog::sink() = [](const std::string&) {
    };

    // One untimed pass brings every file into the page cache.
    IngestEngine::loadMetadata(IngestEngine{}.ingestFlat(drop->items, {}), {});

    benchmark::RegisterBenchmark("ingest/flat+metadata/500", ingestAndLoadMetadata)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    std::error_code ec;
    fs::remove_all(drop->root, ec);
    std::printf("metadata_clips_per_s=%.1f\n", totalSeconds > 0 ? totalClips / totalSeconds : 0.0);
    return 0;
}
