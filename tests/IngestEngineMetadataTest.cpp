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

// 2024-03-01 00:00:00 UTC.
constexpr Date kDay = 1709251200;

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

TEST(IngestEngine, LoadMetadataLogsEachTracksClockInLocalTime) {
    // Berlin is UTC+1 on 1 March; the zone is fixed so that the hours do not depend on the machine.
    const char* oldZone = std::getenv("TZ");
    const std::optional<std::string> previous = oldZone ? std::optional(oldZone) : std::nullopt;
    ::setenv("TZ", "Europe/Berlin", 1);
    const std::map<std::string, std::pair<Date, ClockQuality>> dates = {
        {"1.wav", {kDay + 9 * 3600 + 5 * 60, ClockQuality::filesystem}},
        {"3.wav", {kDay + 10 * 3600 + 40 * 60, ClockQuality::filename}},
        {"4.wav", {kDay + 8 * 3600 + 15 * 60 + 59, ClockQuality::asset}},
    };
    TestSupport::LogCapture log;
    IngestEngine::loadMetadata({trackOf("Mixed", {"1.wav", "2.wav", "3.wav", "4.wav", "5.wav"}),
                                trackOf("Undated", {"x.wav"})},
                               {}, [&](const std::filesystem::path& url) {
                                   MediaMetadata::ClipMeta m;
                                   m.duration = 1;
                                   if (auto it = dates.find(url.filename().string());
                                       it != dates.end()) {
                                       m.date = it->second.first;
                                       m.quality = it->second.second;
                                   }
                                   return m;
                               });
    previous ? ::setenv("TZ", previous->c_str(), 1) : ::unsetenv("TZ");
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "[Ingest] clock track 'Mixed': quality=filename 09:15–11:40 (3/5 dated)",
                  "[Ingest] clock track 'Undated': no dates"}));
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
