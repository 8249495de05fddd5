#include "TessarinTimeline/TimelineCommand.h"

#include "tests/TessarinTimeline/TimelineFixtures.h"
#include "tests/support/TestSupport.h"

#include <fstream>
#include <gtest/gtest.h>
#include <set>

using TestSupport::runProcess;

namespace {

std::set<std::string> listing(const std::filesystem::path& dir) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        names.insert(entry.path().filename().string());
    }
    return names;
}

std::string readFile(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::vector<std::string> exportAll(const TestSupport::TempDir& dir, std::vector<std::string> more) {
    std::vector<std::string> args = {
        TESSARIN_TIMELINE_PATH, "--input", (dir / "events.jsonl"), "--mlt",
        (dir / "out.mlt"),      "--otio",  (dir / "out.otio"),     "--svg",
        (dir / "out.svg")};
    args.insert(args.end(), more.begin(), more.end());
    return args;
}

} // namespace

TEST(TimelineCommand, ABadStreamWritesNothing) {
    const std::string good = TimelineFixtures::eventStream(TimelineFixtures::smallShoot());
    TestSupport::TempDir dir;
    TestSupport::writeText(dir / "events.jsonl", good.substr(0, good.size() - 30));
    const auto p = runProcess(exportAll(dir, {}));
    EXPECT_EQ(p.exitCode, 1);
    EXPECT_NE(p.err.find("is cut short"), std::string::npos) << p.err;
    EXPECT_NE(p.err.find("nothing written"), std::string::npos) << p.err;
    EXPECT_TRUE(p.out.empty());
    EXPECT_EQ(listing(dir.path()), std::set<std::string>{"events.jsonl"});
}

TEST(TimelineCommand, ExistingTargetsAreReplacedOnlyWithForce) {
    TestSupport::TempDir dir;
    TestSupport::writeText(dir / "events.jsonl",
                           TimelineFixtures::eventStream(TimelineFixtures::smallShoot()));
    TestSupport::writeText(dir / "out.svg", "old picture");

    const auto refused = runProcess(exportAll(dir, {}));
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_NE(refused.err.find("out.svg already exists; --force replaces it"), std::string::npos)
        << refused.err;
    EXPECT_EQ(readFile(dir / "out.svg"), "old picture");
    EXPECT_EQ(listing(dir.path()), (std::set<std::string>{"events.jsonl", "out.svg"}));

    const auto forced = runProcess(exportAll(dir, {"--force"}));
    EXPECT_EQ(forced.exitCode, 0) << forced.err;
    EXPECT_EQ(listing(dir.path()),
              (std::set<std::string>{"events.jsonl", "out.mlt", "out.otio", "out.svg"}));
    EXPECT_TRUE(readFile(dir / "out.svg").starts_with("<?xml"));

    // The same stream on standard input gives the same project.
    const auto piped =
        runProcess({TESSARIN_TIMELINE_PATH, "--stdin", "--mlt", (dir / "piped.mlt").string()},
                   readFile(dir / "events.jsonl"));
    EXPECT_EQ(piped.exitCode, 0) << piped.err;
    EXPECT_EQ(readFile(dir / "piped.mlt"), readFile(dir / "out.mlt"));
}

TEST(TimelineCommand, CommandLine) {
    const struct {
        std::vector<std::string> args;
        bool runs;
        std::vector<std::string> messages;
    } cases[] = {
        {{"--stdin", "--mlt", "t.mlt", "--bogus"}, true, {"Unknown argument: --bogus"}},
        {{"--input", "e.jsonl"}, false, {}},
        {{"--input", "e.jsonl", "--svg"}, false, {"--svg requires a path"}},
        {{"--input", "e", "--svg", "t.x", "--mlt", "./t.x"},
         false,
         {"One file cannot take two outputs: ./t.x"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.args));
        const auto cl = TimelineCommand::parse(c.args);
        EXPECT_EQ(cl.options.has_value(), c.runs);
        EXPECT_EQ(cl.messages, c.messages);
    }
}
