#include "TessarinTimeline/EventStream.h"

#include "tests/TessarinTimeline/TimelineFixtures.h"

#include <gtest/gtest.h>

using TimelineFixtures::eventStream;

TEST(EventStream, TracksVideoFirstInEventOrderWithUnknownsSkipped) {
    auto clips = TimelineFixtures::smallShoot();
    clips[0].driftPpm = 12.5;
    std::string text = eventStream(clips);
    // Unknown event types and fields come from newer engines; they must not stop a reader.
    text.insert(0, R"({"type":"heartbeat","at":3})"
                   "\n"
                   R"({"type":"error","path":"\/shoot\/x.mov","message":"Extraction failed"})"
                   "\n");
    const auto pos = text.find(R"("syncStatus")");
    text.insert(pos, R"("futureField":{"a":[1,2]},)");

    const auto read = EventStream::readTimeline(text);
    ASSERT_TRUE(std::holds_alternative<Timeline>(read)) << std::get<StreamFault>(read).message;
    const auto& t = std::get<Timeline>(read);
    ASSERT_EQ(t.tracks.size(), 3u);
    EXPECT_EQ(t.tracks[0].name, "CamA");
    EXPECT_EQ(t.tracks[1].name, "CamB");
    EXPECT_EQ(t.tracks[2].name, "Sound");
    EXPECT_EQ(t.tracks[2].type, SourceType::audio);
    EXPECT_EQ(t.tracks[0].clips.size(), 3u);
    EXPECT_EQ(t.tracks[0].clips[2].result.path, "/shoot/Day 1/CamA/A003 #&.MOV");
    EXPECT_TRUE(t.tracks[0].clips[2].failed());
    EXPECT_EQ(t.tracks[2].clips[0].driftPpm, 12.5);
    EXPECT_FALSE(t.tracks[2].clips[1].driftPpm);
    EXPECT_EQ(t.session, "/shoot/Day 1");
    EXPECT_EQ(t.done.clipCount, 7);
    EXPECT_DOUBLE_EQ(t.done.timelineDuration, 170.0);
}

TEST(EventStream, FaultsOfUnfinishedOrEmptyRuns) {
    const std::string good = eventStream(TimelineFixtures::smallShoot());
    const auto doneAt = good.rfind(R"({"type":"done")");
    const std::string noDone = good.substr(0, doneAt);
    const std::string cut = good.substr(0, good.size() - 20);
    const std::string header = R"({"type":"progress","phase":"sync","fraction":1})"
                               "\n";
    const std::string done = R"({"type":"done","trackCount":0,"clipCount":0,"timelineDuration":0})";
    const struct {
        const char* name;
        std::string text;
        std::string message;
    } cases[] = {
        {"no done event", noDone, "no done event: the engine's run did not finish"},
        {"last line cut short", cut, "line 9 is cut short: the engine's run did not finish"},
        {"no results", header + done + "\n", "no result events: there is no clip to lay out"},
        {"run-level error",
         header + R"({"type":"error","message":"Need at least 2 tracks to sync"})"
                  "\n",
         "the engine's run failed (\"Need at least 2 tracks to sync\"): there is no timeline"},
        {"broken line in the middle", header + "{oops\n" + good, "line 2 is not JSON"},
        {"result without a start",
         header +
             R"({"type":"result","path":"\/a.wav","track":"S","mediaType":"audio",)"
             R"("duration":3,"syncStatus":"synced"})"
             "\n" +
             done,
         "line 2: a result without a usable \"startOffset\""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto read = EventStream::readTimeline(c.text);
        ASSERT_TRUE(std::holds_alternative<StreamFault>(read));
        EXPECT_EQ(std::get<StreamFault>(read).message, c.message);
    }
}
