#include "TessarinTimeline/OtioDocument.h"

#include "tests/TessarinTimeline/TimelineFixtures.h"

#include <cmath>
#include <gtest/gtest.h>
#include <map>

using nlohmann::json;

namespace {

json exportOf(const std::vector<TimelineFixtures::Clip>& clips) {
    const auto read = EventStream::readTimeline(TimelineFixtures::eventStream(clips));
    return json::parse(OtioDocument::write(std::get<Timeline>(read)));
}

double seconds(const json& time) {
    return time["value"].get<double>() / time["rate"].get<double>();
}

} // namespace

TEST(OtioDocument, SmallShootReadBack) {
    const auto shoot = TimelineFixtures::smallShoot();
    const json doc = exportOf(shoot);
    EXPECT_EQ(doc["name"], "Day 1");
    const auto& tracks = doc["tracks"]["children"];
    ASSERT_EQ(tracks.size(), 3u);

    std::map<std::string, TimelineFixtures::Clip> byName;
    for (const auto& c : shoot) {
        byName[c.path.substr(c.path.rfind('/') + 1)] = c;
    }
    const double frame = 1001.0 / 24000.0;
    const std::pair<const char*, const char*> expected[] = {
        {"CamA", "Video"}, {"CamB", "Video"}, {"Sound", "Audio"}};
    int clipsSeen = 0;
    int gapsSeen = 0;
    for (std::size_t i = 0; i < 3; ++i) {
        const auto& track = tracks[i];
        SCOPED_TRACE(track["name"].get<std::string>());
        EXPECT_EQ(track["name"], expected[i].first);
        EXPECT_EQ(track["kind"], expected[i].second);
        // An item's position is the sum of the durations before it.
        double position = 0;
        for (const auto& item : track["children"]) {
            const auto& range = item["source_range"];
            EXPECT_DOUBLE_EQ(range["duration"]["rate"].get<double>(), 24000.0 / 1001.0);
            if (item["OTIO_SCHEMA"] == "Gap.1") {
                ++gapsSeen;
            } else {
                ASSERT_EQ(item["OTIO_SCHEMA"], "Clip.1");
                ++clipsSeen;
                const auto& c = byName.at(item["name"].get<std::string>());
                SCOPED_TRACE(c.path);
                EXPECT_NE(c.status, "failed");
                EXPECT_NEAR(position, c.start, frame);
                EXPECT_NEAR(seconds(range["duration"]), c.duration, frame);
                const auto& meta = item["metadata"]["tessarin"];
                EXPECT_EQ(meta["verdict"], c.status);
                EXPECT_FALSE(item.contains("effects"));
            }
            position += seconds(range["duration"]);
        }
    }
    EXPECT_EQ(clipsSeen, 6); // the failed clip is left out
    EXPECT_EQ(gapsSeen, 5);  // before every clip but the recorder's first
}

TEST(OtioDocument, DriftBecomesALinearTimeWarp) {
    const json doc = exportOf({{"/s/T1.WAV", "S", "audio", 0, 3600, "synced", {}, 50.0},
                               {"/s/A1.MOV", "A", "video", 2, 3000, "synced", 25.0}});
    const auto& audio = doc["tracks"]["children"][1]["children"][0];
    ASSERT_TRUE(audio.contains("effects"));
    const auto& warp = audio["effects"][0];
    EXPECT_EQ(warp["OTIO_SCHEMA"], "LinearTimeWarp.1");
    EXPECT_DOUBLE_EQ(warp["time_scalar"].get<double>(), 1.00005);
    // Played 50 ppm faster, an hour of sound fills 0.18 s less of the timeline.
    EXPECT_NEAR(seconds(audio["source_range"]["duration"]), 3600 - 0.18, 0.04);
    EXPECT_FALSE(doc["tracks"]["children"][0]["children"][1].contains("effects"));
}

TEST(OtioDocument, FileUrlsEscapeEverythingButPlainCharacters) {
    EXPECT_EQ(OtioDocument::fileUrl("/shoot/Day 1/A003 #&.MOV"),
              "file:///shoot/Day%201/A003%20%23%26.MOV");
    EXPECT_EQ(OtioDocument::fileUrl("/s/Caf\u00e9?%.wav"), "file:///s/Caf%C3%A9%3F%25.wav");
}
