#include "TessarinEngineCLI/Request.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

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
