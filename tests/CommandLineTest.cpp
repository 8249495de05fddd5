#include "TessarinEngineCLI/Request.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

using TestSupport::runProcess;

namespace {

const std::string kUsageLine = "Usage: TessarinEngineCLI --input <request.json>  (or --stdin)\n";
const std::string kParseError =
    "{\"type\":\"error\",\"message\":\"Could not parse request JSON\"}\n";
const std::string kNoMedia =
    "{\"type\":\"error\",\"message\":\"No valid media found in request\"}\n";
const std::string kEmptyRequest = R"({"version":1,"items":[]})";

class Cli : public ::testing::Test {
protected:
    TestSupport::TempDir dir;
    std::vector<std::string> env{"XDG_CACHE_HOME=" + (dir / "cache").string()};

    TestSupport::ProcessResult run(std::vector<std::string> args, const std::string& input = {}) {
        args.insert(args.begin(), TESSARIN_CLI_PATH);
        return runProcess(args, input, env);
    }
};

} // namespace

TEST_F(Cli, UsageWhenNoRequestIsNamed) {
    for (const auto& args : std::vector<std::vector<std::string>>{{}, {"--bogus"}}) {
        auto r = run(args);
        EXPECT_EQ(r.exitCode, 1);
        EXPECT_EQ(r.out, "");
        EXPECT_NE(r.err.find(kUsageLine), std::string::npos) << r.err;
    }
}

TEST_F(Cli, TrailingInputNeedsAPathEvenAfterStdin) {
    auto r = run({"--stdin", "--input"}, kEmptyRequest);
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "--input requires a path\n");
}

TEST_F(Cli, UnreadableInputFileGetsOnlyTheUsage) {
    for (const auto& path : {(dir / "missing.json").string(), dir.path().string()}) {
        auto r = run({"--input", path});
        EXPECT_EQ(r.exitCode, 1);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, kUsageLine);
    }
}

TEST_F(Cli, EmptyStdinIsAParseErrorNotAUsageFault) {
    auto r = run({"--stdin"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.out, kParseError);
    EXPECT_EQ(r.err.find("Usage"), std::string::npos);
}

TEST_F(Cli, StdinWinsOverInputAndUnknownArgumentsAreSkipped) {
    // The named file does not exist: it must not be opened.
    auto r = run({"--input", (dir / "nope.json").string(), "--what", "--stdin"}, kEmptyRequest);
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.out, kNoMedia);
    EXPECT_NE(r.err.find("Unknown argument: --what\n"), std::string::npos);
    EXPECT_EQ(r.err.find("Usage"), std::string::npos);
}

TEST_F(Cli, LaterInputReplacesEarlier) {
    TestSupport::writeText(dir / "good.json", kEmptyRequest);
    TestSupport::writeText(dir / "bad.json", "not json");
    auto r = run({"--input", (dir / "bad.json").string(), "--input", (dir / "good.json").string()});
    EXPECT_EQ(r.out, kNoMedia);
}

TEST_F(Cli, BrawStatusEndsArgumentReading) {
    auto r = run({"--input", (dir / "missing.json").string(), "--braw-status", "--input"});
    EXPECT_EQ(r.exitCode, 3);
    EXPECT_EQ(r.out, "Blackmagic RAW framework not found on this machine\n");
    EXPECT_EQ(r.err, "");
}

TEST(RequestDecoding, AcceptsAndRejects) {
    struct Case {
        const char* json;
        bool accepted;
    };
    const Case cases[] = {
        {R"({"version":1,"items":[]})", true},
        {R"({"version":999,"items":[],"extra":{"x":1}})", true},
        {R"({"version":"1","items":[]})", false},
        {R"({"version":1.5,"items":[]})", false},
        {R"({"items":[]})", false},
        {R"({"version":1})", false},
        {R"({"version":1,"items":null})", false},
        {R"({"version":1,"items":[{"path":"/a.wav"}]})", false},
        {R"({"version":1,"items":[{"path":"/a.wav","dropHint":7}]})", false},
        {R"({"version":1,"items":[{"path":"/a.wav","dropHint":""}]})", true},
        {R"({"version":1,"items":[],"carryState":{}})", true},
        {R"({"version":1,"items":[],"carryState":null})", true},
        {R"({"version":1,"items":[],"carryState":{"completeShootSessions":null}})", true},
        {R"({"version":1,"items":[],"carryState":{"completeShootSessions":[1]}})", false},
        {R"({"version":1,"items":[],"carryState":[]})", false},
        {R"([1,2])", false},
        {"", false},
        {R"({"version":1,"items":[]} trailing)", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.json);
        EXPECT_EQ(decodeRequest(c.json).has_value(), c.accepted);
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
