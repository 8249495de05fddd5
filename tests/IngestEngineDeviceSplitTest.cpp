#include "TessarinEngine/IngestEngine.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

namespace {

// A track of clips named "{prefix}{n}.mov" in one folder; each entry of `devices` gives that many
// clips of that device name ("" for clips without one).
TrackSource trackOf(const std::string& name, SourceType type,
                    const std::vector<std::pair<std::string, int>>& devices,
                    const std::string& folder = "/shoot/drop") {
    TrackSource t;
    t.name = name;
    t.type = type;
    t.session = "/shoot";
    int n = 0;
    for (const auto& [device, count] : devices) {
        for (int i = 0; i < count; ++i) {
            ClipItem c(folder + "/" + "F" + std::to_string(100 + n++) + "x" +
                       (type == SourceType::video ? ".mov" : ".wav"));
            c.duration = 2;
            if (!device.empty()) {
                c.deviceName = device;
            }
            t.clips.push_back(c);
        }
    }
    return t;
}

struct Summary {
    std::string name;
    std::optional<std::string> device;
    std::size_t clips;
    bool operator==(const Summary&) const = default;
};

std::ostream& operator<<(std::ostream& os, const Summary& s) {
    return os << s.name << "/" << s.device.value_or("-") << "/" << s.clips;
}

std::vector<Summary> summarise(const std::vector<TrackSource>& tracks) {
    std::vector<Summary> out;
    for (const auto& t : tracks) {
        out.push_back({t.name, t.deviceName, t.clips.size()});
    }
    return out;
}

} // namespace

TEST(IngestEngine, DeviceKeysAndClipNumbers) {
    const std::pair<const char*, const char*> keys[] = {
        {"MAKER MAKER X-100 1234567", "MAKER X 100"},
        {"Maker DIGITAL CAMERA", "MAKER"},
        {"maker", "MAKER"},
        {"ZOOM H6 12345 678901", "ZOOM H6"},
        {"Cam 1234", "CAM 1234"},
        {"  --  ", ""},
    };
    for (const auto& [name, key] : keys) {
        EXPECT_EQ(IngestEngine::normalizeDeviceKey(name), key) << name;
    }
    using Key = IngestEngine::NumericKey;
    EXPECT_EQ(IngestEngine::clipNumericKey("/x/A001C002.mov"), (Key{"A001C", 2}));
    EXPECT_EQ(IngestEngine::clipNumericKey("/x/C0120.MP4"), (Key{"C", 120}));
    EXPECT_FALSE(IngestEngine::clipNumericKey("/x/0120.MP4"));
    EXPECT_FALSE(IngestEngine::clipNumericKey("/x/Take.wav"));
    EXPECT_FALSE(IngestEngine::clipNumericKey("/x/A99999999999999999999.mov"));

    auto t = trackOf("T", SourceType::video, {{"Sony A7", 1}, {"SONY-A7 555555", 2}, {"Zoom", 2}});
    t.clips.push_back(t.clips[0]);
    t.clips.back().deviceName = "cam_h264_1920";
    EXPECT_EQ(IngestEngine::trackDeviceLabel(t.clips), "Sony A7");
    EXPECT_FALSE(IngestEngine::trackDeviceLabel(trackOf("U", SourceType::video, {{"", 3}}).clips));
}

TEST(IngestEngine, SplitByDeviceFoldsSmallKeysOnlyInLargeFolders) {
    struct Case {
        const char* name;
        std::vector<std::pair<std::string, int>> devices;
        std::vector<Summary> expected;
        std::vector<std::string> log;
    };
    const Case cases[] = {
        {"22 and 3 of 25",
         {{"Sony FX3", 22}, {"Canon R5", 3}},
         {{"Sony FX3", "Sony FX3", 22}, {"Canon R5", "Canon R5", 3}},
         {"[Ingest] device-split 'Drop': Sony FX3=22, Canon R5=3"}},
        {"22 and 2 of 24",
         {{"Canon R5", 2}, {"Sony FX3", 22}},
         // The folded clips all name one device, which the "(other)" track then carries.
         {{"Sony FX3", "Sony FX3", 22}, {"Drop (other)", "Canon R5", 2}},
         {"[Ingest] device-split 'Drop': 1 device key(s) with fewer than 3 clips folded into "
          "'(other)'",
          "[Ingest] device-split 'Drop': Sony FX3=22, other=2"}},
        {"8 and 2 of 10",
         {{"Sony FX3", 8}, {"Canon R5", 2}},
         {{"Sony FX3", "Sony FX3", 8}, {"Canon R5", "Canon R5", 2}},
         {"[Ingest] device-split 'Drop': Sony FX3=8, Canon R5=2"}},
        {"all keys small, no device on the rest",
         {{"A", 2}, {"B", 2}, {"", 17}},
         {{"A", "A", 2}, {"B", "B", 2}, {"Drop (other)", std::nullopt, 17}},
         {"[Ingest] device-split 'Drop': A=2, B=2, other=17"}},
        {"no device at all", {{"", 5}}, {{"Drop", std::nullopt, 5}}, {}},
        {"one device", {{"Sony FX3", 5}}, {{"Drop", "Sony FX3", 5}}, {}},
        {"codec fingerprints are no device", {{"cam_hevc", 4}}, {{"Drop", std::nullopt, 4}}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TestSupport::LogCapture log;
        const auto in = trackOf("Drop", SourceType::video, c.devices);
        const auto out = IngestEngine::splitSourcesByDevice({in});
        EXPECT_EQ(summarise(out), c.expected);
        EXPECT_EQ(log.lines(), c.log);
        // A track that was split is laid out afresh; one that was not keeps its id.
        for (const auto& t : out) {
            EXPECT_EQ(t.id == in.id, c.expected.size() == 1);
            if (t.id == in.id) {
                continue;
            }
            double offset = 0;
            for (const auto& clip : t.clips) {
                EXPECT_EQ(clip.startOffset, offset);
                offset += clip.duration;
            }
        }
    }
}

TEST(IngestEngine, SplitKeepsTheEightLargestOfManyDevices) {
    std::vector<std::pair<std::string, int>> devices;
    for (int k = 0; k < 12; ++k) {
        devices.push_back({"Model " + std::string(1, char('A' + k)), k < 8 ? 5 - k / 4 : 3});
    }
    TestSupport::LogCapture log;
    const auto out =
        IngestEngine::splitSourcesByDevice({trackOf("Card", SourceType::video, devices)});
    ASSERT_EQ(out.size(), 9u);
    EXPECT_EQ(summarise(out)[0], (Summary{"Model A", "Model A", 5}));
    EXPECT_EQ(summarise(out)[7], (Summary{"Model H", "Model H", 4}));
    EXPECT_EQ(out[8].name, "Card (other)");
    EXPECT_EQ(out[8].clips.size(), 12u);
    ASSERT_EQ(log.lines().size(), 2u);
    EXPECT_EQ(log.lines()[0], "[Ingest] device-split 'Card': 12 device keys — keeping the 8 "
                              "largest as tracks, the rest in '(other)'. Check this folder by "
                              "hand: select clips and press N to move them to their own track.");
}

TEST(IngestEngine, SplitAdoptsUnnamedClipsByFileNamePrefixAndSortsThem) {
    TrackSource t;
    t.name = "Drop";
    t.session = "/s";
    for (auto [file, device] :
         std::vector<std::pair<std::string, std::string>>{{"A001C010.mov", ""},
                                                          {"B002C001.mov", "Canon"},
                                                          {"A001C004.mov", "RED"},
                                                          {"A001C005.mov", ""},
                                                          {"B002C003.mov", ""},
                                                          {"notes.mov", ""}}) {
        ClipItem c("/d/" + file);
        if (!device.empty()) {
            c.deviceName = device;
        }
        t.clips.push_back(c);
    }
    const auto out = IngestEngine::splitSourcesByDevice({t});
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(out[0].name, "RED");
    EXPECT_EQ(out[0].clips.size(), 3u);
    EXPECT_EQ(out[0].clips[0].url.filename(), "A001C004.mov");
    EXPECT_EQ(out[0].clips[2].url.filename(), "A001C010.mov");
    EXPECT_EQ(out[1].name, "Canon");
    EXPECT_EQ(out[1].clips.size(), 2u);
    EXPECT_EQ(out[2].name, "Drop (other)");
    EXPECT_NE(out[2].id, t.id);
}

TEST(IngestEngine, SplitLeavesLockedAndSingleFolderAudioTracksWhole) {
    auto recorder = trackOf("Sound", SourceType::audio, {{"Sound Devices", 5}, {"Zoom F8", 7}});
    auto spread = trackOf("Spread", SourceType::audio, {{"Zoom F8", 3}}, "/a");
    const auto more = trackOf("x", SourceType::audio, {{"Sound Devices", 3}}, "/b");
    spread.clips.insert(spread.clips.end(), more.clips.begin(), more.clips.end());
    auto locked = trackOf("Reel", SourceType::video, {{"ARRI", 2}, {"RED", 3}});
    locked.lockedGrouping = true;

    const auto out = IngestEngine::splitSourcesByDevice({recorder, locked, spread});
    EXPECT_EQ(summarise(out), (std::vector<Summary>{{"Sound", "Zoom F8", 12},
                                                    {"Reel", "RED", 5},
                                                    {"Zoom F8", "Zoom F8", 3},
                                                    {"Sound Devices", "Sound Devices", 3}}));
    EXPECT_EQ(out[0].id, recorder.id);
    EXPECT_EQ(out[0].clips, recorder.clips);
}
