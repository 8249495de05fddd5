// Times the placement engine alone on a generated shoot: four cameras of 50 clips each (20 s to
// 4 min), two sound recorders that ran about two hours in takes, and a backup recorder that ran
// three hours in four files just under 45 minutes each, chained by its own clock set 5 hours off.
// Every clip's audio is cut from one long generated signal, coloured and noised per device, and
// turned into band features before the clock starts; nothing is decoded.

#include "TessarinEngine/EngineLog.h"
#include "TessarinEngine/SpectralBands.h"
#include "TessarinEngine/SyncEngine.h"
#include "TessarinEngine/SyncEngine/PeakTiming.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <random>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <vector>

namespace {

constexpr int kRate = 16000;
constexpr Date kEpoch = 1.7e9;

std::uint64_t mix(std::uint64_t x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

// Uniform in [-1, 1), a pure function of its arguments, so that any stretch of the shoot's sound
// can be made on its own.
float noiseAt(std::uint64_t index, std::uint64_t stream) {
    return static_cast<float>(static_cast<double>(mix(index * 0x100000001B3ull ^ stream) >> 11) *
                                  (2.0 / 9007199254740992.0) -
                              1.0);
}

// Loudness of the scene in 100 ms steps: bursts and lulls over a range of about 40 dB.
float loudnessAt(std::uint64_t block, std::uint64_t stream) {
    return std::exp(2.3f * noiseAt(block, stream ^ 0xABCDEFull));
}

struct Device {
    std::uint64_t seed = 0;
    // One-pole low-pass of the device's microphone and placement; 0 keeps the sound as it is.
    float colour = 0;
    float noiseLevel = 0.05f;
};

// The shoot's sound from `startSec` for `durSec`, as heard by one device.
std::vector<float> recordPcm(double startSec, double durSec, const Device& device) {
    const auto first = static_cast<std::int64_t>(std::llround(startSec * kRate));
    const auto count = static_cast<std::size_t>(std::llround(durSec * kRate));
    std::vector<float> pcm(count);
    float low = 0;
    float lowBed = 0;
    for (std::size_t n = 0; n < count; ++n) {
        const auto i = static_cast<std::uint64_t>(first + static_cast<std::int64_t>(n));
        // Two layers with their own rhythm: a broadband one and a darker bed.
        const float bright = noiseAt(i, 1) * loudnessAt(i / 1600, 1);
        lowBed = 0.97f * lowBed + 0.03f * noiseAt(i, 2);
        const float bed = lowBed * 6.0f * loudnessAt(i / 2400, 2);
        const float scene = 0.15f * (bright + bed);
        low = device.colour * low + (1.0f - device.colour) * scene;
        pcm[n] = low + device.noiseLevel * noiseAt(i, device.seed);
    }
    return pcm;
}

struct TrueClip {
    int si = 0;
    int ci = 0;
    double start = 0;
};

struct Shoot {
    std::vector<TrackSource> tracks;
    std::vector<TrueClip> truth;
};

ClipItem makeClip(const std::string& path, double start, double dur, double clockError) {
    ClipItem clip(path);
    clip.duration = dur;
    clip.recordingDate = kEpoch + start + clockError;
    clip.clockQuality = ClockQuality::embedded;
    return clip;
}

Shoot buildShoot() {
    Shoot shoot;
    std::mt19937 rng(2024);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    const char* cameraNames[] = {"CamA", "CamB", "CamC", "CamD"};
    const double cameraClockError[] = {2.5, -4.0, 11.0, -1.5};
    std::vector<Device> devices;
    for (int cam = 0; cam < 4; ++cam) {
        TrackSource track;
        track.name = cameraNames[cam];
        track.type = SourceType::video;
        track.session = "/shoot";
        double cursor = 60.0 * unit(rng);
        for (int k = 0; k < 50; ++k) {
            const double dur = std::round((20.0 + 220.0 * unit(rng)) * 25.0) / 25.0;
            char path[96];
            std::snprintf(path, sizeof path, "/shoot/%s/%c%03d.mov", cameraNames[cam], 'A' + cam,
                          k + 1);
            shoot.truth.push_back({cam, k, cursor});
            track.clips.push_back(makeClip(path, cursor, dur, cameraClockError[cam]));
            track.clips.back().frameRate = 25.0f;
            cursor += dur + 5.0 + 35.0 * unit(rng);
        }
        shoot.tracks.push_back(track);
        devices.push_back(Device{100u + static_cast<unsigned>(cam), 0.2f + 0.15f * cam, 0.08f});
    }
    for (int rec = 0; rec < 2; ++rec) {
        TrackSource track;
        track.name = rec == 0 ? "Rec1" : "Rec2";
        track.type = SourceType::audio;
        track.session = "/shoot";
        double cursor = 0;
        int take = 0;
        while (cursor < 7800.0) {
            const double dur = std::round((600.0 + 600.0 * unit(rng)) * 25.0) / 25.0;
            char path[96];
            std::snprintf(path, sizeof path, "/shoot/%s/T%03d.wav", track.name.c_str(), ++take);
            shoot.truth.push_back({4 + rec, take - 1, cursor});
            track.clips.push_back(makeClip(path, cursor, dur, 0.0));
            cursor += dur + 10.0 + 20.0 * unit(rng);
        }
        shoot.tracks.push_back(track);
        devices.push_back(Device{200u + static_cast<unsigned>(rec), 0.05f, 0.03f});
    }

    {
        // Files below 2700 s, so the backup never becomes the reference and must be linked by
        // its content; each file starts where the one before ended by the backup's own clock.
        TrackSource track;
        track.name = "Backup";
        track.type = SourceType::audio;
        track.session = "/shoot";
        constexpr double kFileSeconds = 2690.0;
        constexpr double kBackupClockError = 5 * 3600.0;
        for (int file = 0; file < 4; ++file) {
            char path[96];
            std::snprintf(path, sizeof path, "/shoot/Backup/BK%03d.wav", file + 1);
            const double start = file * kFileSeconds;
            shoot.truth.push_back({6, file, start});
            track.clips.push_back(makeClip(path, start, kFileSeconds, kBackupClockError));
        }
        shoot.tracks.push_back(track);
        devices.push_back(Device{300u, 0.1f, 0.04f});
    }

    // Features are made two clips at a time; this is set-up, not what is measured.
    std::vector<TrueClip> work = shoot.truth;
    std::mutex mutex;
    std::size_t next = 0;
    auto worker = [&] {
        for (;;) {
            TrueClip job;
            {
                std::lock_guard lock(mutex);
                if (next >= work.size()) {
                    return;
                }
                job = work[next++];
            }
            auto& clip = shoot.tracks[job.si].clips[job.ci];
            auto feature =
                SpectralBands::compute(recordPcm(job.start, clip.duration, devices[job.si]));
            std::lock_guard lock(mutex);
            if (!feature.empty()) {
                clip.bandFeature = std::move(feature);
            }
        }
    };
    std::thread helper(worker);
    worker();
    helper.join();
    return shoot;
}

double processCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

struct Measured {
    double wallSeconds = 0;
    double cpuSeconds = 0;
    double peaksSeconds = 0;
    int clips = 0;
    int synced = 0;
    int accurate = 0;
    int backupLinked = 0;
};

Measured measured;

// Clips within 0.1 s of where they were cut, once the timeline's own shift is taken out.
int countAccurate(const Shoot& shoot, const std::vector<TrackSource>& placed) {
    std::vector<double> shifts;
    for (const auto& t : shoot.truth) {
        shifts.push_back(placed[t.si].clips[t.ci].startOffset - t.start);
    }
    std::nth_element(shifts.begin(), shifts.begin() + shifts.size() / 2, shifts.end());
    const double shift = shifts[shifts.size() / 2];
    int accurate = 0;
    for (const auto& t : shoot.truth) {
        accurate += std::abs(placed[t.si].clips[t.ci].startOffset - t.start - shift) <= 0.1;
    }
    return accurate;
}

void BM_Synchronise(benchmark::State& state) {
    static const Shoot shoot = buildShoot();
    for (auto _ : state) {
        SyncEngine::PeakTiming::reset();
        SyncEngine::PeakTiming::enable(true);
        const double cpuBefore = processCpuSeconds();
        const auto start = std::chrono::steady_clock::now();
        auto placed = SyncEngine::synchronise(
            shoot.tracks, [](double, const std::string&) {},
            [](const Uuid&, double, SyncStatus) {});
        const auto end = std::chrono::steady_clock::now();
        measured.cpuSeconds = processCpuSeconds() - cpuBefore;
        SyncEngine::PeakTiming::enable(false);
        measured.wallSeconds = std::chrono::duration<double>(end - start).count();
        measured.peaksSeconds = SyncEngine::PeakTiming::cpuSeconds();
        measured.clips = 0;
        measured.synced = 0;
        for (const auto& track : placed) {
            for (const auto& clip : track.clips) {
                ++measured.clips;
                measured.synced += clip.syncStatus == SyncStatus::synced;
            }
        }
        measured.accurate = countAccurate(shoot, placed);
        measured.backupLinked = 0;
        for (const auto& clip : placed.back().clips) {
            measured.backupLinked += clip.placementPass == "linked";
        }
        benchmark::DoNotOptimize(placed);
    }
}

BENCHMARK(BM_Synchronise)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

} // namespace

int main(int argc, char** argv) {
    // The engine's log lines are not what is measured.
    EngineLog::sink() = [](const std::string&) {
    };
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::printf("sync_synced=%d\n", measured.synced);
    std::printf("sync_accurate=%d\n", measured.accurate);
    std::printf("sync_backup_linked=%d\n", measured.backupLinked);
    std::printf("sync_seconds=%.2f\n", measured.wallSeconds);
    std::printf("sync_clips=%d\n", measured.clips);
    std::printf("sync_peaks_share=%.3f\n",
                measured.cpuSeconds > 0 ? measured.peaksSeconds / measured.cpuSeconds : 0.0);
    return 0;
}
