#include "tests/support/TestSupport.h"

#include <algorithm>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <tuple>

using nlohmann::json;

namespace {

// A stretch of a scene that a clip heard, on the shoot's master timeline.
struct Heard {
    std::string source;
    double from = 0;
    double to = 0;
};

struct TruthClip {
    std::string device;
    double start = 0;
    double duration = 0;
    std::vector<Heard> heard;
};

struct Outcome {
    std::map<std::string, TruthClip> truth;
    // Results by file name: every name in a generated shoot is unique.
    std::map<std::string, json> results;
    std::map<std::string, std::string> pathOf;
    std::vector<json> errors;
    json done;
    int exitCode = -1;
    std::string log;

    const json& result(const std::string& name) const { return results.at(name); }
    std::string placement(const std::string& name) const {
        return result(name).value("placement", "");
    }
    double start(const std::string& name) const { return result(name)["startOffset"]; }
    double end(const std::string& name) const {
        return start(name) + result(name)["duration"].get<double>();
    }
    bool logged(const std::string& fragment) const {
        return log.find(fragment) != std::string::npos;
    }
};

std::string fileName(const std::string& path) {
    return std::filesystem::path(path).filename().string();
}

// Makes the scenario's shoot with the project's generator and runs the program on it, with a
// cache folder of its own.
Outcome runShoot(const std::string& scenario, const TestSupport::TempDir& dir) {
    Outcome o;
    auto gen = TestSupport::makeShoot(dir / "shoot", scenario);
    EXPECT_EQ(gen.exitCode, 0) << gen.err;
    auto truth = json::parse(std::ifstream(dir / "shoot" / "truth.json"));
    for (const auto& c : truth["clips"]) {
        TruthClip t{c["device"], c["start"], c["duration"], {}};
        for (const auto& h : c["heard"]) {
            t.heard.push_back({h["source"], h["from"], h["to"]});
        }
        o.truth[fileName(c["path"])] = t;
    }
    auto run = TestSupport::runEngine(dir / "shoot" / "request.json",
                                      {"XDG_CACHE_HOME=" + (dir / "cache").string()});
    o.exitCode = run.exitCode;
    o.log = run.log;
    for (const auto& e : run.ofType("result")) {
        o.results[fileName(e["path"])] = e;
    }
    o.errors = run.ofType("error");
    const auto done = run.ofType("done");
    o.done = done.empty() ? json() : done.front();
    EXPECT_EQ(o.exitCode, 0) << o.log;
    EXPECT_TRUE(o.errors.empty()) << o.errors.size() << " error events";
    EXPECT_EQ(o.results.size(), o.truth.size()) << o.log;
    return o;
}

// Seconds of one scene that two clips both heard.
double sharedSeconds(const TruthClip& a, const TruthClip& b) {
    double best = 0;
    for (const auto& x : a.heard) {
        for (const auto& y : b.heard) {
            if (x.source == y.source) {
                best = std::max(best, std::min(x.to, y.to) - std::max(x.from, y.from));
            }
        }
    }
    return best;
}

// One frame of the band features; positions found by audio are good to a frame.
constexpr double kFrame = 0.04 + 1e-9;

// Every clip lies where it truly was relative to each clip of another device that heard at least
// 5 s of the same scene with it: that is how an editor meets the timeline. Returns the names of
// the clips that had such partners.
std::set<std::string> expectTrueRelativePositions(const Outcome& o) {
    std::set<std::string> checked;
    for (const auto& [name, t] : o.truth) {
        for (const auto& [other, u] : o.truth) {
            if (u.device == t.device || sharedSeconds(t, u) < 5.0 || !o.results.contains(name) ||
                !o.results.contains(other)) {
                continue;
            }
            checked.insert(name);
            EXPECT_NEAR(o.start(name) - o.start(other), t.start - u.start, kFrame)
                << name << " against " << other << "\n"
                << o.log;
        }
    }
    return checked;
}

} // namespace

// Two cameras (one with its clock hours off) and a recorder in takes hear one scene: every clip
// that shares audio with another device lands where it truly was relative to those clips, and the
// clips that share nothing are laid by clock or between neighbours.
TEST(EndToEnd, GeneratedShootLandsOnItsTrueTimeline) {
    TestSupport::TempDir dir;
    auto o = runShoot("e2e", dir);
    EXPECT_EQ(o.done["trackCount"], 3);
    EXPECT_EQ(o.done["clipCount"], static_cast<int>(o.truth.size()));

    double timelineEnd = 0;
    std::set<std::string> tracks;
    for (const auto& [name, r] : o.results) {
        tracks.insert(r["track"].get<std::string>());
        timelineEnd = std::max(timelineEnd, o.end(name));
        EXPECT_GE(o.start(name), -1e-9) << name;
    }
    EXPECT_EQ(tracks, (std::set<std::string>{"CamA", "CamB", "Sound"}));
    EXPECT_NEAR(o.done["timelineDuration"].get<double>(), timelineEnd, 1e-9);

    const auto partnered = expectTrueRelativePositions(o);
    for (const auto& [name, r] : o.results) {
        SCOPED_TRACE(name);
        if (partnered.contains(name)) {
            EXPECT_EQ(r["syncStatus"], "synced") << r["explanation"];
            continue;
        }
        const std::string placement = o.placement(name);
        EXPECT_TRUE(placement == "clock" || placement == "interp") << placement;
        const std::string explanation = r["explanation"];
        EXPECT_TRUE(
            explanation.starts_with("No audio match nearby \u2014 placed by the device clock") ||
            explanation.starts_with("No matching audio nearby \u2014 placed between neighbours"))
            << explanation;
    }
}

// A backup recorder ran all day as one 35-minute file with its clock five hours wrong. Its audio
// links it to the reference, and it shows that one reference take, laid by a clock that knows
// only whole seconds, began 0.6 s later than that clock says.
TEST(EndToEnd, LongBackupIsLinkedByItsAudioAndCorrectsTheReferenceTakes) {
    TestSupport::TempDir dir;
    auto o = runShoot("backup-linked", dir);
    EXPECT_EQ(o.placement("B001.WAV"), "linked");
    EXPECT_EQ(o.result("B001.WAV")["syncStatus"], "synced");
    EXPECT_TRUE(o.logged("long-backup 'Backup' clock disagreed with the ref but the audio agrees "
                         "\u2014 linked by content @ "));

    std::smatch m;
    const std::regex calibrated(
        R"(ref 'Sound' take (\d+)/4 calibrated ([+-][0-9.]+)s against 'Backup')");
    ASSERT_TRUE(std::regex_search(o.log, m, calibrated)) << o.log;
    EXPECT_EQ(m[1], "3");
    EXPECT_GT(std::abs(std::stod(m[2])), 0.15);

    // Each take against the backup, and the camera clip shot in a pause that only the backup
    // heard, among the rest.
    const auto partnered = expectTrueRelativePositions(o);
    EXPECT_EQ(partnered.size(), o.truth.size());
    EXPECT_EQ(o.placement("A002.MOV"), "A1");
}

// The same backup left running in another room: nothing in it is in the takes, so it is parked
// after everything placed and never serves as evidence.
TEST(EndToEnd, LongBackupWithNothingInCommonIsParkedAfterTheReference) {
    TestSupport::TempDir dir;
    auto o = runShoot("backup-unlinked", dir);
    EXPECT_EQ(o.placement("B001.WAV"), "unlinked");
    EXPECT_EQ(o.result("B001.WAV")["syncStatus"], "weak");
    EXPECT_TRUE(o.logged("unlinked long-backup 'Backup' @ "));
    for (const auto* take : {"T001.WAV", "T002.WAV", "T003.WAV"}) {
        EXPECT_GE(o.start("B001.WAV"), o.end(take) - 1e-9) << take;
    }
    EXPECT_EQ(o.result("B001.WAV")["explanation"],
              "Long recorder with no audio in common with the reference \u2014 placed after it "
              "\u00b7 after 'Sound'");
    expectTrueRelativePositions(o);
}

// A recorder that splits its day into files of 700 s, chained by its own clock set hours wrong,
// is one long backup: linked as a block, each file butted to the one before.
TEST(EndToEnd, BackupInFilesThatChainByTheirClockIsOneLongBackup) {
    TestSupport::TempDir dir;
    auto o = runShoot("backup-chained", dir);
    EXPECT_TRUE(o.logged("'Backup': 3 files chain by their own clock into one 35-min recording "
                         "\u2014 treated as a long backup"));
    for (const auto* file : {"B001.WAV", "B002.WAV", "B003.WAV"}) {
        EXPECT_EQ(o.placement(file), "linked") << file;
    }
    const auto partnered = expectTrueRelativePositions(o);
    EXPECT_EQ(partnered.size(), o.truth.size());
}

// Two cameras share a file numbering, one over two card folders. After a first shot beside the
// recorder they shot a scene far from it, which only they heard: those clips are laid by what
// the cameras heard of each other, side by side, as they truly ran.
TEST(EndToEnd, CameraGroupFarFromTheRecorderIsLaidByWhatItsCamerasHearOfEachOther) {
    TestSupport::TempDir dir;
    auto o = runShoot("camera-group", dir);
    EXPECT_TRUE(o.logged("camera group 'cam-0': CamB + CARD1 + CARD2"));
    EXPECT_EQ(o.placement("C0001.MOV"), "A1");
    const std::set<std::string> far = {"C0002.MOV", "C0003.MOV", "C0004.MOV", "C0005.MOV",
                                       "C0011.MOV"};
    for (const auto& name : far) {
        const auto placement = o.placement(name);
        EXPECT_TRUE(placement == "A3cam" || placement == "A3cluster") << name << ": " << placement;
    }
    const auto partnered = expectTrueRelativePositions(o);
    EXPECT_TRUE(std::includes(partnered.begin(), partnered.end(), far.begin(), far.end()));
}

// A long take heard the interview only faintly over a generator whose cycle the recorder also
// carries, loudly, from earlier: searched over the whole recorder it is lost in that cycle. The
// B-roll shot during it tells where to look, and there it is found.
TEST(EndToEnd, LongTakeWithOnlyBrollNearbyIsFoundThroughIt) {
    TestSupport::TempDir dir;
    auto o = runShoot("broll", dir);
    EXPECT_EQ(o.placement("C0001.MOV"), "A3b-broll");
    EXPECT_TRUE(o.logged("long rescue 'C0001' @ 600.0s score="));
    EXPECT_TRUE(o.logged("via B-roll prior (580\u2026850)"));
    const auto partnered = expectTrueRelativePositions(o);
    EXPECT_TRUE(partnered.contains("C0001.MOV"));
}

namespace {

// A clip of a generated shoot of one of the structures real cards come in, with where the program
// put it.
struct Placed {
    std::string device;
    double trueStart = 0;
    double duration = 0;
    std::vector<Heard> heard;
    double start = 0;
    std::string status;
};

double lowerMedian(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[(values.size() - 1) / 2];
}

} // namespace

class EndToEndStructures : public testing::TestWithParam<const char*> {};

// Each structure as an editor meets it: every clip is measured against the recordings of other
// devices that heard at least 5 s (or 0.8 of the shorter clip) of a scene with it, the channel
// files of one recording counted once. Nothing more than 0.1 s off is marked synced, and nearly
// every clip lies within a frame of its partners (the rest are clips too short or too windy for
// their audio to tell, laid by their clocks).
TEST_P(EndToEndStructures, ClipsLieWithinAFrameOfWhatTheyOverlapAndNothingWrongIsSynced) {
    TestSupport::TempDir dir;
    const std::string scenario = GetParam();
    const auto gen = TestSupport::makeShoot(dir / "shoot", scenario, 1);
    ASSERT_EQ(gen.exitCode, 0) << gen.err;
    const auto truth = json::parse(std::ifstream(dir / "shoot" / "truth.json"));
    const auto run = TestSupport::runEngine(
        dir / "shoot" / "request.json",
        {"XDG_CACHE_HOME=" + (dir / "cache").string(), "TZ=" + truth.value("tz", "UTC")});
    ASSERT_EQ(run.exitCode, 0) << run.log;
    EXPECT_TRUE(run.ofType("error").empty());

    std::map<std::string, Placed> clips;
    for (const auto& c : truth["clips"]) {
        Placed p{c["device"], c["start"], c["duration"], {}, 0, "missing"};
        for (const auto& h : c["heard"]) {
            p.heard.push_back({h["source"], h["from"], h["to"]});
        }
        clips[c["path"]] = p;
    }
    for (const auto& e : run.ofType("result")) {
        auto& p = clips.at(e["path"]);
        p.start = e["startOffset"];
        p.status = e["syncStatus"];
    }
    int scored = 0;
    int right = 0;
    for (const auto& [path, c] : clips) {
        // By recording: device, true start and length.
        std::map<std::tuple<std::string, double, double>, std::vector<double>> partners;
        for (const auto& [otherPath, o] : clips) {
            const TruthClip a{c.device, c.trueStart, c.duration, c.heard};
            const TruthClip b{o.device, o.trueStart, o.duration, o.heard};
            if (o.device == c.device ||
                sharedSeconds(a, b) < std::min(5.0, 0.8 * std::min(c.duration, o.duration))) {
                continue;
            }
            partners[{o.device, o.trueStart, o.duration}].push_back(
                std::abs((c.start - o.start) - (c.trueStart - o.trueStart)));
        }
        if (partners.empty() || c.status == "missing") {
            continue;
        }
        std::vector<double> byRecording;
        for (const auto& [key, errors] : partners) {
            byRecording.push_back(lowerMedian(errors));
        }
        const double measure = lowerMedian(byRecording);
        ++scored;
        right += measure <= kFrame;
        EXPECT_FALSE(c.status == "synced" && measure > 0.1)
            << path << " is synced " << measure << " s off\n"
            << run.log;
    }
    ASSERT_GT(scored, 0);
    EXPECT_GE(100.0 * right / scored, 90.0) << right << " of " << scored << "\n" << run.log;
}

INSTANTIATE_TEST_SUITE_P(Shoots, EndToEndStructures,
                         testing::Values("channels-2", "channels-4", "timecode", "chapters",
                                         "short-clips", "ref-takes", "lone-clip", "timezone",
                                         "mixed"),
                         [](const testing::TestParamInfo<const char*>& shoot) {
                             std::string name = shoot.param;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });
