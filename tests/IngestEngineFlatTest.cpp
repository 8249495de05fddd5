#include "TessarinEngine/IngestEngine.h"
#include "tests/R3DHeaderTestBytes.h"
#include "tests/support/TestSupport.h"

#include <chrono>
#include <gtest/gtest.h>
#include <thread>

namespace fs = std::filesystem;

namespace {

fs::path touch(const fs::path& file) {
    fs::create_directories(file.parent_path());
    TestSupport::writeText(file, "x");
    return file;
}

std::vector<std::string> clipNames(const TrackSource& t) {
    std::vector<std::string> out;
    for (const auto& c : t.clips) {
        out.push_back(c.url.filename().string());
    }
    return out;
}

} // namespace

TEST(IngestEngine, TrackNamesClimbGenericFolders) {
    const std::pair<const char*, const char*> cases[] = {
        {"/shoot/A_CAM/DCIM/100MEDIA", "A_CAM"},
        {"/shoot/A_CAM/DCIM/100MEDIA/", "A_CAM"},
        {"/shoot/Day 1/Media/Video/001", "Day 1"},
        {"/shoot/CARD 2/CLIPS001", "CARD 2"},
        {"/shoot/Interview/CLIPS", "CLIPS"},
        {"/shoot/CAM_B/PRIVATE/M4ROOT/CLIP", "CLIP"},
        {"/shoot/A001_0305XY.RDM", "A001_0305XY"},
        {"/shoot/b002.rdm", "b002"},
        {"/Footage", "Footage"},
        {"/shoot/Sound Roll 4", "Sound Roll 4"},
        {"/shoot/Zoom/take.wav", "take.wav"},
    };
    for (const auto& [hint, name] : cases) {
        SCOPED_TRACE(hint);
        EXPECT_EQ(IngestEngine::trackName(hint), name);
    }
    for (const char* generic : {"101gopro", "clip", "2024"}) {
        EXPECT_TRUE(IngestEngine::isGenericFolder(generic)) << generic;
    }
    for (const char* meaningful : {"A_CAM", "Day1", "1st unit", "CLIPS A", "Sound"}) {
        EXPECT_FALSE(IngestEngine::isGenericFolder(meaningful)) << meaningful;
    }
}

TEST(IngestEngine, UniqueNamesAreCutAndNumbered) {
    const std::string fifty(50, 'n');
    // "é" as e with a combining accent is one character of two code points.
    auto accented = [](int n) {
        std::string out;
        for (int i = 0; i < n; ++i) {
            out += "e\xCC\x81";
        }
        return out;
    };
    struct Case {
        std::string preferred;
        SourceType type;
        std::vector<std::string> existing;
        std::string expected;
    };
    const Case cases[] = {
        {"Downloads", SourceType::video, {}, "CLIP"},
        {"MEDIA", SourceType::audio, {}, "Mic"},
        {"Desktop", SourceType::video, {"CLIP"}, "CLIP 2"},
        {"Zoom", SourceType::audio, {"Zoom", "Zoom 2", "Zoom 4"}, "Zoom 3"},
        {fifty, SourceType::video, {}, std::string(40, 'n')},
        {fifty, SourceType::video, {std::string(40, 'n')}, std::string(40, 'n') + " 2"},
        {accented(45), SourceType::video, {}, accented(40)},
        {"A_CAM", SourceType::video, {"a_cam"}, "A_CAM"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.preferred);
        EXPECT_EQ(IngestEngine::uniqueName(c.preferred, c.type, c.existing), c.expected);
    }
}

TEST(IngestEngine, CommonAncestorIsCutPerComponent) {
    using V = std::vector<std::string>;
    EXPECT_EQ(IngestEngine::commonAncestorPath(V{}), "");
    EXPECT_EQ(IngestEngine::commonAncestorPath(V{"/a/b/c.wav"}), "/a/b");
    EXPECT_EQ(IngestEngine::commonAncestorPath(V{"/a/bc/x.wav", "/a/bd/y.wav"}), "/a");
    EXPECT_EQ(IngestEngine::commonAncestorPath(V{"/x/1.wav", "/y/2.wav"}), "/");
    EXPECT_EQ(IngestEngine::commonAncestorPath(V{"/A/1.wav", "/a/2.wav"}), "/");
    EXPECT_EQ(IngestEngine::commonAncestorPath(V{"/a/1.wav", "/a/1.wav"}), "/a/1.wav");
}

TEST(IngestEngine, ChronologicalOrderIsNaturalThenByCreation) {
    EXPECT_TRUE(IngestEngine::chronologicalOrder("/x/A2.mov", "/x/A10.mov"));
    EXPECT_FALSE(IngestEngine::chronologicalOrder("/x/A10.mov", "/x/A2.mov"));
    EXPECT_TRUE(IngestEngine::chronologicalOrder("/x/a2.mov", "/x/A3.mov"));
    EXPECT_TRUE(IngestEngine::chronologicalOrder("/z/A3.mov", "/a/b4.mov"));
    EXPECT_FALSE(IngestEngine::chronologicalOrder("/x/A.mov", "/y/A.mov"));

    // The same name in two folders: the file made first goes first, whatever the folders.
    TestSupport::TempDir dir;
    const auto older = touch(dir / "b" / "take.wav");
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const auto newer = touch(dir / "a" / "take.wav");
    EXPECT_TRUE(IngestEngine::chronologicalOrder(older, newer));
    EXPECT_FALSE(IngestEngine::chronologicalOrder(newer, older));
}

TEST(IngestEngine, PureDropsShareTheirParentAsSessionAndSortClipsNaturally) {
    TestSupport::TempDir dir;
    const auto cam = dir / "shoot" / "A_CAM";
    const auto sound = dir / "shoot" / "Sound";
    std::vector<IngestItem> items;
    for (const char* f : {"C10.MP4", "c3.mp4", "C2.MP4"}) {
        items.push_back({touch(cam / "DCIM" / "100MEDIA" / f), cam});
    }
    for (const char* f : {"T2.WAV", "T1.WAV", "notes.txt"}) {
        items.push_back({touch(sound / f), sound});
    }
    IngestEngine ingest;
    const auto tracks = ingest.ingestFlat(items, {});
    ASSERT_EQ(tracks.size(), 2u);
    EXPECT_EQ(tracks[0].name, "A_CAM");
    EXPECT_EQ(tracks[0].type, SourceType::video);
    EXPECT_EQ(clipNames(tracks[0]), (std::vector<std::string>{"C2.MP4", "c3.mp4", "C10.MP4"}));
    EXPECT_EQ(tracks[1].name, "Sound");
    EXPECT_EQ(tracks[1].type, SourceType::audio);
    EXPECT_EQ(clipNames(tracks[1]), (std::vector<std::string>{"notes.txt", "T1.WAV", "T2.WAV"}));
    for (const auto& t : tracks) {
        EXPECT_EQ(t.session, (dir / "shoot").string());
        EXPECT_FALSE(t.lockedGrouping);
    }
    EXPECT_TRUE(ingest.completeShootSessions.empty());
}

TEST(IngestEngine, MixedDropIsACompleteShootOfItsOwn) {
    TestSupport::TempDir dir;
    const auto day = dir / "Day1";
    const auto other = dir / "elsewhere" / "B_CAM";
    IngestEngine ingest;
    ingest.completeShootSessions = {"/earlier"};
    TrackSource earlier;
    earlier.name = "Old";
    earlier.session = "/earlier";
    earlier.clips = {ClipItem(dir / "old" / "x.mov")};
    TrackSource pending;
    pending.name = "Pending";
    pending.session = "/whatever";
    pending.clips = {ClipItem(dir / "elsewhere" / "P.wav")};

    const std::vector<IngestItem> items = {
        {touch(day / "cam.mov"), day},
        {touch(day / "rec.wav"), day},
        {touch(other / "B1.mov"), other},
        // Already on a track: not added again, and its group makes no track.
        {dir / "elsewhere" / "P.wav", dir / "elsewhere"},
    };
    const auto tracks = ingest.ingestFlat(items, {earlier, pending});
    ASSERT_EQ(tracks.size(), 4u);
    EXPECT_EQ(tracks[0].session, "/earlier");
    EXPECT_EQ(tracks[1].session, (dir / "elsewhere").string());
    EXPECT_EQ(tracks[2].name, "Day1");
    EXPECT_EQ(tracks[2].type, SourceType::video);
    EXPECT_EQ(tracks[2].clips.size(), 2u);
    EXPECT_EQ(tracks[2].session, day.string());
    EXPECT_EQ(tracks[3].name, "B_CAM");
    EXPECT_EQ(tracks[3].session, (dir / "elsewhere").string());
    EXPECT_EQ(ingest.completeShootSessions, (std::set<std::string>{"/earlier", day.string()}));

    EXPECT_EQ(ingest.ingestFlat({}, tracks), tracks);
}

TEST(IngestEngine, ForbiddenAndDuplicateFolderNames) {
    TestSupport::TempDir dir;
    const std::vector<IngestItem> items = {
        {touch(dir / "1" / "Downloads" / "a.mov"), dir / "1" / "Downloads"},
        {touch(dir / "2" / "Downloads" / "b.mov"), dir / "2" / "Downloads"},
        {touch(dir / "3" / "Downloads" / "c.wav"), dir / "3" / "Downloads"},
        {touch(dir / "4" / "Cam" / "d.mov"), dir / "4" / "Cam"},
        {touch(dir / "5" / "Cam" / "e.mov"), dir / "5" / "Cam"},
    };
    const auto tracks = IngestEngine{}.ingestFlat(items, {});
    std::vector<std::string> names;
    for (const auto& t : tracks) {
        names.push_back(t.name);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"CLIP", "CLIP 2", "Mic", "Cam", "Cam 2"}));
}

TEST(IngestEngine, NamesThatAreNoTextAreSkippedWithALine) {
    TestSupport::TempDir dir;
    const auto bad = touch(dir / "card" / "bad\xff.wav");
    const auto good = touch(dir / "card" / "good.wav");
    TestSupport::LogCapture log;
    const auto tracks = IngestEngine{}.ingestFlat({{bad, dir / "card"}, {good, dir / "card"}}, {});
    ASSERT_EQ(tracks.size(), 1u);
    EXPECT_EQ(clipNames(tracks[0]), std::vector<std::string>{"good.wav"});
    EXPECT_TRUE(log.contains("[Ingest] skipped a file whose name is not valid UTF-8: "));
    EXPECT_TRUE(log.contains("bad\xEF\xBF\xBD.wav"));
}

TEST(IngestEngine, REDTakeOfTwoChunksBecomesOneClipCarriedByItsWAV) {
    using namespace R3DTestBytes;
    TestSupport::TempDir dir;
    const auto reel = dir / "A001_0305XY.RDM";
    const auto take1 = reel / "A001_C001_0305XY.RDC";
    const auto take2 = reel / "A001_C002_0305XY.RDC";
    const auto take3 = reel / "A001_C003_0305XY.RDC";
    for (const auto& take : {take1, take2, take3}) {
        fs::create_directories(take);
    }
    auto first = header({real(102, 25.0f), text(173, "01:00:00:00"), text(174, "10:00:00:12"),
                         text(196, "A001_C001_0305XY.wav")},
                        Rdi{6144, 3240, 1000, 25000});
    first.resize(5000, 0);
    write(take1 / "A001_C001_0305XY_001.R3D", first);
    write(take1 / "A001_C001_0305XY_002.R3D", std::vector<std::uint8_t>(5000, 0));
    touch(take1 / "A001_C001_0305XY.wav");
    // The next take starts 200 edge frames later; it has no sound file of its own.
    write(take2 / "A001_C002_0305XY_001.R3D",
          header({text(160, "V-RAPTOR"), text(173, "01:00:08:08")}));
    // A take on the card that was not dropped still gives its neighbour a length.
    write(take3 / "A001_C003_0305XY_001.R3D",
          header({text(160, "V-RAPTOR"), text(173, "01:00:09:08")}));

    const std::vector<IngestItem> items = {
        {take1 / "A001_C001_0305XY_001.R3D", dir.path()},
        {take1 / "A001_C001_0305XY_002.R3D", dir.path()},
        {take2 / "A001_C002_0305XY_001.R3D", dir.path()},
    };
    TestSupport::LogCapture log;
    const auto tracks = IngestEngine{}.ingestFlat(items, {});
    ASSERT_EQ(tracks.size(), 1u);
    const auto& t = tracks[0];
    EXPECT_EQ(t.name, "A001_0305XY");
    EXPECT_EQ(t.type, SourceType::video);
    EXPECT_TRUE(t.lockedGrouping);
    ASSERT_EQ(t.clips.size(), 2u);
    const auto& c = t.clips[0];
    EXPECT_EQ(c.url, take1 / "A001_C001_0305XY.wav");
    EXPECT_EQ(c.pictureURL, take1 / "A001_C001_0305XY_001.R3D");
    EXPECT_EQ(c.pictureFrames, 200);
    EXPECT_EQ(c.recordFrameRate, 25.0f);
    EXPECT_EQ(c.conformFrameRate, 25.0f);
    EXPECT_DOUBLE_EQ(*c.pictureTimecode, 36000.0 + 12.0 / 25.0);
    EXPECT_EQ(c.pixelWidth, 6144);
    EXPECT_EQ(c.pixelHeight, 3240);
    // Without a WAV the picture carries the clip, and none of the picture fields are set.
    EXPECT_EQ(t.clips[1].url, take2 / "A001_C002_0305XY_001.R3D");
    EXPECT_FALSE(t.clips[1].pictureURL);
    EXPECT_FALSE(t.clips[1].pixelWidth);
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{
                  "[Ingest] RED: 3 chunk(s) → 2 take(s), 2 with a known picture length"});
}
