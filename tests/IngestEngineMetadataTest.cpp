#include "TessarinEngine/IngestEngine.h"
#include "tests/support/TestSupport.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <gtest/gtest.h>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace {

// Sets TZ for the length of a scope, so that local times do not depend on the machine.
class ZoneScope {
public:
    explicit ZoneScope(const char* zone) {
        if (const char* old = std::getenv("TZ")) {
            previous_ = old;
        }
        ::setenv("TZ", zone, 1);
    }
    ~ZoneScope() {
        if (previous_) {
            ::setenv("TZ", previous_->c_str(), 1);
        } else {
            ::unsetenv("TZ");
        }
    }

private:
    std::optional<std::string> previous_;
};

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
    auto red = trackOf("RED", {"R1.wav"});
    red.clips[0].pixelWidth = 8192;
    red.clips[0].pixelHeight = 4320;
    auto done = trackOf("Done", {"D1.wav", "D2.wav"});
    done.clips[0].duration = 7;
    done.clips[1].duration = 3;
    done.clips[1].startOffset = 7;

    std::mutex mutex;
    std::map<std::string, int> reads;
    const IngestEngine::MetadataReader readMeta = [&](const std::filesystem::path& url) {
        {
            std::lock_guard lock(mutex);
            ++reads[url.filename().string()];
        }
        MediaMetadata::ClipMeta m;
        const std::string name = url.filename().string();
        if (name == "A2.mov") {
            throw std::runtime_error("unreadable");
        }
        m.duration = name == "A1.mov" ? 10 : name == "A3.mov" ? 5 : 2;
        m.fps = 25;
        m.device = "Cam " + name.substr(0, 1);
        m.date = kDay + 100;
        m.quality = ClockQuality::embedded;
        m.channels = 2;
        m.channelMap = {0, 1};
        m.timecode = 3600;
        if (name[0] == 'A') {
            m.size = std::pair(1920, 1080);
        }
        return m;
    };

    std::vector<int> readSoFar;
    const auto out = IngestEngine::loadMetadata(
        {cams, red, done},
        [&](const std::vector<TrackSource>& tracks) {
            int read = 0;
            for (const auto& t : tracks) {
                for (const auto& c : t.clips) {
                    read += c.duration > 0 && t.name != "Done";
                }
            }
            readSoFar.push_back(read);
        },
        readMeta);

    // Four clips to read, one callback each; the unreadable one counts but stays at 0.
    EXPECT_EQ(reads, (std::map<std::string, int>{
                         {"A1.mov", 1}, {"A2.mov", 1}, {"A3.mov", 1}, {"R1.wav", 1}}));
    ASSERT_EQ(readSoFar.size(), 4u);
    EXPECT_EQ(readSoFar.back(), 3);
    EXPECT_LE(readSoFar.front(), 1);

    const auto& a = out[0].clips;
    EXPECT_EQ(a[0].duration, 10);
    EXPECT_EQ(a[0].frameRate, 25.0f);
    EXPECT_EQ(a[0].deviceName, "Cam A");
    EXPECT_EQ(a[0].recordingDate, kDay + 100);
    EXPECT_EQ(a[0].clockQuality, ClockQuality::embedded);
    EXPECT_EQ(a[0].channelCount, 2);
    EXPECT_EQ(a[0].audioChannelIndices, (std::vector<int>{0, 1}));
    EXPECT_EQ(a[0].startTimecode, 3600.0);
    EXPECT_EQ(a[0].pixelWidth, 1920);
    EXPECT_EQ(a[1].duration, 0);
    EXPECT_FALSE(a[1].deviceName);
    EXPECT_EQ(a[1].channelCount, 1);
    // Offsets are the running sum of durations.
    EXPECT_EQ(a[1].startOffset, 10);
    EXPECT_EQ(a[2].startOffset, 10);
    EXPECT_EQ(out[1].clips[0].pixelWidth, 8192);
    EXPECT_EQ(out[1].clips[0].pixelHeight, 4320);
    EXPECT_EQ(out[2].clips[0].duration, 7);
    EXPECT_EQ(out[2].clips[1].duration, 3);
    EXPECT_EQ(out[2].clips[1].startOffset, 7);
}

TEST(IngestEngine, LoadMetadataReadsAtMostFourClipsAtOnce) {
    std::vector<std::string> files;
    for (int i = 0; i < 12; ++i) {
        files.push_back("C" + std::to_string(i) + ".mov");
    }
    std::atomic<int> running = 0;
    std::atomic<int> most = 0;
    int callbacks = 0;
    IngestEngine::loadMetadata(
        {trackOf("T", files)}, [&](const auto&) { ++callbacks; },
        [&](const std::filesystem::path&) {
            const int now = ++running;
            int seen = most.load();
            while (now > seen && !most.compare_exchange_weak(seen, now)) {
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            --running;
            MediaMetadata::ClipMeta m;
            m.duration = 1;
            return m;
        });
    EXPECT_EQ(callbacks, 12);
    EXPECT_LE(most.load(), 4);
    EXPECT_GE(most.load(), 2);
}

TEST(IngestEngine, LoadMetadataLogsEachTracksClockInLocalTime) {
    ZoneScope zone("Europe/Berlin");
    auto mixed = trackOf("Mixed", {"1.wav", "2.wav", "3.wav", "4.wav", "5.wav"});
    auto none = trackOf("Undated", {"x.wav"});
    // Berlin is UTC+1 on 1 March.
    const std::map<std::string, std::pair<Date, ClockQuality>> dates = {
        {"1.wav", {kDay + 9 * 3600 + 5 * 60, ClockQuality::filesystem}},
        {"3.wav", {kDay + 10 * 3600 + 40 * 60, ClockQuality::filename}},
        {"4.wav", {kDay + 8 * 3600 + 15 * 60 + 59, ClockQuality::asset}},
    };
    TestSupport::LogCapture log;
    IngestEngine::loadMetadata({mixed, none}, {}, [&](const std::filesystem::path& url) {
        MediaMetadata::ClipMeta m;
        m.duration = 1;
        if (auto it = dates.find(url.filename().string()); it != dates.end()) {
            m.date = it->second.first;
            m.quality = it->second.second;
        }
        return m;
    });
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "[Ingest] clock track 'Mixed': quality=filename 09:15–11:40 (3/5 dated)",
                  "[Ingest] clock track 'Undated': no dates"}));
}

TEST(IngestEngine, SortSourcesPutsVideoFirstInNaturalNameOrder) {
    std::vector<TrackSource> tracks;
    for (auto [name, type] :
         std::vector<std::pair<std::string, SourceType>>{{"Zoom", SourceType::audio},
                                                         {"cam 10", SourceType::video},
                                                         {"Boom", SourceType::audio},
                                                         {"Cam 9", SourceType::video},
                                                         {"cam 9", SourceType::video}}) {
        TrackSource t;
        t.name = name;
        t.type = type;
        tracks.push_back(t);
    }
    std::vector<std::string> names;
    for (const auto& t : IngestEngine::sortSources(tracks)) {
        names.push_back(t.name);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"Cam 9", "cam 9", "cam 10", "Boom", "Zoom"}));
}
