#include "tests/support/TestSupport.h"

#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>

using nlohmann::json;

namespace {

struct TruthClip {
    std::string device;
    double start = 0;
    double duration = 0;
};

struct Outcome {
    std::map<std::string, TruthClip> truth;
    std::map<std::string, json> results;
    std::vector<json> errors;
    json done;
    int exitCode = -1;
    std::string log;
};

Outcome runShoot(const std::string& scenario, const TestSupport::TempDir& dir) {
    Outcome o;
    auto gen = TestSupport::runProcess({"/usr/bin/python3",
                                        std::string(TESSARIN_TESTS_DIR) + "/shoot/make_shoot.py",
                                        (dir / "shoot").string(), "--scenario", scenario});
    EXPECT_EQ(gen.exitCode, 0) << gen.err;
    auto truth = json::parse(std::ifstream(dir / "shoot" / "truth.json"));
    for (const auto& c : truth["clips"]) {
        o.truth[c["path"]] = {c["device"], c["start"], c["duration"]};
    }
    auto run = TestSupport::runProcess(
        {TESSARIN_CLI_PATH, "--input", (dir / "shoot" / "request.json").string()}, {},
        {"XDG_CACHE_HOME=" + (dir / "cache").string()});
    o.exitCode = run.exitCode;
    o.log = run.err;
    for (const auto& line : TestSupport::splitLines(run.out)) {
        auto e = json::parse(line);
        if (e["type"] == "result") {
            o.results[e["path"]] = e;
        } else if (e["type"] == "error") {
            o.errors.push_back(e);
        } else if (e["type"] == "done") {
            o.done = e;
        }
    }
    return o;
}

// Seconds that two clips truly share.
double sharedSeconds(const TruthClip& a, const TruthClip& b) {
    return std::min(a.start + a.duration, b.start + b.duration) - std::max(a.start, b.start);
}

} // namespace

// Two cameras (one with its clock hours off) and a recorder in takes hear one scene: every clip
// that shares audio with another device lands where it truly was relative to those clips, and the
// clips that share nothing are laid by clock or between neighbours.
TEST(EndToEnd, GeneratedShootLandsOnItsTrueTimeline) {
    TestSupport::TempDir dir;
    auto o = runShoot("e2e", dir);
    ASSERT_EQ(o.exitCode, 0) << o.log;
    EXPECT_TRUE(o.errors.empty()) << o.errors.size() << " error events";
    ASSERT_EQ(o.results.size(), o.truth.size()) << o.log;
    EXPECT_EQ(o.done["trackCount"], 3);
    EXPECT_EQ(o.done["clipCount"], static_cast<int>(o.truth.size()));

    double timelineEnd = 0;
    std::set<std::string> tracks;
    for (const auto& [path, r] : o.results) {
        tracks.insert(r["track"].get<std::string>());
        timelineEnd =
            std::max(timelineEnd, r["startOffset"].get<double>() + r["duration"].get<double>());
        EXPECT_GE(r["startOffset"].get<double>(), -1e-9) << path;
    }
    EXPECT_EQ(tracks, (std::set<std::string>{"CamA", "CamB", "Sound"}));
    EXPECT_NEAR(o.done["timelineDuration"].get<double>(), timelineEnd, 1e-9);

    for (const auto& [path, t] : o.truth) {
        SCOPED_TRACE(path);
        const auto& r = o.results.at(path);
        const double pos = r["startOffset"];
        int partners = 0;
        for (const auto& [otherPath, u] : o.truth) {
            if (u.device == t.device || sharedSeconds(t, u) < 5.0) {
                continue;
            }
            ++partners;
            const double otherPos = o.results.at(otherPath)["startOffset"];
            EXPECT_NEAR(pos - otherPos, t.start - u.start, 0.04) << "against " << otherPath;
        }
        if (partners > 0) {
            EXPECT_EQ(r["syncStatus"], "synced") << r["explanation"];
        } else {
            const std::string placement = r.value("placement", "");
            EXPECT_TRUE(placement == "clock" || placement == "interp") << placement;
            const std::string explanation = r["explanation"];
            EXPECT_TRUE(explanation.starts_with(
                            "No audio match nearby \u2014 placed by the device clock") ||
                        explanation.starts_with(
                            "No matching audio nearby \u2014 placed between neighbours"))
                << explanation;
        }
    }
}
