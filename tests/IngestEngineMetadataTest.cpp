#include "TessarinEngine/IngestEngine.h"
#include "tests/support/TestSupport.h"

#include <atomic>
#include <cstdlib>
#include <gtest/gtest.h>
#include <map>
#include <stdexcept>

namespace {

TrackSource trackOf(const std::string& name, const std::vector<std::string>& files) {
    TrackSource t;
    t.name = name;
    for (const auto& f : files) {
        t.clips.emplace_back("/media/" + f);
    }
    return t;
}

} // namespace

TEST(IngestEngine, LoadMetadataReadsEachUnreadClipOnceAndFoldsIt) {
    auto cams = trackOf("Cams", {"A1.mov", "A2.mov", "A3.mov"});
    // A RED take's size comes from its header and must survive a reader that finds none.
    auto red = trackOf("RED", {"R1.wav"});
    red.clips[0].pixelWidth = 8192;
    // Clips with a duration are read already: a read would make this one 5 s.
    auto done = trackOf("Done", {"D1.wav"});
    done.clips[0].duration = 7;

    std::atomic<int> reads = 0;
    const IngestEngine::MetadataReader readMeta = [&](const std::filesystem::path& url) {
        const std::string name = url.filename().string();
        ++reads;
        if (name == "A2.mov") {
            throw std::runtime_error("unreadable");
        }
        MediaMetadata::ClipMeta m;
        m.duration = name == "A1.mov" ? 10 : 5;
        m.device = "Cam " + name.substr(0, 1);
        if (name[0] == 'A') {
            m.size = std::pair(1920, 1080);
        }
        return m;
    };
    int callbacks = 0;
    const auto out = IngestEngine::loadMetadata(
        {cams, red, done}, [&](const std::vector<TrackSource>&) { ++callbacks; }, readMeta);

    // Four clips to read, one callback each; the unreadable one counts too.
    EXPECT_EQ(reads, 4);
    EXPECT_EQ(callbacks, 4);
    const auto& a = out[0].clips;
    EXPECT_EQ(a[0].duration, 10);
    EXPECT_EQ(a[0].deviceName, "Cam A");
    EXPECT_EQ(a[0].pixelWidth, 1920);
    // An unreadable clip stays unknown, and offsets run on past it.
    EXPECT_EQ(a[1].duration, 0);
    EXPECT_FALSE(a[1].deviceName);
    EXPECT_EQ(a[2].startOffset, 10);
    EXPECT_EQ(out[1].clips[0].pixelWidth, 8192);
    EXPECT_EQ(out[2].clips[0].duration, 7);
}

TEST(IngestEngine, SortSourcesPutsVideoFirstInNaturalNameOrder) {
    std::vector<TrackSource> tracks;
    for (const char* name : {"Zoom", "cam 10", "Boom", "Cam 9", "cam 9"}) {
        tracks.push_back(trackOf(name, {}));
        tracks.back().type =
            name[0] == 'c' || name[0] == 'C' ? SourceType::video : SourceType::audio;
    }
    std::vector<std::string> names;
    for (const auto& t : IngestEngine::sortSources(tracks)) {
        names.push_back(t.name);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"Cam 9", "cam 9", "cam 10", "Boom", "Zoom"}));
}

TEST(IngestEngine, ZonedDatesAreReadAsWallClockWhereTheOtherDevicesShowIt) {
    // A shoot at 10:00 in Los Angeles (UTC-07:00 in July): 10:00 as a wall clock read as UTC,
    // and the moment it names there.
    constexpr Date kWall = 1688205600;
    constexpr Date kMoment = kWall + 7 * 3600;
    std::optional<Date> namedInShootZone;
    {
        TestSupport::ScopedTimeZone shootZone("America/Los_Angeles");
        namedInShootZone = MediaMetadata::dateFromFilename("ZOOM_20230701_100000.WAV");
    }
    ASSERT_EQ(namedInShootZone, kMoment);
    using enum ClockQuality;
    struct Case {
        const char* name;
        Date recorder;
        ClockQuality recorderClock;
        std::optional<int> offset;
        Date camera;
        Date expected;
    };
    const Case cases[] = {
        {"Broadcast WAV beside UTC-07:00", kWall, embedded, -420, kMoment + 5, kWall + 5},
        {"names read in the shoot's zone agree already", *namedInShootZone, filename, -420,
         kMoment + 5, kMoment + 5},
        {"apart by other than the offset", kWall - 3 * 3600, embedded, -420, kMoment + 5,
         kMoment + 5},
        {"an offset of 20 min", kWall, embedded, -20, kWall + 1205, kWall + 1205},
        {"an offset of 30 min", kWall, embedded, 30, kWall - 1795, kWall + 5},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TrackSource sound = trackOf("Sound", {"T1.wav", "T2.wav"});
        TrackSource camera = trackOf("Cam", {"C1.mov", "C2.mov"});
        for (int i = 0; i < 2; ++i) {
            auto& s = sound.clips[i];
            s.duration = 60;
            s.recordingDate = c.recorder + 600 * i;
            s.clockQuality = c.recorderClock;
            auto& v = camera.clips[i];
            v.duration = 30;
            v.recordingDate = c.camera + 600 * i;
            v.clockQuality = embedded;
            v.clockOffsetMinutes = c.offset;
        }
        TestSupport::LogCapture log;
        const auto out = IngestEngine::alignZonedClocks({sound, camera});
        EXPECT_EQ(out[0], sound);
        const bool changed = c.expected != c.camera;
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(out[1].clips[i].recordingDate, c.expected + 600 * i);
            EXPECT_EQ(out[1].clips[i].clockOffsetMinutes, changed ? std::nullopt : c.offset);
        }
        EXPECT_EQ(log.lines().size(), changed ? 1u : 0u);
    }
}
