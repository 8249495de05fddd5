#include "TessarinEngine/REDCard.h"

#include "tests/R3DHeaderTestBytes.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

namespace fs = std::filesystem;
using namespace R3DTestBytes;

namespace {

void writeZeros(const fs::path& file, std::size_t count) {
    write(file, std::vector<std::uint8_t>(count, 0));
}

// A take folder with `chunks` chunks of 1000 bytes, the first holding a header with the `edge`
// timecode and the sidecar's name, and the named WAVs.
fs::path makeTake(const fs::path& folder, const std::string& edge = "01:00:00:00", int chunks = 1,
                  const std::vector<std::string>& wavs = {}, const std::string& sidecarName = "") {
    fs::create_directories(folder);
    const std::string stem = folder.stem().string();
    // An empty name reads as none.
    auto first = header({real(102, 25.0f), text(173, edge), text(196, sidecarName)});
    first.resize(1000, 0);
    write(folder / (stem + "_001.R3D"), first);
    for (int i = 2; i <= chunks; ++i) {
        writeZeros(folder / (stem + "_00" + std::to_string(i) + ".R3D"), 1000);
    }
    for (const auto& w : wavs) {
        writeZeros(folder / w, 10);
    }
    return folder;
}

REDCard::Take takeWith(std::optional<std::string> edge, std::int64_t bytes) {
    REDCard::Take t;
    t.byteCount = bytes;
    if (edge) {
        t.header = R3DHeader::Metadata{};
        t.header->edgeTimecode = edge;
    }
    return t;
}

} // namespace

TEST(REDCard, TimecodeTexts) {
    EXPECT_EQ(REDCard::edgeFrames("01:00:00:12"), 86412);
    EXPECT_EQ(REDCard::timecodeSeconds("00:01:02:15", 30.0), 62.5);
    for (const char* bad :
         {"", "01:00:00", "01:00:00:00:00", "01:00:0a:00", "01::00:00", "-1:00:00:00"}) {
        SCOPED_TRACE(bad);
        EXPECT_FALSE(REDCard::edgeFrames(bad));
        EXPECT_FALSE(REDCard::timecodeSeconds(bad, 24.0));
    }
    EXPECT_FALSE(REDCard::timecodeSeconds("01:00:00:12", 0.0));
}

TEST(REDCard, TakeFolderNeedsItsExtensionAndAChunk) {
    TestSupport::TempDir dir;
    makeTake(dir / "lower.rdc");
    makeTake(dir / "A001_C002");
    fs::create_directories(dir / "Empty.RDC");
    writeZeros(dir / "Empty.RDC" / "Empty.wav", 10);
    // Shadow files of other systems are not chunks.
    fs::create_directories(dir / "Shadow.RDC");
    writeZeros(dir / "Shadow.RDC" / "._Shadow_001.R3D", 10);

    EXPECT_TRUE(REDCard::isTakeFolder(dir / "lower.rdc"));
    for (const char* name : {"A001_C002", "Empty.RDC", "Shadow.RDC"}) {
        SCOPED_TRACE(name);
        EXPECT_FALSE(REDCard::isTakeFolder(dir / name));
    }
    EXPECT_FALSE(REDCard::take(dir / "Empty.RDC"));
    EXPECT_FALSE(REDCard::take(dir / "Missing.RDC"));
}

TEST(REDCard, TakeCountsChunksAndFindsItsSidecar) {
    TestSupport::TempDir dir;
    const auto folder = makeTake(dir / "A001_C001_0101AB.RDC", "01:00:00:00", 3);
    const auto take = REDCard::take(folder);
    ASSERT_TRUE(take);
    EXPECT_EQ(take->picture, folder / "A001_C001_0101AB_001.R3D");
    EXPECT_EQ(take->chunkCount, 3);
    EXPECT_EQ(take->byteCount, 3000);
    ASSERT_TRUE(take->header);
    EXPECT_EQ(take->header->edgeTimecode, "01:00:00:00");
    EXPECT_FALSE(take->wav);

    struct Case {
        const char* name;
        std::vector<std::string> wavs;
        std::string named;
        std::optional<std::string> expected;
    };
    const Case cases[] = {
        {"named by the header, any case", {"A.wav", "sound_x.WAV"}, "SOUND_X.wav", "sound_x.WAV"},
        {"named but missing: stem rule", {"T_0101AB.wav", "other.wav"}, "gone.wav", "T_0101AB.wav"},
        {"stem without chunk number, any case", {"x.wav", "t_0101ab.WAV"}, "", "t_0101ab.WAV"},
        {"two WAVs, neither matching", {"a.wav", "b.wav"}, "", std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TestSupport::TempDir d;
        const auto f = makeTake(d / "T_0101AB.RDC", "01:00:00:00", 1, c.wavs, c.named);
        const auto t = REDCard::take(f);
        ASSERT_TRUE(t);
        EXPECT_EQ(t->wav, c.expected ? std::optional(f / *c.expected) : std::nullopt);
    }
}

TEST(REDCard, PictureLengthsFromEdgeTimecodesAndBytes) {
    // Edges that run backwards give no length; such a take, and the last, are sized from their
    // bytes. Known lengths 100, 48 and 100 frames give 10, 20 and 30 bytes per frame: the median
    // is 20.
    auto takes = REDCard::withPictureLengths(
        {takeWith("00:00:00:00", 1000), takeWith("00:00:04:04", 3000), takeWith("00:00:02:00", 960),
         takeWith("00:00:04:00", 3000), takeWith("00:00:08:04", 1500), takeWith("bad", 999),
         takeWith(std::nullopt, 1)});
    const std::optional<int> expected[] = {100, 150, 48, 100, 75, 50, std::nullopt};
    for (std::size_t i = 0; i < takes.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(takes[i].pictureFrames, expected[i]);
    }
    // One take alone has no length to learn bytes per frame from.
    EXPECT_FALSE(REDCard::withPictureLengths({takeWith("01:00:00:00", 1000)})[0].pictureFrames);
}

TEST(REDCard, CardsAreTheFoldersHoldingTakes) {
    TestSupport::TempDir dir;
    const auto reelA = dir / "Day1" / "A001_0101AB.RDM";
    const auto reelB = dir / "Day1" / "nested" / "B001_0101CD.RDM";
    makeTake(reelA / "A001_C002_0101AB.RDC", "01:00:04:04", 2);
    makeTake(reelA / "A001_C001_0101AB.RDC");
    makeTake(reelB / "B001_C001_0101CD.RDC");
    // Take folders are not searched for further takes.
    makeTake(reelA / "A001_C001_0101AB.RDC" / "inner.RDC");

    const auto cards = REDCard::cards(dir.path());
    ASSERT_EQ(cards.size(), 2u);
    EXPECT_EQ(cards[0].root, reelA);
    EXPECT_EQ(cards[1].root, reelB);
    ASSERT_EQ(cards[0].takes.size(), 2u);
    EXPECT_EQ(cards[0].takes[0].folder, reelA / "A001_C001_0101AB.RDC");
    // 2000 bytes at the first take's 10 bytes per frame (100 frames to the next edge).
    EXPECT_EQ(cards[0].takes[1].pictureFrames, 200);
    EXPECT_EQ(cards[1].takes.size(), 1u);
    EXPECT_TRUE(REDCard::cards(dir / "missing").empty());
}
