#include "tests/SyncEngine/SyncFixtures.h"

#include <gtest/gtest.h>

using namespace SyncFixtures;

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
        std::vector<TrackSource> tracks;
        std::vector<std::string> retries;
    };
    const auto rec = makeRecorder("Rec", {100, 100, 100});
    const std::vector<Case> cases = {
        {"two cameras",
         {makeCamera("Short", {50}), makeCamera("Long", {70}), rec},
         {"[SyncEngine]  retrying 'Long' against the other cameras (lavs excluded)",
          "[SyncEngine]  retrying 'Short' against the other cameras (lavs excluded)"}},
        {"a lone camera has nothing to be retried against", {makeCamera("Only", {70}), rec}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TestSupport::LogCapture log;
        runEngine(c.tracks);
        EXPECT_EQ(linesWith(log, "retrying"), c.retries);
    }
}

TEST(Cameras, GroupedCamerasAreChainedAcrossTracks) {
    const auto signal = randomBands(25 * 300, 61);
    // The second card holds the later files; it comes first in the request.
    auto cardB = videoTrack(
        "CardB", {heardClip(signal, "A003", 150, 50, 4), heardClip(signal, "A004", 220, 40, 5)});
    auto cardA = videoTrack(
        "CardA", {heardClip(signal, "A001", 10, 40, 2), heardClip(signal, "A002", 60, 40, 3)});
    cardA.cameraGroup = "A";
    cardB.cameraGroup = "A";
    TestSupport::LogCapture log;
    Reports reports;
    const auto out = runEngine(
        {cardB, cardA, audioTrack("Rec", {heardClip(signal, "Rec_0", 0, 300, 1)})}, &reports);
    const double expected[2][2] = {{150, 220}, {10, 60}};
    for (int t = 0; t < 2; ++t) {
        for (int i = 0; i < 2; ++i) {
            SCOPED_TRACE(SyncEngine::clipName(out[t].clips[i]));
            EXPECT_NEAR(out[t].clips[i].startOffset, expected[t][i], 0.041);
            EXPECT_EQ(out[t].clips[i].placementPass, "A1");
        }
    }
    EXPECT_TRUE(log.contains("[SyncEngine]  camera group 'A': CardB + CardA"));
    EXPECT_TRUE(log.contains("[SyncEngine]  camera chain 'CardB + CardA': 4 anchors of 4 clips"));
    // One whole step for the reference clip, two half steps for each chained clip.
    EXPECT_NEAR(reports.progress.back().first, 0.999, 1e-9);
}
