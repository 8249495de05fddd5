#include "TessarinEngine/IngestEngine.h"
#include "tests/support/TestSupport.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace {

using Chapter = IngestEngine::ChapterName;

constexpr Date kT = 1700000000;

// For each clip, the index of the first clip of its recording, or -1 for a clip marked as none.
std::vector<int> recordings(const TrackSource& track) {
    std::vector<int> out;
    for (const auto& c : track.clips) {
        const auto first = std::find_if(track.clips.begin(), track.clips.end(), [&](const auto& x) {
            return c.recordingKey && x.recordingKey == c.recordingKey;
        });
        out.push_back(c.recordingKey ? static_cast<int>(first - track.clips.begin()) : -1);
    }
    return out;
}

} // namespace

TEST(IngestEngine, ChapterNamesPutTheChapterBeforeTheRecording) {
    const std::pair<const char*, std::optional<Chapter>> cases[] = {
        {"GX010045.MP4", Chapter{"GX", 45, 0}},  {"GX030045.MP4", Chapter{"GX", 45, 2}},
        {"gh020112.mp4", Chapter{"GH", 112, 1}}, {"GL010045.LRV", Chapter{"GL", 45, 0}},
        {"GOPR0045.MP4", Chapter{"GP", 45, 0}},  {"GP010045.MP4", Chapter{"GP", 45, 1}},
        {"GS010045.MP4", std::nullopt},          {"C0001.MP4", std::nullopt},
        {"20230701_142530.MP4", std::nullopt},
    };
    for (const auto& [name, chapter] : cases) {
        EXPECT_EQ(IngestEngine::chapterName(fs::path("/card") / name), chapter) << name;
    }
}

TEST(IngestEngine, ChronologicalOrderKeepsARecordingsChaptersTogether) {
    const std::vector<std::string> ordered = {
        "C0001.MP4",    "GOPR0044.MP4", "GP010044.MP4", "GOPR0046.MP4", "GX010045.MP4",
        "GX020045.MP4", "GX030045.MP4", "GX010046.MP4", "GX020046.MP4", "GX5000.MP4"};
    std::vector<fs::path> paths;
    for (const auto& name : ordered) {
        paths.push_back(fs::path("/card") / name);
    }
    auto shuffled = paths;
    std::reverse(shuffled.begin(), shuffled.end());
    std::stable_sort(shuffled.begin(), shuffled.end(), IngestEngine::chronologicalOrder);
    EXPECT_EQ(shuffled, paths);
    // A strict weak order over every triple, chapter names and others mixed.
    for (const auto& a : paths) {
        EXPECT_FALSE(IngestEngine::chronologicalOrder(a, a)) << a;
        for (const auto& b : paths) {
            for (const auto& c : paths) {
                if (IngestEngine::chronologicalOrder(a, b) &&
                    IngestEngine::chronologicalOrder(b, c)) {
                    EXPECT_TRUE(IngestEngine::chronologicalOrder(a, c)) << a << b << c;
                }
            }
        }
    }
}

TEST(IngestEngine, ChaptersAreMarkedByNameInOneFolder) {
    TrackSource track;
    for (const char* name :
         {"/g/GX010045.MP4", "/g/GX020045.MP4", "/g/GX030045.MP4", "/g/GX010046.MP4",
          "/g/GX010047.MP4", "/g/GX030047.MP4", "/h/GX020046.MP4", "/g/C0001.MP4"}) {
        track.clips.emplace_back(name);
    }
    const auto out = IngestEngine::markChapters({track}).front();
    // Recording 46 has one chapter in each folder; 47 lacks its second one.
    EXPECT_EQ(recordings(out), (std::vector<int>{0, 0, 0, -1, 4, 4, -1, -1}));
    std::vector<int> chapters;
    for (const auto& c : out.clips) {
        chapters.push_back(c.chapterIndex);
    }
    EXPECT_EQ(chapters, (std::vector<int>{0, 1, 2, 0, 0, 2, 0, 0}));
    EXPECT_NE(out.clips[0].recordingKey, out.clips[4].recordingKey);
}

TEST(IngestEngine, ChaptersByClockAndSizeNeedBothSigns) {
    using enum ClockQuality;
    struct File {
        std::uintmax_t size = 1000;
        double start = 0;
        ClockQuality quality = filename;
    };
    // A take in three files of 10 s, then a lone file at the size limit; sizes in bytes.
    const std::vector<File> take = {{1000, 0}, {1000, 10}, {400, 20}, {1000, 500}};
    auto with = [&](std::size_t i, File f) {
        auto files = take;
        files[i] = f;
        return files;
    };
    const std::tuple<const char*, std::vector<File>, std::vector<int>> cases[] = {
        {"one take", take, {0, 0, 0, -1}},
        {"starts 1.0 s after the end", with(2, {400, 21}), {0, 0, 0, -1}},
        {"starts 1.1 s after the end", with(2, {400, 21.1}), {0, 0, -1, -1}},
        {"starts 1.0 s before the end", with(2, {400, 19}), {0, 0, 0, -1}},
        {"1 % below the limit", with(1, {990, 10}), {0, 0, 0, -1}},
        {"1.1 % below the limit", with(1, {989, 10}), {0, 0, -1, -1}},
        {"a container clock", with(2, {400, 20, asset}), {0, 0, -1, -1}},
        // One long take is only the largest file; a second file of its size makes it a limit.
        {"the largest file alone", {{1000, 0}, {400, 10}}, {-1, -1}},
        {"two files at the limit", {{1000, 0}, {400, 10}, {1000, 500}}, {0, 0, -1}},
    };
    for (const auto& [name, files, expected] : cases) {
        SCOPED_TRACE(name);
        TestSupport::TempDir dir;
        TrackSource track;
        for (std::size_t i = 0; i < files.size(); ++i) {
            ClipItem c(dir / ("C000" + std::to_string(i) + ".MP4"));
            TestSupport::writeText(c.url, "");
            fs::resize_file(c.url, files[i].size);
            c.duration = 10;
            c.recordingDate = kT + files[i].start;
            c.clockQuality = files[i].quality;
            track.clips.push_back(c);
        }
        const auto out = IngestEngine::markChapters({track}).front();
        EXPECT_EQ(recordings(out), expected);
        for (std::size_t ci = 0; ci < files.size(); ++ci) {
            const int first = expected[ci];
            EXPECT_EQ(out.clips[ci].chapterIndex, first < 0 ? 0 : static_cast<int>(ci) - first);
        }
    }
}
