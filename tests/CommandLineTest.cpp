#include "TessarinEngine/EnvelopeCache.h"
#include "TessarinEngineCLI/Request.h"
#include "tests/support/MediaFixtures.h"
#include "tests/support/TestSupport.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

TEST(Cli, ExitCodesAndMessages) {
    TestSupport::TempDir dir;
    const std::string usage = "Usage: TessarinEngineCLI --input <request.json>  (or --stdin)\n";
    const std::string noMedia =
        "{\"type\":\"error\",\"message\":\"No valid media found in request\"}\n";
    const std::string parseError =
        "{\"type\":\"error\",\"message\":\"Could not parse request JSON\"}\n";
    const std::string brawMissing = "Blackmagic RAW framework not found on this machine\n";
    const std::string request = R"({"version":1,"items":[]})";
    const auto missing = (dir / "missing.json").string();
    const auto good = (dir / "good.json").string();
    const auto bad = (dir / "bad.json").string();
    TestSupport::writeText(good, request);
    TestSupport::writeText(bad, "not json");
    struct Case {
        std::vector<std::string> args;
        std::string input;
        int exitCode;
        std::string out;
        std::string err;
    };
    const Case cases[] = {
        {{}, "", 1, "", usage},
        {{"--stdin", "--input"}, request, 1, "", "--input requires a path\n"},
        {{"--input", missing}, "", 1, "", usage},
        {{"--input", dir.path().string()}, "", 1, "", usage},
        // Empty standard input is a request that does not parse, not a usage fault.
        {{"--stdin"}, "", 1, parseError, ""},
        // Standard input wins, so the missing file is never opened.
        {{"--input", missing, "-x", "--stdin"}, request, 1, noMedia, "Unknown argument: -x\n"},
        {{"--input", bad, "--input", good}, "", 1, noMedia, ""},
        {{"--input", missing, "--braw-status", "--input"}, "", 3, brawMissing, ""},
    };
    for (auto c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        c.args.insert(c.args.begin(), TESSARIN_CLI_PATH);
        const auto r = TestSupport::runProcess(c.args, c.input,
                                               {"XDG_CACHE_HOME=" + (dir / "cache").string()});
        EXPECT_EQ(r.exitCode, c.exitCode);
        EXPECT_EQ(r.out, c.out);
        EXPECT_EQ(r.err, c.err);
    }
}

TEST(RequestDecoding, AcceptsAndRejects) {
    const std::pair<const char*, bool> cases[] = {
        {R"({"version":999,"items":[],"extra":{"x":1}})", true},
        {R"({"version":"1","items":[]})", false},
        {R"({"version":1.5,"items":[]})", false},
        {R"({"version":1.0,"items":[]})", false},
        {R"({"version":1e2,"items":[]})", false},
        {R"({"version":-9223372036854775808,"items":[]})", true},
        {R"({"version":9223372036854775807,"items":[]})", true},
        {R"({"version":9223372036854775808,"items":[]})", false},
        {R"({"version":-9223372036854775809,"items":[]})", false},
        {R"({"items":[]})", false},
        {R"({"version":1})", false},
        {R"({"version":1,"items":null})", false},
        {R"({"version":1,"items":[{"path":"/a.wav"}]})", false},
        {R"({"version":1,"items":[{"path":"/a.wav","dropHint":7}]})", false},
        {R"({"version":1,"items":[{"path":"/a.wav","dropHint":""}]})", true},
        {R"({"version":1,"items":[],"carryState":null})", true},
        {R"({"version":1,"items":[],"carryState":{"completeShootSessions":null}})", true},
        {R"({"version":1,"items":[],"carryState":{"completeShootSessions":[1]}})", false},
        {R"({"version":1,"items":[],"carryState":[]})", false},
        {R"([1,2])", false},
        {R"({"version":1,"items":[]} trailing)", false},
    };
    for (const auto& [json, accepted] : cases) {
        EXPECT_EQ(decodeRequest(json).has_value(), accepted) << json;
    }
}

TEST(RequestDecoding, ReadsItemsInOrderAndCarriedSessions) {
    auto r = decodeRequest(R"({"version":2,"items":[{"dropHint":"/s","path":"/s/b.wav"},
        {"path":"/s/a.mov","dropHint":"/s","unknown":true}],
        "carryState":{"completeShootSessions":["/old","/older"]}})");
    ASSERT_TRUE(r);
    EXPECT_EQ(r->version, 2);
    ASSERT_EQ(r->items.size(), 2u);
    EXPECT_EQ(r->items[0].path, "/s/b.wav");
    EXPECT_EQ(r->items[1].path, "/s/a.mov");
    EXPECT_EQ(r->items[1].dropHint, "/s");
    EXPECT_EQ(r->completeShootSessions, (std::vector<std::string>{"/old", "/older"}));
}

namespace {

namespace fs = std::filesystem;

// Two recorders in two folders that heard the same 8 s of noise, a.wav 2 s after b.wav began.
void writeTwoRecorders(const fs::path& dir) {
    const auto heard = MediaFixtures::noise(10 * 16000, 0.2f, 11);
    fs::create_directories(dir / "CamA");
    fs::create_directories(dir / "Sound");
    MediaFixtures::writeWav(dir / "Sound" / "b.wav", std::span(heard).first(8 * 16000));
    MediaFixtures::writeWav(dir / "CamA" / "a.wav", std::span(heard).subspan(2 * 16000));
}

nlohmann::json item(const std::string& path, const std::string& dropHint) {
    return {{"path", path}, {"dropHint", dropHint}};
}

std::string requestOf(const std::vector<nlohmann::json>& items) {
    return nlohmann::json{{"version", 1}, {"items", items}}.dump();
}

std::vector<nlohmann::json> events(const std::string& out) {
    std::vector<nlohmann::json> all;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        all.push_back(nlohmann::json::parse(line));
    }
    return all;
}

std::vector<nlohmann::json> ofType(const std::vector<nlohmann::json>& all, const char* type) {
    std::vector<nlohmann::json> out;
    std::ranges::copy_if(all, std::back_inserter(out),
                         [&](const auto& e) { return e["type"] == type; });
    return out;
}

} // namespace

TEST(Cli, InputReadsPipes) {
    TestSupport::TempDir dir;
    const std::string request = R"({"version":1,"items":[]})";
    const std::string noMedia =
        "{\"type\":\"error\",\"message\":\"No valid media found in request\"}\n";
    const auto cache = "XDG_CACHE_HOME=" + (dir / "cache").string();
    // A shell's process substitution, and standard input by name.
    auto fromPipe = TestSupport::runProcess(
        {"/bin/bash", "-c", "exec \"$0\" --input <(printf %s \"$1\")", TESSARIN_CLI_PATH, request},
        {}, {cache});
    EXPECT_EQ(fromPipe.out, noMedia) << fromPipe.err;
    auto fromStdin =
        TestSupport::runProcess({TESSARIN_CLI_PATH, "--input", "/dev/stdin"}, request, {cache});
    EXPECT_EQ(fromStdin.out, noMedia) << fromStdin.err;
}

TEST(Cli, APathWithANulIsRefusedForThatItemAlone) {
    TestSupport::TempDir dir;
    writeTwoRecorders(dir.path());
    const auto a = (dir / "CamA" / "a.wav").string(), b = (dir / "Sound" / "b.wav").string();
    const auto withNul = a + std::string(1, '\0') + "/missing";
    const auto cut = (dir / "Cut").string();
    fs::create_directories(cut);
    const auto request =
        requestOf({item(a, (dir / "CamA").string()), item(b, (dir / "Sound").string()),
                   item(withNul, cut), item(b, std::string("/") + '\0')});
    const auto r = TestSupport::runProcess({TESSARIN_CLI_PATH, "--stdin"}, request,
                                           {"XDG_CACHE_HOME=" + (dir / "cache").string()});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const auto all = events(r.out);
    std::vector<std::string> refused, results;
    for (const auto& e : ofType(all, "error")) {
        EXPECT_EQ(e["message"], "Path contains a NUL character");
        refused.push_back(e["path"]);
    }
    for (const auto& e : ofType(all, "result")) {
        results.push_back(e["path"]);
    }
    EXPECT_EQ(refused, (std::vector<std::string>{withNul, b}));
    EXPECT_EQ(results, (std::vector<std::string>{a, b}));
}

TEST(Cli, RelativePathsResolveAgainstTheWorkingFolder) {
    TestSupport::TempDir dir;
    writeTwoRecorders(dir.path());
    const auto cache = dir / "cache";
    const auto request = requestOf({item("CamA/a.wav", "CamA"), item("./Sound/b.wav", "")});
    const auto r = TestSupport::runProcess({TESSARIN_CLI_PATH, "--stdin"}, request,
                                           {"XDG_CACHE_HOME=" + cache.string()}, dir.path());
    ASSERT_EQ(r.exitCode, 0) << r.err;
    std::map<std::string, std::string> trackOf;
    for (const auto& e : ofType(events(r.out), "result")) {
        trackOf[e["path"]] = e["track"];
    }
    const auto a = dir / "CamA" / "a.wav", b = dir / "Sound" / "b.wav";
    // The empty drop hint is the working folder itself: the track takes its name.
    EXPECT_EQ(trackOf, (std::map<std::string, std::string>{
                           {a.string(), "CamA"}, {b.string(), dir.path().filename().string()}}));
    for (const auto& file : {a, b}) {
        const auto key = EnvelopeCache::cacheKey(file);
        ASSERT_TRUE(key);
        EXPECT_TRUE(fs::is_regular_file(cache / "TessarinEngineCLI" / (*key + ".bands"))) << file;
    }
}

TEST(Cli, EventsReachOnlyStandardOutputAndALostOneFailsTheRun) {
    TestSupport::TempDir dir;
    // Many short clips, so that cache files are being written while events go out.
    std::vector<nlohmann::json> items;
    for (const std::string folder : {"A", "B"}) {
        fs::create_directories(dir / folder);
        for (int i = 0; i < 30; ++i) {
            const auto clip = MediaFixtures::noise(8000, 0.2f, unsigned(items.size()));
            const auto file = dir / folder / ("c" + std::to_string(i) + ".wav");
            MediaFixtures::writeWav(file, clip);
            items.push_back(item(file.string(), (dir / folder).string()));
        }
    }
    TestSupport::writeText(dir / "request.json", requestOf(items));
    auto runWith = [&](const std::string& redirect, const fs::path& cache) {
        return TestSupport::runProcess({"/bin/sh", "-c", "exec \"$0\" --input \"$1\" " + redirect,
                                        TESSARIN_CLI_PATH, (dir / "request.json").string()},
                                       {}, {"XDG_CACHE_HOME=" + cache.string()});
    };
    // Started with standard output closed: the cache files hold features and nothing else. One
    // run in three or so would show it, so ten are made.
    for (int run = 0; run < 10; ++run) {
        SCOPED_TRACE(run);
        const auto cache = dir / ("closed" + std::to_string(run));
        const auto closed = runWith(">&-", cache);
        EXPECT_EQ(closed.exitCode, 0) << closed.err;
        int features = 0;
        for (const auto& entry : fs::directory_iterator(cache / "TessarinEngineCLI")) {
            const auto bytes = MediaFixtures::readBytes(entry.path());
            if (entry.path().extension() == ".bands") {
                const auto feature = EnvelopeCache::decodeBands(bytes);
                ASSERT_TRUE(feature) << entry.path();
                EXPECT_EQ(EnvelopeCache::encodeBands(*feature), bytes) << entry.path();
                ++features;
            } else {
                // An envelope file: its two counts say its length.
                ASSERT_GE(bytes.size(), 12u);
                const std::uint32_t count =
                    bytes[8] | bytes[9] << 8 | bytes[10] << 16 | std::uint32_t(bytes[11]) << 24;
                EXPECT_EQ(bytes.size(), 12u + 4u * count) << entry.path();
            }
        }
        EXPECT_EQ(features, 60);
    }
    // Standard output on a full disk: nothing was delivered, and the run says so.
    const auto full = runWith(">/dev/full", dir / "full");
    EXPECT_EQ(full.exitCode, 1);
    EXPECT_NE(full.err.find("Could not write events: No space left on device\n"), std::string::npos)
        << full.err;
}

TEST(Cli, BlackmagicRawIsAvailableOnlyWhenClipsCanBeRead) {
    TestSupport::TempDir dir;
    // A library that loads and makes a factory, beside a copy of the program that finds it.
    const auto library = dir / "bin" / "libBlackmagicRawAPI.so";
    fs::create_directories(dir / "bin");
    const auto cc = TestSupport::buildSharedLibrary(library, TestSupport::kStandInRawFactory);
    if (cc.exitCode != 0) {
        GTEST_SKIP() << "no C compiler to build a stand-in library: " << cc.err;
    }
    const auto program = dir / "bin" / "TessarinEngineCLI";
    fs::copy_file(TESSARIN_CLI_PATH, program);
    const auto cache = "XDG_CACHE_HOME=" + (dir / "cache").string();
    const std::string note = "Blackmagic RAW SDK found at " + library.string() +
                             ", but this build cannot read its clips";

    const auto status = TestSupport::runProcess({program.string(), "--braw-status"}, {}, {cache});
    EXPECT_EQ(status.exitCode, 3);
    EXPECT_EQ(status.out, note + "\n");

    writeTwoRecorders(dir.path());
    fs::create_directories(dir / "Cam");
    TestSupport::writeText(dir / "Cam" / "A001.braw", "a clip");
    const auto braw = (dir / "Cam" / "A001.braw").string();
    const auto run = TestSupport::runProcess(
        {program.string(), "--stdin"},
        requestOf({item((dir / "CamA" / "a.wav").string(), (dir / "CamA").string()),
                   item((dir / "Sound" / "b.wav").string(), (dir / "Sound").string()),
                   item(braw, (dir / "Cam").string())}),
        {cache});
    EXPECT_EQ(run.exitCode, 0) << run.err;
    const auto errors = ofType(events(run.out), "error");
    ASSERT_EQ(errors.size(), 1u) << run.out;
    EXPECT_EQ(errors[0]["path"], braw);
    EXPECT_EQ(errors[0]["message"], "Extraction failed: readFailed(\"" + note + "\")");
}
