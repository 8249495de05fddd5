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
        "[SyncEngine]  cameras-first: camera backbone fixed (1 span(s)) — recorders are now "
        "placed against it",
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
