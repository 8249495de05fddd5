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
        {"/shoot/A_CAM/DCIM/100MEDIA/", "A_CAM"},
        // A clip folder takes its card's name, but names itself inside any other folder.
        {"/shoot/CARD 2/CLIPS001", "CARD 2"},
        {"/shoot/Interview/CLIPS", "CLIPS"},
        {"/shoot/CLIPS A", "CLIPS A"},
        {"/shoot/b002.rdm", "b002"},
        {"/Footage", "Footage"},
        {"/shoot/Zoom/take.wav", "take.wav"},
    };
    for (const auto& [hint, name] : cases) {
        EXPECT_EQ(IngestEngine::trackName(hint), name) << hint;
    }
}

TEST(IngestEngine, UniqueNamesAreCutAndNumbered) {
    // "é" as e with a combining accent is one character of two code points.
    std::string accented45;
    for (int i = 0; i < 45; ++i) {
        accented45 += "e\xCC\x81";
    }
    const std::string forty(40, 'n');
    using V = std::vector<std::string>;
    EXPECT_EQ(IngestEngine::uniqueName("MEDIA", SourceType::audio, {}), "Mic");
    EXPECT_EQ(IngestEngine::uniqueName("Desktop", SourceType::video, V{"CLIP"}), "CLIP 2");
    EXPECT_EQ(IngestEngine::uniqueName("Zoom", SourceType::audio, V{"Zoom", "Zoom 2", "Zoom 4"}),
              "Zoom 3");
    EXPECT_EQ(IngestEngine::uniqueName(forty + "nnnnn", SourceType::video, V{forty}), forty + " 2");
    EXPECT_EQ(IngestEngine::uniqueName(accented45, SourceType::video, {}),
              accented45.substr(0, 40 * 3));
}

TEST(IngestEngine, CommonAncestorIsCutPerComponent) {
    using V = std::vector<std::string>;
    EXPECT_EQ(IngestEngine::commonAncestorPath(V{}), "");
    EXPECT_EQ(IngestEngine::commonAncestorPath(V{"/a/bc/x.wav", "/a/bd/y.wav"}), "/a");
    EXPECT_EQ(IngestEngine::commonAncestorPath(V{"/x/1.wav", "/y/2.wav"}), "/");
    EXPECT_EQ(IngestEngine::commonAncestorPath(V{"/a/1.wav", "/a/1.wav"}), "/a/1.wav");
}

TEST(IngestEngine, ChronologicalOrderIsNaturalThenByCreation) {
    // Natural order of names first, whatever the folders.
    EXPECT_TRUE(IngestEngine::chronologicalOrder("/z/A3.mov", "/a/b4.mov"));
    // The same name in two folders: the file made first goes first, whatever the folders.
    TestSupport::TempDir dir;
    const auto older = touch(dir / "b" / "take.wav");
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const auto newer = touch(dir / "a" / "take.wav");
    EXPECT_TRUE(IngestEngine::chronologicalOrder(older, newer));
    EXPECT_FALSE(IngestEngine::chronologicalOrder(newer, older));
}

TEST(IngestEngine, FlatDropsBecomeNamedTracksAndSessions) {
    TestSupport::TempDir dir;
    const auto cam = dir / "shoot" / "A_CAM";
    const auto sound = dir / "shoot" / "Sound";
    const auto day = dir / "Day1";
    std::vector<IngestItem> items;
    for (const char* f : {"C10.MP4", "c3.mp4", "C2.MP4"}) {
        items.push_back({touch(cam / "DCIM" / "100MEDIA" / f), cam});
    }
    // A name that is no text is left out with a log line.
    for (const char* f : {"T2.WAV", "T1.WAV", "notes.txt", "bad\xff.wav"}) {
        items.push_back({touch(sound / f), sound});
    }
    // Cameras and recorders in one drop make it a complete shoot of its own.
    items.push_back({touch(day / "cam.mov"), day});
    items.push_back({touch(day / "rec.wav"), day});
    // Already on a track: not added again, and its group makes no track.
    items.push_back({dir / "elsewhere" / "P.wav", dir / "elsewhere"});
    TrackSource earlier, pending;
    earlier.name = "Sound";
    earlier.session = "/earlier";
    earlier.clips = {ClipItem("/earlier/x.wav")};
    pending.session = "/whatever";
    pending.clips = {ClipItem(dir / "elsewhere" / "P.wav")};
    IngestEngine ingest;
    ingest.completeShootSessions = {"/earlier"};

    TestSupport::LogCapture log;
    const auto tracks = ingest.ingestFlat(items, {earlier, pending});
    EXPECT_EQ(log.lines(), std::vector<std::string>{"[Ingest] skipped a file whose name is not "
                                                    "valid UTF-8: " +
                                                    (sound / "bad\xEF\xBF\xBD.wav").string()});
    ASSERT_EQ(tracks.size(), 5u);
    // Tracks outside complete shoots share the folder common to all their files.
    const std::string shared = dir.path().string();
    EXPECT_EQ(tracks[0].session, "/earlier");
    EXPECT_EQ(tracks[1].session, shared);
    EXPECT_EQ(tracks[2].name, "A_CAM");
    EXPECT_EQ(clipNames(tracks[2]), (std::vector<std::string>{"C2.MP4", "c3.mp4", "C10.MP4"}));
    EXPECT_EQ(tracks[3].name, "Sound 2");
    EXPECT_EQ(tracks[3].type, SourceType::audio);
    EXPECT_EQ(clipNames(tracks[3]), (std::vector<std::string>{"notes.txt", "T1.WAV", "T2.WAV"}));
    EXPECT_EQ(tracks[4].name, "Day1");
    EXPECT_EQ(tracks[4].type, SourceType::video);
    EXPECT_EQ(tracks[4].session, day.string());
    EXPECT_EQ(ingest.completeShootSessions, (std::set<std::string>{"/earlier", day.string()}));
    EXPECT_EQ(ingest.ingestFlat({}, tracks), tracks);
}

TEST(IngestEngine, REDTakeOfTwoChunksBecomesOneClipCarriedByItsWAV) {
    using namespace R3DTestBytes;
    TestSupport::TempDir dir;
    const auto reel = dir / "A001_0305XY.RDM";
    const auto take1 = reel / "A001_C001_0305XY.RDC";
    const auto take2 = reel / "A001_C002_0305XY.RDC";
    const auto take3 = reel / "A001_C003_0305XY.RDC";
    fs::create_directories(take1);
    fs::create_directories(take2);
    fs::create_directories(take3);
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
    const auto tracks = IngestEngine{}.ingestFlat(items, {});
    ASSERT_EQ(tracks.size(), 1u);
    const auto& t = tracks[0];
    EXPECT_EQ(t.name, "A001_0305XY");
    EXPECT_TRUE(t.lockedGrouping);
    ASSERT_EQ(t.clips.size(), 2u);
    const auto& c = t.clips[0];
    EXPECT_EQ(c.url, take1 / "A001_C001_0305XY.wav");
    EXPECT_EQ(c.pictureURL, take1 / "A001_C001_0305XY_001.R3D");
    EXPECT_EQ(c.pictureFrames, 200);
    EXPECT_DOUBLE_EQ(*c.pictureTimecode, 36000.0 + 12.0 / 25.0);
    // Without a WAV the picture carries the clip, and none of the picture fields are set.
    EXPECT_EQ(t.clips[1].url, take2 / "A001_C002_0305XY_001.R3D");
    EXPECT_FALSE(t.clips[1].pictureURL);
}
