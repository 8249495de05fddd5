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
    std::ranges::copy_if(log.lines(), std::back_inserter(seen),
                         [&](const auto& line) { return std::ranges::count(expected, line); });
    EXPECT_EQ(seen, expected);
    EXPECT_TRUE(linesWith(log, "retrying").empty());
}

TEST(Cameras, CamerasThatMatchNothingAreRetriedLongestFirst) {
    const auto rec = makeRecorder("Rec", {100, 100, 100});
    const std::pair<std::vector<TrackSource>, std::vector<std::string>> cases[] = {
        {{makeCamera("Short", {50}), makeCamera("Long", {70}), rec},
         {"[SyncEngine]  retrying 'Long' against the other cameras (lavs excluded)",
          "[SyncEngine]  retrying 'Short' against the other cameras (lavs excluded)"}},
        // A lone camera has nothing to be retried against.
        {{makeCamera("Only", {70}), rec}, {}},
    };
    for (const auto& [tracks, retries] : cases) {
        TestSupport::LogCapture log;
        runEngine(tracks);
        EXPECT_EQ(linesWith(log, "retrying"), retries);
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
    const auto out =
        runEngine({cardB, cardA, audioTrack("Rec", {heardClip(signal, "Rec_0", 0, 300, 1)})});
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
}
