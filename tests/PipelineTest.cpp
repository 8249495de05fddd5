#include "TessarinEngineCLI/Pipeline.h"

#include "TessarinEngine/EnvelopeCache.h"
#include "tests/R3DHeaderTestBytes.h"
#include "tests/support/MediaFixtures.h"
#include "tests/support/TestSupport.h"

#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <thread>

using Pipeline::ExtractJob;
using Pipeline::ExtractOutcome;

namespace {

// One track with a clip per duration, a job per clip, and the events the phase emits.
struct Phase {
    std::vector<TrackSource> tracks{1};
    std::vector<ExtractJob> jobs;
    std::vector<Event> events;
    // How many events were emitted, for a job that waits until an earlier outcome was folded.
    std::atomic<std::size_t> emitted{0};

    explicit Phase(const std::vector<double>& durations) {
        for (std::size_t i = 0; i < durations.size(); ++i) {
            ClipItem clip("/shoot/clip" + std::to_string(i) + ".wav");
            clip.duration = durations[i];
            tracks[0].clips.push_back(clip);
            jobs.push_back({0, static_cast<int>(i), clip.url, durations[i]});
        }
    }
    void run(int width, const Pipeline::ExtractJobFunction& job) {
        Pipeline::runExtractPhase(tracks, jobs, width, job, [this](const Event& e) {
            events.push_back(e);
            ++emitted;
            emitted.notify_all();
        });
    }
};

ExtractOutcome succeed(const ExtractJob& j, std::optional<double> refined = {}) {
    SpectralBands::Feature bands(SpectralBands::Feature::Bands(8, std::vector<float>(10)), 10);
    return {j.si, j.ci, j.url, Pipeline::jobWeight(j.duration), bands, refined, {}};
}

} // namespace

TEST(Pipeline, OutcomesFoldInOrderOfFinishingAndBrokenClipsLeaveTheRunGoing) {
    // Weights 0.5 (floor for 0 s), 0.5 (floor for 0.3 s), 2.0 and 0.5: 3.5 in all.
    Phase phase({0.0, 0.3, 2.0, 0.5});
    phase.run(2, [&](const ExtractJob& j) {
        if (j.ci == 0) {
            // The first job finishes only once the other three outcomes have been folded (five
            // events: two of them errors).
            for (auto seen = phase.emitted.load(); seen < 5; seen = phase.emitted.load()) {
                phase.emitted.wait(seen);
            }
        }
        if (j.ci == 1) {
            return ExtractOutcome{j.si, j.ci, j.url, 0.5, {}, {}, "Extraction failed: x"};
        }
        if (j.ci == 3) {
            throw std::runtime_error("boom");
        }
        return succeed(j, j.ci == 2 ? std::optional(2.25) : std::nullopt);
    });

    ASSERT_EQ(phase.events.size(), 6u);
    // The failed second clip reports progress first, then its error with the same path.
    const auto first = std::get<ProgressEvent>(phase.events[0]);
    EXPECT_EQ(first.path, "/shoot/clip1.wav");
    EXPECT_DOUBLE_EQ(first.fraction, 0.5 / 3.5);
    EXPECT_EQ(std::get<ErrorEvent>(phase.events[1]).path, "/shoot/clip1.wav");
    const auto last = std::get<ProgressEvent>(phase.events[5]);
    EXPECT_EQ(last.path, "/shoot/clip0.wav");
    EXPECT_DOUBLE_EQ(last.fraction, 1.0);
    // A job that throws becomes one error event of its clip.
    const auto thrown = std::get<ErrorEvent>(phase.events[4]);
    EXPECT_EQ(thrown.path, "/shoot/clip3.wav");
    EXPECT_EQ(thrown.message, "Extraction failed: boom");

    // Features land on the right clips; failed clips are unchanged; only a decode refines.
    const auto& clips = phase.tracks[0].clips;
    EXPECT_TRUE(clips[0].bandFeature);
    EXPECT_FALSE(clips[1].bandFeature);
    EXPECT_EQ(clips[1].duration, 0.3);
    EXPECT_EQ(clips[2].duration, 2.25);
}

TEST(Pipeline, ShortPhaseDividesByAtLeastOne) {
    Phase phase({0.1});
    phase.run(4, [](const ExtractJob& j) { return succeed(j); });
    ASSERT_EQ(phase.events.size(), 1u);
    EXPECT_DOUBLE_EQ(std::get<ProgressEvent>(phase.events[0]).fraction, 0.5);
}

TEST(Pipeline, PictureDurationFromFramesOrSoundLength) {
    ClipItem clip;
    clip.duration = 10.0;
    EXPECT_FALSE(Pipeline::pictureDuration(clip));
    clip.pictureURL = "/card/A001.R3D";
    clip.pictureFrames = 240;
    // No rate: the sound length, a little short.
    EXPECT_DOUBLE_EQ(*Pipeline::pictureDuration(clip), 9.488);
    clip.recordFrameRate = 24.0f;
    EXPECT_DOUBLE_EQ(*Pipeline::pictureDuration(clip), 10.0);
    clip.recordFrameRate = 0.0f;
    clip.duration = 0.3;
    EXPECT_EQ(*Pipeline::pictureDuration(clip), 0.0);
}

TEST(Pipeline, RunLevelErrorsEndTheRun) {
    // A missing file stays a clip: it is read, fails to extract, and leaves one track.
    Request oneTrack;
    oneTrack.items.push_back({"/nonexistent/a.wav", "/nonexistent"});
    std::vector<Event> events;
    EXPECT_FALSE(Pipeline::runPipeline(oneTrack, [&](const Event& e) { events.push_back(e); }));
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(std::get<ProgressEvent>(events[0]).phase, "metadata");
    EXPECT_EQ(std::get<ProgressEvent>(events[1]).phase, "extract");
    EXPECT_EQ(std::get<ErrorEvent>(events[2]).path, "/nonexistent/a.wav");
    const auto last = std::get<ErrorEvent>(events[3]);
    EXPECT_FALSE(last.path);
    EXPECT_EQ(last.message, "Need at least 2 tracks to sync");
}

TEST(Pipeline, SecondExtractionOfAFileComesFromTheCache) {
    TestSupport::TempDir dir;
    TestSupport::ScopedCacheFolder folder(dir / "cache");
    const auto wav = dir / "tone.wav";
    MediaFixtures::writeWav(wav, MediaFixtures::sine(440.0, 0.5f, 3.0, 16000));
    const ExtractJob job{0, 0, wav, 2.9};

    const auto first = Pipeline::runExtractJob(job);
    ASSERT_TRUE(first.bands) << first.errorMessage.value_or("");
    EXPECT_NEAR(first.refinedDuration.value_or(0), 3.0, 0.01) << "decoded";
    // The envelope file is written beside the features.
    EXPECT_TRUE(std::filesystem::exists(dir / "cache" / EnvelopeCache::cacheKey(wav).value_or("")));

    // The same file again: the cache answers and nothing is decoded.
    const auto second = Pipeline::runExtractJob(job);
    ASSERT_TRUE(second.bands);
    EXPECT_FALSE(second.refinedDuration);
    EXPECT_EQ(*second.bands, *first.bands);
}

TEST(Pipeline, ARedTakeReportsItsPictureFileAndBothRates) {
    using namespace R3DTestBytes;
    TestSupport::TempDir dir;
    TestSupport::ScopedCacheFolder folder(dir / "cache");
    // A take recorded at 24 frames a second and conformed to 24000/1001, its sound in a WAV of
    // its own; a recorder beside it heard the same noise.
    const auto take = dir / "A001_0305XY.RDM" / "A001_C001_0305XY.RDC";
    std::filesystem::create_directories(take);
    std::filesystem::create_directories(dir / "Sound");
    const auto picture = take / "A001_C001_0305XY_001.R3D";
    write(picture, header({real(102, 24.0f), text(196, "A001_C001_0305XY.wav")}, Rdi{}));
    const auto heard = MediaFixtures::noise(12 * 16000, 0.2f, 4);
    MediaFixtures::writeWav(take / "A001_C001_0305XY.wav", heard);
    MediaFixtures::writeWav(dir / "Sound" / "T001.wav", heard);
    Request request;
    request.items = {{picture.string(), dir.path().string()},
                     {(dir / "Sound" / "T001.wav").string(), (dir / "Sound").string()}};
    std::vector<ResultEvent> results;
    ASSERT_TRUE(Pipeline::runPipeline(request, [&](const Event& e) {
        if (const auto* r = std::get_if<ResultEvent>(&e)) {
            results.push_back(*r);
        }
    }));
    ASSERT_EQ(results.size(), 2u);
    const auto& r = results[0].picturePath ? results[0] : results[1];
    EXPECT_EQ(r.path, (take / "A001_C001_0305XY.wav").string());
    EXPECT_EQ(r.picturePath, picture.string());
    EXPECT_EQ(r.recordFrameRate, 24.0f);
    EXPECT_EQ(r.conformFrameRate, static_cast<float>(24000.0 / 1001.0));
    // A lone take has no next edge to measure its picture by: it ends a little before its sound.
    EXPECT_NEAR(r.pictureDuration.value_or(0), 12.0 - 0.512, 1e-6);
}
