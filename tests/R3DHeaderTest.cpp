#include "TessarinEngine/R3DHeader.h"

#include "tests/R3DHeaderTestBytes.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>
#include <limits>
#include <sys/stat.h>

using namespace R3DTestBytes;

namespace {

std::optional<R3DHeader::Metadata> readBytes(const std::vector<std::uint8_t>& bytes) {
    return R3DHeader::read(std::span<const std::uint8_t>(bytes));
}

} // namespace

TEST(R3DHeader, ReadsEveryFieldOfAFullHeader) {
    using M = R3DHeader::Metadata;
    const std::tuple<std::uint8_t, std::optional<std::string> M::*, const char*> texts[] = {
        {196, &M::sidecarWAV, "A001_C003_0101XY.wav"},
        {173, &M::edgeTimecode, "01:00:10:00"},
        {174, &M::todTimecode, "14:22:31:05"},
        {160, &M::model, "V-RAPTOR"},
    };
    // The reel's two halves come in either order.
    std::vector<Rec> records = {real(102, 23.976f), text(26, "_0101XY"), text(25, "A001"),
                                be32Rec(96, 191, 48000)};
    for (const auto& [tag, field, value] : texts) {
        records.push_back(text(tag, value));
    }
    const auto m = readBytes(header(records));
    ASSERT_TRUE(m);
    for (const auto& [tag, field, value] : texts) {
        SCOPED_TRACE(int(tag));
        EXPECT_EQ((*m).*field, value);
    }
    EXPECT_EQ(m->reel, "A001_0101XY");
    EXPECT_EQ(m->recordFrameRate, double(23.976f));
    EXPECT_DOUBLE_EQ(m->timeBase.value_or(0), 24000.0 / 1001.0);
    EXPECT_EQ(m->width, 4096);
    EXPECT_EQ(m->height, 2160);
    EXPECT_EQ(m->audioSampleRate, 48000);
}

TEST(R3DHeader, RecordsOfTheWrongFormClearWhatEarlierOnesSet) {
    const auto base = readBytes(header({text(160, "KOMODO")}));
    ASSERT_TRUE(base);
    const std::pair<const char*, std::vector<Rec>> cases[] = {
        {"empty text", {text(173, "01:00:00:00"), text(173, "")}},
        {"text of the wrong type", {text(174, "10:00:00:00"), be32Rec(96, 174, 7)}},
        {"rate of the wrong type", {real(102, 25), real(102, 25, 96)}},
        {"not-a-number rate", {real(102, 25), real(102, std::numeric_limits<float>::quiet_NaN())}},
    };
    for (auto [name, records] : cases) {
        SCOPED_TRACE(name);
        records.push_back(text(160, "KOMODO"));
        EXPECT_TRUE(readBytes(header(records)) == base);
    }

    auto read = [](Rec r) {
        return *readBytes(header({text(160, "KOMODO"), r}));
    };
    EXPECT_EQ(read(text(161, std::string("S35\0junk", 8))).sensor, "S35");
    EXPECT_EQ(read(text(37, "1.4\xff")).firmware, "1.4\xEF\xBF\xBD");
    // With one half of the reel name, that half is the reel.
    EXPECT_EQ(read(text(25, "B002")).reel, "B002");
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
        {"width 127", {127, 1080, 1000, 25000}, 25.0, std::nullopt},
        {"limits 128 and 20000", {128, 20000, 1000, 25000}, 25.0, 128},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto m = readBytes(header({text(160, "DSMC2")}, c.rdi));
        ASSERT_TRUE(m);
        EXPECT_EQ(m->timeBase, c.timeBase);
        EXPECT_EQ(m->width, c.width);
        EXPECT_EQ(m->height.has_value(), c.width.has_value());
    }
}

TEST(R3DHeader, GivesNothingWithoutSignatureChainOrKeyField) {
    auto good = header({text(160, "KOMODO")});
    ASSERT_TRUE(readBytes(good));
    ASSERT_TRUE(readBytes(header({text(160, "KOMODO")}, Rdi{}, 8, 511)));
    auto badSignature = good;
    badSignature[7] = '3';
    // Eight records of which the last runs past the end of the data: seven remain.
    auto truncated = header({text(160, "KOMODO")});
    truncated.resize(128 + 11 + 7 * 4 - 2);
    const std::pair<const char*, std::vector<std::uint8_t>> cases[] = {
        {"128 bytes", {good.begin(), good.begin() + 128}},
        {"signature", badSignature},
        // Seven records may line up by chance in any data; they are no chain.
        {"seven records", header({text(160, "KOMODO")}, Rdi{}, 7)},
        {"no key field", header({text(161, "S35"), text(50, "SERIAL")})},
        {"chain starting at 512", header({text(160, "KOMODO")}, Rdi{}, 8, 512)},
        {"chain cut by end of data", truncated},
    };
    for (const auto& [name, bytes] : cases) {
        SCOPED_TRACE(name);
        EXPECT_FALSE(readBytes(bytes));
    }
}

TEST(R3DHeader, LongestChainWinsAndOnlyFirst16KBCount) {
    // A short decoy chain at 64 ends in a zero length; the real one starts at 300.
    auto bytes = header({text(160, "RAPTOR")}, Rdi{}, 8, 300);
    const auto decoy = header({text(160, "DECOY"), Rec{}}, Rdi{}, 2, 64);
    std::copy(decoy.begin() + 64, decoy.begin() + 80, bytes.begin() + 64);
    auto m = readBytes(bytes);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->model, "RAPTOR");

    // A record that only fits when the file is read past 16 KB breaks the chain there.
    std::vector<Rec> records(7, Rec{});
    records.push_back(text(160, std::string(16384, 'x')));
    bytes = header(records, Rdi{}, 0);
    EXPECT_GT(bytes.size(), R3DHeader::kHeaderBytes);
    EXPECT_FALSE(readBytes(bytes));
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
