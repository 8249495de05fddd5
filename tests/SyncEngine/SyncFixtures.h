#pragma once

#include "TessarinEngine/SpectralBands.h"
#include "TessarinEngine/SyncEngine.h"
#include "TessarinEngine/SyncEngine/Run.h"
#include "TessarinEngine/TrackModels.h"
#include "tests/support/TestSupport.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace SyncFixtures {

using Sound = std::vector<std::vector<float>>;

// A feature of `frames` frames whose bands hold nothing but zeros: long enough to count as
// hearable for the track rules, useless for matching.
inline SpectralBands::Feature flatFeature(int frames) {
    return SpectralBands::Feature(
        SpectralBands::Feature::Bands(8, std::vector<float>(static_cast<std::size_t>(frames))),
        frames);
}

inline ClipItem makeClip(const std::string& name, double duration,
                         std::optional<Date> date = std::nullopt,
                         ClockQuality quality = ClockQuality::embedded) {
    ClipItem clip("/shoot/" + name + ".wav");
    clip.duration = duration;
    clip.recordingDate = date;
    clip.clockQuality = date ? quality : ClockQuality::none;
    return clip;
}

inline TrackSource makeTrack(const std::string& name, SourceType type, std::vector<ClipItem> clips,
                             const std::string& session = "/shoot") {
    TrackSource track;
    track.name = name;
    track.type = type;
    track.clips = std::move(clips);
    track.session = session;
    return track;
}

inline TrackSource audioTrack(const std::string& name, std::vector<ClipItem> clips) {
    return makeTrack(name, SourceType::audio, std::move(clips));
}

inline TrackSource videoTrack(const std::string& name, std::vector<ClipItem> clips) {
    return makeTrack(name, SourceType::video, std::move(clips));
}

// The clip with a short flat feature: heard, but matching nothing.
inline ClipItem heard(ClipItem clip) {
    clip.bandFeature = flatFeature(std::min(static_cast<int>(clip.duration * 25), 100));
    return clip;
}

// The track with no feature on any clip, as when every extraction failed.
inline TrackSource unheard(TrackSource track) {
    for (auto& clip : track.clips) {
        clip.bandFeature.reset();
    }
    return track;
}

// A track whose clips each have a short flat feature: it was heard, so it may lead, yet it never
// matches anything.
inline TrackSource makeRecorder(const std::string& name, const std::vector<double>& durations) {
    std::vector<ClipItem> clips;
    for (double d : durations) {
        clips.push_back(heard(makeClip(name + "_" + std::to_string(clips.size()), d)));
    }
    return audioTrack(name, std::move(clips));
}

// A camera track like makeRecorder's: it counts as a long, hearable camera once a clip reaches
// 60 s.
inline TrackSource makeCamera(const std::string& name, const std::vector<double>& durations) {
    auto track = makeRecorder(name, durations);
    track.type = SourceType::video;
    return track;
}

// What the engine reported through its callbacks: progress, and the ids of the clips placed.
struct Reports {
    std::vector<std::pair<double, std::string>> progress;
    std::vector<Uuid> placed;
};

inline std::vector<TrackSource> runEngine(std::vector<TrackSource> tracks,
                                          Reports* reports = nullptr) {
    Reports local;
    Reports& r = reports ? *reports : local;
    return SyncEngine::synchronise(
        std::move(tracks),
        [&](double f, const std::string& label) { r.progress.emplace_back(f, label); },
        [&](const Uuid& id, double, SyncStatus) { r.placed.push_back(id); }, nullptr);
}

inline const SyncEngine::ProgressCallback noProgress;
inline const SyncEngine::PlaceCallback noPlace;

// A run whose one region holds every clip, with track 0 as its reference.
inline SyncEngine::Run regionRun(std::vector<TrackSource> tracks) {
    SyncEngine::Run run(std::move(tracks), noProgress, noPlace, nullptr);
    std::vector<ClipRef> refs;
    for (int si = 0; si < static_cast<int>(run.sources.size()); ++si) {
        for (int ci = 0; ci < static_cast<int>(run.sources[si].clips.size()); ++ci) {
            refs.push_back(ClipRef{si, ci});
        }
    }
    SyncEngine::beginRegion(run, "default", refs);
    run.region.refTrack = 0;
    return run;
}

// Band curves of a made-up shoot: each band is smoothed noise (0 leaves it white), so that any
// stretch of a few seconds is unlike every other stretch.
inline Sound randomBands(int frames, unsigned seed, float smoothing = 0.6f) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> noise(0.0f, 1.0f);
    Sound bands(8, std::vector<float>(static_cast<std::size_t>(frames)));
    for (auto& band : bands) {
        float level = 0;
        for (auto& v : band) {
            level = smoothing * level + noise(rng);
            v = level;
        }
    }
    return bands;
}

// Frames [from, from + count) of `bands`, with a little noise of its own, as a feature.
inline SpectralBands::Feature cutFeature(const Sound& bands, int from, int count, unsigned seed,
                                         float noiseLevel = 0.3f) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> noise(0.0f, noiseLevel);
    SpectralBands::Feature::Bands out(8);
    for (std::size_t b = 0; b < 8; ++b) {
        out[b].assign(bands[b].begin() + from, bands[b].begin() + from + count);
        double mean = 0;
        for (auto& v : out[b]) {
            v += noise(rng);
            mean += v;
        }
        mean /= count;
        double sq = 0;
        for (auto& v : out[b]) {
            v = static_cast<float>(v - mean);
            sq += static_cast<double>(v) * v;
        }
        const float scale = static_cast<float>(1.0 / std::sqrt(sq / count + 1e-12));
        for (auto& v : out[b]) {
            v *= scale;
        }
    }
    return SpectralBands::Feature(std::move(out), count);
}

// A clip that heard seconds [from, from + dur) of `sound`.
inline ClipItem heardClip(const Sound& sound, const std::string& name, double from, double dur,
                          unsigned seed, std::optional<Date> date = std::nullopt) {
    auto clip = makeClip(name, dur, date);
    clip.bandFeature = cutFeature(sound, static_cast<int>(std::lround(from * 25)),
                                  static_cast<int>(std::lround(dur * 25)), seed);
    return clip;
}

// A pool segment at `off` on the timeline that holds `bands`.
inline SyncEngine::PoolSpan featureSpan(double off, double dur, SpectralBands::Feature bands) {
    SyncEngine::PoolSpan span;
    span.off = off;
    span.dur = dur;
    span.bands = std::move(bands);
    return span;
}

// One chain of every clip in one region, chained in the order the tracks are given.
struct ChainRig {
    SyncEngine::Run run;
    SyncEngine::ChainState chain;
    std::vector<SyncEngine::PoolSpan> noSpans;

    explicit ChainRig(std::vector<TrackSource> tracks) : run(regionRun(std::move(tracks))) {
        chain.init(run, run.region.clips);
        chain.checkSpans = &noSpans;
    }
    void place(int i, double pos, bool strong, float score = 9.0f) {
        chain.place(run, i, pos,
                    SyncEngine::PlacementRecord{pos, score, "A1", std::nullopt, std::nullopt});
        if (strong) {
            chain.strong.insert(i);
        }
    }
    const ClipItem& clip(int i) const { return run.clip(chain.refs[i]); }
};

inline std::vector<std::string> linesWith(const TestSupport::LogCapture& log,
                                          const std::string& fragment) {
    std::vector<std::string> out;
    for (const auto& line : log.lines()) {
        if (line.find(fragment) != std::string::npos) {
            out.push_back(line);
        }
    }
    return out;
}

} // namespace SyncFixtures
