#include "TessarinEngine/SyncEngine/Run.h"
#include "tests/SyncEngine/SyncFixtures.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

using namespace SyncEngine;
using namespace SyncFixtures;

namespace {

// The engine's region detail lines that contain `fragment`, in order.
std::vector<std::string> linesWith(const TestSupport::LogCapture& log,
                                   const std::string& fragment) {
    std::vector<std::string> out;
    for (const auto& line : log.lines()) {
        if (line.find(fragment) != std::string::npos) {
            out.push_back(line);
        }
    }
    return out;
}

} // namespace

TEST(Cameras, EnsembleOfLongCamerasBuildsABackboneBeforeTheRecorders) {
    TestSupport::LogCapture log;
    runEngine({makeCamera("C1", {600}), makeCamera("C2", {900}), makeCamera("C3", {700}),
               makeRecorder("Lav", {100, 100, 100})});
    const std::vector<std::string> expected = {
        "[SyncEngine]  cameras-first: pairing 2 camera(s) against 'C2' with 1 other recorder(s) "
        "held out of the pool (1 span(s))",
        "[SyncEngine]  camera 'C3' paired against the camera backbone (0 matched) — added to the "
        "pool",
        "[SyncEngine]  camera 'C1' paired against the camera backbone (0 matched) — added to the "
        "pool",
        "[SyncEngine]  cameras-first: camera backbone fixed (1 span(s)) — recorders are now "
        "placed against it",
        "[SyncEngine]  region 'default' primary audio pool: 1 segment(s) (ready=C1,C2,C3,Lav)",
    };
    std::vector<std::string> seen;
    for (const auto& line : log.lines()) {
        if (std::find(expected.begin(), expected.end(), line) != expected.end()) {
            seen.push_back(line);
        }
    }
    EXPECT_EQ(seen, expected);
    EXPECT_TRUE(linesWith(log, "retrying").empty());
}

TEST(Cameras, CamerasThatMatchNothingAreRetriedLongestFirst) {
    struct Case {
        const char* name;
        std::vector<TrackSource> cameras;
        std::vector<std::string> retries;
    };
    const std::vector<Case> cases = {
        {"two cameras",
         {makeCamera("Short", {50}), makeCamera("Long", {70})},
         {"[SyncEngine]  retrying 'Long' against the other cameras (lavs excluded)",
          "[SyncEngine]  retrying 'Short' against the other cameras (lavs excluded)"}},
        {"a lone camera has nothing to be retried against", {makeCamera("Only", {70})}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto tracks = c.cameras;
        tracks.push_back(makeRecorder("Rec", {100, 100, 100}));
        TestSupport::LogCapture log;
        runEngine(tracks);
        EXPECT_EQ(linesWith(log, "retrying"), c.retries);
    }
}

TEST(Cameras, GroupOfOneTrackInTheRegionIsASoloCamera) {
    auto a = makeCamera("A", {40});
    a.cameraGroup = "G";
    auto b = makeCamera("B", {40});
    b.cameraGroup = "G";
    b.clips[0].dayRegion = "day-2";
    TestSupport::LogCapture log;
    runEngine({a, b, makeRecorder("Rec", {100})});
    EXPECT_TRUE(linesWith(log, "camera group").empty());
    EXPECT_EQ(linesWith(log, "track 'A': 0 anchors of 1 clips").size(), 1u);
}

TEST(Cameras, GroupedCamerasAreChainedAcrossTracks) {
    if (!signalCoreReady()) {
        GTEST_SKIP() << "the band search returns no peaks yet";
    }
    const auto signal = randomBands(25 * 300, 61);
    auto rec = makeRecorder("Rec", {});
    rec.clips.push_back(makeClip("Rec_0", 300));
    rec.clips[0].bandFeature = cutFeature(signal, 0, 25 * 300, 1);
    const auto cut = [&](const std::string& name, double from, double dur, unsigned seed) {
        auto clip = makeClip(name, dur);
        clip.url.replace_extension(".mov");
        clip.bandFeature =
            cutFeature(signal, static_cast<int>(from * 25), static_cast<int>(dur * 25), seed);
        return clip;
    };
    // The second card holds the later files; it comes first in the request.
    auto cardB =
        makeTrack("CardB", SourceType::video, {cut("A003", 150, 50, 4), cut("A004", 220, 40, 5)});
    auto cardA =
        makeTrack("CardA", SourceType::video, {cut("A001", 10, 40, 2), cut("A002", 60, 40, 3)});
    cardA.cameraGroup = "A";
    cardB.cameraGroup = "A";
    TestSupport::LogCapture log;
    Reports reports;
    const auto out = runEngine({cardB, cardA, rec}, &reports);
    const double expectedB[] = {150, 220};
    const double expectedA[] = {10, 60};
    for (int i = 0; i < 2; ++i) {
        EXPECT_NEAR(out[0].clips[i].startOffset, expectedB[i], 0.041);
        EXPECT_NEAR(out[1].clips[i].startOffset, expectedA[i], 0.041);
        EXPECT_EQ(out[0].clips[i].placementPass, "A1");
        EXPECT_EQ(out[1].clips[i].syncStatus, SyncStatus::synced);
    }
    EXPECT_TRUE(log.contains("[SyncEngine]  camera group 'A': CardB + CardA"));
    EXPECT_TRUE(log.contains("[SyncEngine]  camera chain Pass1 'CardB + CardA' on 1 primary "
                             "segment(s)"));
    EXPECT_TRUE(log.contains("[SyncEngine]  camera chain 'CardB + CardA': 4 anchors of 4 clips"));
    // One whole step for the reference clip, two half steps for each chained clip.
    EXPECT_NEAR(reports.progress.back().first, 0.999, 1e-9);
}
