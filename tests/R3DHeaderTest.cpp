#include "TessarinEngine/R3DHeader.h"

#include "tests/R3DHeaderTestBytes.h"
#include "tests/support/TestSupport.h"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <sys/stat.h>

using namespace R3DTestBytes;

TEST(R3DHeader, ReadsEveryFieldOfAFullHeader) {
    const auto bytes = header({
        real(102, 23.976f),
        text(196, "A001_C003_0101XY.wav"),
        text(173, "01:00:10:00"),
        text(174, "14:22:31:05"),
        text(160, "V-RAPTOR"),
        text(161, "8K VV"),
        text(50, "130-AB1-22"),
        text(6, "MEDIA-77"),
        text(26, "_0101XY"),
        text(25, "A001"),
        text(27, "003"),
        text(37, "1.4.2"),
        be32Rec(96, 191, 48000),
        text(86, "A001_C003_0101XY_001.R3D"),
    });
    const auto m = R3DHeader::read(std::span<const std::uint8_t>(bytes));
    ASSERT_TRUE(m);
    EXPECT_DOUBLE_EQ(*m->recordFrameRate, double(23.976f));
    EXPECT_DOUBLE_EQ(*m->timeBase, 24000.0 / 1001.0);
    EXPECT_EQ(m->width, 4096);
    EXPECT_EQ(m->height, 2160);
    EXPECT_EQ(m->sidecarWAV, "A001_C003_0101XY.wav");
    EXPECT_EQ(m->edgeTimecode, "01:00:10:00");
    EXPECT_EQ(m->todTimecode, "14:22:31:05");
    EXPECT_EQ(m->model, "V-RAPTOR");
    EXPECT_EQ(m->sensor, "8K VV");
    EXPECT_EQ(m->bodySerial, "130-AB1-22");
    EXPECT_EQ(m->mediaSerial, "MEDIA-77");
    EXPECT_EQ(m->reel, "A001_0101XY");
    EXPECT_EQ(m->clipNumber, "003");
    EXPECT_EQ(m->firmware, "1.4.2");
    EXPECT_EQ(m->audioSampleRate, 48000);
    EXPECT_EQ(m->ownFilename, "A001_C003_0101XY_001.R3D");
}

TEST(R3DHeader, LaterRecordsOverwriteAndUnusableRecordsClear) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    struct Case {
        const char* name;
        std::vector<Rec> records;
        R3DHeader::Metadata expected;
    };
    R3DHeader::Metadata base;
    base.model = "KOMODO";
    base.timeBase = 24000.0 / 1001.0;
    base.width = 4096;
    base.height = 2160;
    auto with = [&](auto change) {
        auto m = base;
        change(m);
        return m;
    };
    const Case cases[] = {
        {"later text wins", {text(160, "X"), text(160, "KOMODO")}, base},
        {"empty text clears", {text(160, "KOMODO"), text(173, "01:00:00:00"), text(173, "")}, base},
        {"text of the wrong type clears",
         {text(160, "KOMODO"), text(174, "10:00:00:00"), be32Rec(96, 174, 7)},
         base},
        {"text without NUL runs to the end of the payload",
         {text(160, "KOMODO"), text(161, "S35", false)},
         with([](auto& m) { m.sensor = "S35"; })},
        {"text stops at the first NUL", {text(160, std::string("KOMODO\0junk", 11))}, base},
        {"bad UTF-8 is repaired",
         {text(160, "KOMODO"), text(37, "v\xff"
                                        "1")},
         with([](auto& m) {
             m.firmware = "v\xEF\xBF\xBD"
                          "1";
         })},
        {"rate of the wrong type clears",
         {text(160, "KOMODO"), real(102, 25), real(102, 25, 96)},
         base},
        {"not-a-number rate clears", {text(160, "KOMODO"), real(102, 25), real(102, nan)}, base},
        {"short rate payload clears",
         {text(160, "KOMODO"), real(102, 25), Rec{32, 102, {0x41, 0xc8}}},
         base},
        {"sample rate of type 80",
         {text(160, "KOMODO"), be32Rec(80, 191, 96000)},
         with([](auto& m) { m.audioSampleRate = 96000; })},
        {"sample rate of a text type clears",
         {text(160, "KOMODO"), be32Rec(96, 191, 48000), text(191, "48000")},
         base},
        {"reel from tag 25 alone", {text(160, "KOMODO"), text(25, "B002")}, with([](auto& m) {
             m.reel = "B002";
         })},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto bytes = header(c.records);
        const auto m = R3DHeader::read(std::span<const std::uint8_t>(bytes));
        ASSERT_TRUE(m);
        EXPECT_EQ(*m, c.expected);
    }
}

TEST(R3DHeader, FrameBlockFieldsStandOrFallAlone) {
    struct Case {
        const char* name;
        Rdi rdi;
        std::optional<double> timeBase;
        std::optional<int> width;
    };
    const Case cases[] = {
        {"25 fps over 1000", {1920, 1080, 1000, 25000}, 25.0, 1920},
        {"denominator 1002", {1920, 1080, 1002, 25000}, std::nullopt, 1920},
        {"time base 500 is out", {1920, 1080, 1000, 500000}, std::nullopt, 1920},
        {"time base 1 is out", {1920, 1080, 1000, 1000}, std::nullopt, 1920},
        {"width 127", {127, 1080, 1000, 25000}, 25.0, std::nullopt},
        {"height 20001", {1920, 20001, 1000, 25000}, 25.0, std::nullopt},
        {"limits 128 and 20000", {128, 20000, 1000, 25000}, 25.0, 128},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto bytes = header({text(160, "DSMC2")}, c.rdi);
        const auto m = R3DHeader::read(std::span<const std::uint8_t>(bytes));
        ASSERT_TRUE(m);
        EXPECT_EQ(m->model, "DSMC2");
        EXPECT_EQ(m->timeBase, c.timeBase);
        EXPECT_EQ(m->width, c.width);
        EXPECT_EQ(m->height.has_value(), c.width.has_value());
    }
}

TEST(R3DHeader, GivesNothingWithoutSignatureChainOrKeyField) {
    auto good = header({text(160, "KOMODO")});
    auto shortFile = good;
    shortFile.resize(128);
    auto badSignature = good;
    badSignature[7] = '3';
    // Seven records may line up by chance in any data; they are no chain.
    const auto sevenRecords = header({text(160, "KOMODO")}, Rdi{}, 7);
    const auto noChain = header({}, Rdi{}, 0);
    const auto onlyOtherFields = header({text(161, "S35"), text(50, "SERIAL")});
    auto chainAfter512 = header({text(160, "KOMODO")}, Rdi{}, 8, 520);
    // Eight records of which the last runs past the end of the data: seven remain.
    auto truncated = header({text(160, "KOMODO")}, Rdi{}, 8, 128, 128 + 11 + 28);
    truncated.resize(truncated.size() - 2);
    const std::pair<const char*, const std::vector<std::uint8_t>*> cases[] = {
        {"128 bytes", &shortFile},
        {"signature", &badSignature},
        {"seven records", &sevenRecords},
        {"frame block only", &noChain},
        {"no key field", &onlyOtherFields},
        {"chain starting after 512", &chainAfter512},
        {"chain cut by end of data", &truncated},
    };
    ASSERT_TRUE(R3DHeader::read(std::span<const std::uint8_t>(good)));
    ASSERT_TRUE(R3DHeader::read(std::span<const std::uint8_t>(header({text(160, "K")}, Rdi{}, 8))));
    for (const auto& [name, bytes] : cases) {
        SCOPED_TRACE(name);
        EXPECT_FALSE(R3DHeader::read(std::span<const std::uint8_t>(*bytes)));
    }
}

TEST(R3DHeader, LongestChainWinsAndOnlyFirst16KBCount) {
    // A short decoy chain at 64 ends in a zero length; the real one starts at 300.
    auto bytes = header({text(160, "RAPTOR")}, Rdi{}, 8, 300);
    const auto decoy = header({text(160, "DECOY"), filler()}, Rdi{}, 2, 64, 300);
    std::copy(decoy.begin() + 64, decoy.begin() + 80, bytes.begin() + 64);
    auto m = R3DHeader::read(std::span<const std::uint8_t>(bytes));
    ASSERT_TRUE(m);
    EXPECT_EQ(m->model, "RAPTOR");

    // A record that only fits when the file is read past 16 KB breaks the chain there.
    std::vector<Rec> records(7, filler());
    records.push_back(text(160, std::string(16384, 'x')));
    bytes = header(records, Rdi{}, 0);
    EXPECT_GT(bytes.size(), R3DHeader::kHeaderBytes);
    EXPECT_FALSE(R3DHeader::read(std::span<const std::uint8_t>(bytes)));
}

TEST(R3DHeader, ReadsFilesAndRefusesWhatIsNoRegularFile) {
    TestSupport::TempDir dir;
    write(dir / "A.R3D", header({real(102, 25.0f)}));
    const auto m = R3DHeader::read(dir / "A.R3D");
    ASSERT_TRUE(m);
    EXPECT_EQ(m->recordFrameRate, 25.0);

    // A FIFO would block an open for reading until a writer comes; it must be refused at once.
    ASSERT_EQ(::mkfifo((dir / "B.R3D").c_str(), 0600), 0);
    EXPECT_FALSE(R3DHeader::read(dir / "B.R3D"));
    EXPECT_FALSE(R3DHeader::read(dir / "missing.R3D"));
}
