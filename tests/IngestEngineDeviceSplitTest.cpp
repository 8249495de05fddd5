#include "TessarinEngine/IngestEngine.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

namespace {

// A track of clips named "F{n}x.mov" in one folder; each entry of `devices` gives that many clips
// of that device name ("" for clips without one).
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
            ClipItem c(folder + "/F" + std::to_string(100 + n++) + "x" +
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

// "name/device/clip count" per track, joined by "; ".
std::string summary(const std::vector<TrackSource>& tracks) {
    std::string out;
    for (const auto& t : tracks) {
        out += (out.empty() ? "" : "; ") + t.name + "/" + t.deviceName.value_or("-") + "/" +
               std::to_string(t.clips.size());
    }
    return out;
}

} // namespace

TEST(IngestEngine, DeviceKeysAndClipNumbers) {
    const std::pair<const char*, const char*> keys[] = {
        {"MAKER MAKER X-100 1234567", "MAKER X 100"},
        {"ZOOM H6 12345 678901", "ZOOM H6"},
        {"  --  ", ""},
    };
    for (const auto& [name, key] : keys) {
        EXPECT_EQ(IngestEngine::normalizeDeviceKey(name), key) << name;
    }
    using Key = IngestEngine::NumericKey;
    EXPECT_EQ(IngestEngine::clipNumericKey("/x/A001C002.mov"), (Key{"A001C", 2}));
    EXPECT_FALSE(IngestEngine::clipNumericKey("/x/0120.MP4"));
    EXPECT_FALSE(IngestEngine::clipNumericKey("/x/A99999999999999999999.mov"));
}

TEST(IngestEngine, SplitByDeviceFoldsSmallKeysOnlyInLargeFolders) {
    struct Case {
        std::vector<std::pair<std::string, int>> devices;
        const char* expected;
    };
    const Case cases[] = {
        // The folded clips all name one device, which the "(other)" track then carries.
        {{{"Canon R5", 2}, {"Sony FX3", 18}}, "Sony FX3/Sony FX3/18; Drop (other)/Canon R5/2"},
        {{{"Sony FX3", 17}, {"Canon R5", 2}}, "Sony FX3/Sony FX3/17; Canon R5/Canon R5/2"},
        {{{"Sony FX3", 18}, {"Canon R5", 3}}, "Sony FX3/Sony FX3/18; Canon R5/Canon R5/3"},
        // When every key is small, none is folded.
        {{{"A", 2}, {"B", 2}, {"", 17}}, "A/A/2; B/B/2; Drop (other)/-/17"},
        // Spellings of one model are one device, named as first met.
        {{{"Sony FX3", 2}, {"SONY-FX3 123456", 3}}, "Drop/Sony FX3/5"},
        {{{"cam_hevc", 4}}, "Drop/-/4"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expected);
        const auto in = trackOf("Drop", SourceType::video, c.devices);
        const auto out = IngestEngine::splitSourcesByDevice({in});
        EXPECT_EQ(summary(out), c.expected);
        // A track that was split lays its clips of 2 s end to end afresh; one that was not keeps
        // its id.
        for (const auto& t : out) {
            EXPECT_EQ(t.id == in.id, out.size() == 1);
            EXPECT_EQ(t.clips.back().startOffset, out.size() == 1 ? 0 : 2.0 * (t.clips.size() - 1));
        }
    }
}

TEST(IngestEngine, SplitKeepsTheEightLargestOfManyDevices) {
    std::vector<std::pair<std::string, int>> devices;
    for (int k = 0; k < 12; ++k) {
        devices.push_back({"Model " + std::string(1, char('A' + k)), k < 8 ? 5 - k / 4 : 3});
    }
    auto out = IngestEngine::splitSourcesByDevice({trackOf("Card", SourceType::video, devices)});
    ASSERT_EQ(out.size(), 9u);
    EXPECT_EQ(summary({out[7], out[8]}), "Model H/Model H/4; Card (other)/Model I/12");
}

TEST(IngestEngine, SplitAdoptsUnnamedClipsByFileNamePrefixAndSortsThem) {
    const std::pair<const char*, const char*> files[] = {
        {"A001C010.mov", ""}, {"B002C001.mov", "Canon"}, {"A001C004.mov", "RED"},
        {"A001C005.mov", ""}, {"B002C003.mov", ""},      {"notes.mov", ""}};
    TrackSource t;
    t.name = "Drop";
    for (const auto& [file, device] : files) {
        t.clips.emplace_back(std::string("/d/") + file);
        if (*device) {
            t.clips.back().deviceName = device;
        }
    }
    const auto out = IngestEngine::splitSourcesByDevice({t});
    EXPECT_EQ(summary(out), "RED/RED/3; Canon/Canon/2; Drop (other)/-/1");
    EXPECT_EQ(out[0].clips[0].url.filename(), "A001C004.mov");
    EXPECT_EQ(out[0].clips[2].url.filename(), "A001C010.mov");
}

TEST(IngestEngine, SplitLeavesLockedAndSingleFolderAudioTracksWhole) {
    auto recorder = trackOf("Sound", SourceType::audio, {{"Sound Devices", 5}, {"Zoom F8", 7}});
    auto spread = trackOf("Spread", SourceType::audio, {{"Zoom F8", 3}}, "/a");
    const auto more = trackOf("x", SourceType::audio, {{"Sound Devices", 3}}, "/b");
    spread.clips.insert(spread.clips.end(), more.clips.begin(), more.clips.end());
    auto locked = trackOf("Reel", SourceType::video, {{"ARRI", 2}, {"RED", 3}});
    locked.lockedGrouping = true;

    const auto out = IngestEngine::splitSourcesByDevice({recorder, locked, spread});
    EXPECT_EQ(summary(out), "Sound/Zoom F8/12; Reel/RED/5; Zoom F8/Zoom F8/3; "
                            "Sound Devices/Sound Devices/3");
    EXPECT_EQ(out[0].id, recorder.id);
    EXPECT_EQ(out[0].clips, recorder.clips);
}
