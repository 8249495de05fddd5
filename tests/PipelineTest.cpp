#include "TessarinEngineCLI/Pipeline.h"

#include "TessarinEngine/EnvelopeCache.h"
#include "tests/support/MediaFixtures.h"
#include "tests/support/TestSupport.h"

#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <latch>
#include <thread>

using Pipeline::ExtractJob;
using Pipeline::ExtractOutcome;

namespace {

// One track per clip duration, one clip each.
std::vector<TrackSource> tracksWith(const std::vector<double>& durations) {
    std::vector<TrackSource> tracks(1);
    for (std::size_t i = 0; i < durations.size(); ++i) {
        ClipItem clip("/shoot/clip" + std::to_string(i) + ".wav");
        clip.duration = durations[i];
        tracks[0].clips.push_back(clip);
    }
    return tracks;
}

std::vector<ExtractJob> jobsFor(const std::vector<TrackSource>& tracks) {
    std::vector<ExtractJob> jobs;
    for (std::size_t ci = 0; ci < tracks[0].clips.size(); ++ci) {
        const auto& c = tracks[0].clips[ci];
        jobs.push_back({0, static_cast<int>(ci), c.url, c.duration});
    }
    return jobs;
}

SpectralBands::Feature featureOf(int frames) {
    return {SpectralBands::Feature::Bands(8, std::vector<float>(frames, 0.0f)), frames};
}

ExtractOutcome succeed(const ExtractJob& j, std::optional<double> refined) {
    return {j.si, j.ci, j.url, Pipeline::jobWeight(j.duration), featureOf(10), refined, {}};
}

struct Recorder {
    std::vector<Event> events;
    Pipeline::EventSink sink() {
        return [this](const Event& e) {
            events.push_back(e);
        };
    }
};

} // namespace

TEST(Pipeline, ExtractWidthFollowsProcessorsWithinTwoToFour) {
    EXPECT_EQ(Pipeline::extractWidth(0), 2);
    EXPECT_EQ(Pipeline::extractWidth(1), 2);
    EXPECT_EQ(Pipeline::extractWidth(3), 3);
    EXPECT_EQ(Pipeline::extractWidth(8), 4);
}

TEST(Pipeline, ExtractPhaseNeverRunsMoreThanItsWidth) {
    auto tracks = tracksWith(std::vector<double>(12, 10.0));
    std::atomic<int> active{0}, highest{0};
    Recorder rec;
    Pipeline::runExtractPhase(
        tracks, jobsFor(tracks), 3,
        [&](const ExtractJob& j) {
            int now = ++active;
            int seen = highest.load();
            while (now > seen && !highest.compare_exchange_weak(seen, now)) {
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            --active;
            return succeed(j, 9.5);
        },
        rec.sink());
    EXPECT_LE(highest.load(), 3);
    EXPECT_GE(highest.load(), 2);
    EXPECT_EQ(rec.events.size(), 12u);
    for (const auto& clip : tracks[0].clips) {
        EXPECT_TRUE(clip.bandFeature);
        EXPECT_EQ(clip.duration, 9.5);
    }
}

TEST(Pipeline, OutcomesFoldInOrderOfFinishingWithWeightedProgress) {
    // Weights 0.5 (floor for 0 s), 0.5 (floor for 0.3 s), 2.0 and 0.5 (exactly 0.5): total 3.5.
    auto tracks = tracksWith({0.0, 0.3, 2.0, 0.5});
    std::latch secondDone(1);
    Recorder rec;
    Pipeline::runExtractPhase(
        tracks, jobsFor(tracks), 2,
        [&](const ExtractJob& j) {
            if (j.ci == 0) {
                // The first job finishes only after the second.
                secondDone.wait();
                std::this_thread::sleep_for(std::chrono::milliseconds(150));
            }
            auto out = succeed(j, std::nullopt);
            if (j.ci == 1) {
                out.bands.reset();
                out.errorMessage = "Extraction failed: emptySamples(\"clip1.wav\")";
                secondDone.count_down();
            }
            if (j.ci == 2) {
                out.refinedDuration = 2.25;
            }
            return out;
        },
        rec.sink());

    ASSERT_EQ(rec.events.size(), 5u);
    // The failed second clip reports progress first, then its error with the same path.
    auto p0 = std::get<ProgressEvent>(rec.events[0]);
    EXPECT_EQ(p0.phase, "extract");
    EXPECT_EQ(p0.path, "/shoot/clip1.wav");
    EXPECT_DOUBLE_EQ(p0.fraction, 0.5 / 3.5);
    auto e = std::get<ErrorEvent>(rec.events[1]);
    EXPECT_EQ(e.path, "/shoot/clip1.wav");
    EXPECT_EQ(e.message, "Extraction failed: emptySamples(\"clip1.wav\")");
    auto last = std::get<ProgressEvent>(rec.events[4]);
    EXPECT_DOUBLE_EQ(last.fraction, 1.0);
    EXPECT_EQ(std::get<ProgressEvent>(rec.events[4]).path, "/shoot/clip0.wav");

    // Features land on the right clips; a failed clip is unchanged; only a decode refines.
    EXPECT_TRUE(tracks[0].clips[0].bandFeature);
    EXPECT_FALSE(tracks[0].clips[1].bandFeature);
    EXPECT_EQ(tracks[0].clips[1].duration, 0.3);
    EXPECT_EQ(tracks[0].clips[2].duration, 2.25);
    EXPECT_EQ(tracks[0].clips[3].duration, 0.5);
}

TEST(Pipeline, ShortPhaseDividesByAtLeastOne) {
    auto tracks = tracksWith({0.1});
    Recorder rec;
    Pipeline::runExtractPhase(
        tracks, jobsFor(tracks), 4, [](const ExtractJob& j) { return succeed(j, std::nullopt); },
        rec.sink());
    ASSERT_EQ(rec.events.size(), 1u);
    EXPECT_DOUBLE_EQ(std::get<ProgressEvent>(rec.events[0]).fraction, 0.5);
}

TEST(Pipeline, AJobThatThrowsBecomesAnErrorOutcome) {
    auto tracks = tracksWith({3.0, 4.0});
    Recorder rec;
    Pipeline::runExtractPhase(
        tracks, jobsFor(tracks), 2,
        [](const ExtractJob& j) -> ExtractOutcome {
            if (j.ci == 1) {
                throw std::runtime_error("boom");
            }
            return succeed(j, std::nullopt);
        },
        rec.sink());
    int errors = 0;
    for (const auto& ev : rec.events) {
        if (auto* err = std::get_if<ErrorEvent>(&ev)) {
            ++errors;
            EXPECT_EQ(err->path, "/shoot/clip1.wav");
        }
    }
    EXPECT_EQ(errors, 1);
    EXPECT_TRUE(tracks[0].clips[0].bandFeature);
}

TEST(Pipeline, PictureDurationFromFramesOrSoundLength) {
    ClipItem clip;
    clip.duration = 10.0;
    EXPECT_FALSE(Pipeline::pictureDuration(clip));
    clip.pictureURL = "/card/A001.R3D";
    EXPECT_DOUBLE_EQ(*Pipeline::pictureDuration(clip), 9.488);
    clip.pictureFrames = 240;
    EXPECT_DOUBLE_EQ(*Pipeline::pictureDuration(clip), 9.488); // no rate: sound length
    clip.recordFrameRate = 23.976f;
    EXPECT_DOUBLE_EQ(*Pipeline::pictureDuration(clip), 240.0 / static_cast<double>(23.976f));
    clip.recordFrameRate = 0.0f;
    clip.duration = 0.3;
    EXPECT_EQ(*Pipeline::pictureDuration(clip), 0.0);
}

TEST(Pipeline, ResultEventCarriesClipAndTrackFields) {
    TrackSource track;
    track.name = "Zoom F8";
    track.type = SourceType::audio;
    track.session = "/shoot";
    ClipItem clip("/shoot/sound/T001.WAV");
    clip.startOffset = 4.2;
    clip.duration = 60;
    clip.syncStatus = SyncStatus::synced;
    clip.placementPass = "A1";
    clip.matchScore = 12.34f;
    clip.channelCount = 8;
    auto r = Pipeline::makeResultEvent(track, clip);
    EXPECT_EQ(r.path, "/shoot/sound/T001.WAV");
    EXPECT_EQ(r.track, "Zoom F8");
    EXPECT_EQ(r.mediaType, "audio");
    EXPECT_EQ(r.syncStatus, "synced");
    EXPECT_EQ(r.explanation, "Strong audio match \u00B7 score 12.3");
    EXPECT_EQ(r.channelCount, 8);
    EXPECT_FALSE(r.picturePath);
    EXPECT_FALSE(r.pictureDuration);
}

TEST(Pipeline, RunLevelErrorsEndTheRun) {
    Recorder empty;
    EXPECT_FALSE(Pipeline::runPipeline(Request{}, empty.sink()));
    ASSERT_EQ(empty.events.size(), 1u);
    EXPECT_FALSE(std::get<ErrorEvent>(empty.events[0]).path);
    EXPECT_EQ(std::get<ErrorEvent>(empty.events[0]).message, "No valid media found in request");

    // A missing file stays a clip: it is read, fails to extract, and leaves one track.
    Request oneTrack;
    oneTrack.items.push_back({"/nonexistent/a.wav", "/nonexistent"});
    Recorder rec;
    EXPECT_FALSE(Pipeline::runPipeline(oneTrack, rec.sink()));
    ASSERT_EQ(rec.events.size(), 4u);
    EXPECT_EQ(std::get<ProgressEvent>(rec.events[0]).phase, "metadata");
    EXPECT_EQ(std::get<ProgressEvent>(rec.events[1]).phase, "extract");
    EXPECT_EQ(std::get<ErrorEvent>(rec.events[2]).path, "/nonexistent/a.wav");
    auto last = std::get<ErrorEvent>(rec.events[3]);
    EXPECT_FALSE(last.path);
    EXPECT_EQ(last.message, "Need at least 2 tracks to sync");
}

TEST(Pipeline, SecondExtractionOfAFileComesFromTheCache) {
    TestSupport::TempDir dir;
    const auto previous = EnvelopeCache::cacheDir();
    EnvelopeCache::setCacheDir(dir / "cache");
    const auto wav = dir / "tone.wav";
    MediaFixtures::writeWav(wav, MediaFixtures::sine(440.0, 0.5f, 3.0, 16000), {});
    const ExtractJob job{0, 0, wav, 2.9};

    auto first = Pipeline::runExtractJob(job);
    ASSERT_FALSE(first.errorMessage) << *first.errorMessage;
    ASSERT_TRUE(first.bands);
    ASSERT_TRUE(first.refinedDuration); // decoded
    EXPECT_NEAR(*first.refinedDuration, 3.0, 0.01);
    auto key = EnvelopeCache::cacheKey(wav);
    ASSERT_TRUE(key);
    EXPECT_TRUE(std::filesystem::exists(dir / "cache" / (*key + ".bands")));
    EXPECT_TRUE(std::filesystem::exists(dir / "cache" / *key));

    // The same file again: the cache answers and nothing is decoded.
    auto second = Pipeline::runExtractJob(job);
    EXPECT_FALSE(second.errorMessage);
    ASSERT_TRUE(second.bands);
    EXPECT_FALSE(second.refinedDuration); // nothing was decoded
    EXPECT_EQ(*second.bands, *first.bands);
    EnvelopeCache::setCacheDir(previous);
}
