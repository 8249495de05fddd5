#include "TessarinEngine/platform/Riff.h"

#include "tests/support/RiffWriter.h"

#include <gtest/gtest.h>

namespace {

using RiffWriter::Chunk;

std::vector<std::string> chunkIds(const RiffWriter::Bytes& bytes) {
    std::vector<std::string> ids;
    Riff::forEachChunk(bytes, [&](const Riff::Chunk& c) {
        ids.push_back(c.id);
        return true;
    });
    return ids;
}

TEST(Riff, WalksOddSizedChunksWithTheirPadding) {
    // Odd sizes 3 and 5 each carry a pad byte; reading without it would land mid-chunk.
    const auto bytes =
        RiffWriter::wave({RiffWriter::text("JUNK", "abc"), RiffWriter::text("LIST", "12345"),
                          RiffWriter::text("iXML", "<BWFXML/>")});
    EXPECT_EQ(chunkIds(bytes), (std::vector<std::string>{"JUNK", "LIST", "iXML"}));
    auto ixml = Riff::findChunk(bytes, "iXML");
    ASSERT_TRUE(ixml);
    EXPECT_EQ(ixml->offset, 12u + (8 + 4) + (8 + 6));
    EXPECT_EQ(std::string(ixml->content.begin(), ixml->content.end()), "<BWFXML/>");
}

TEST(Riff, ChunkClaimingMoreThanTheFileKeepsWhatThereIsAndEndsTheWalk) {
    auto bytes = RiffWriter::wave(
        {Chunk{"data", RiffWriter::Bytes(10, 7), 1000}, RiffWriter::text("bext", "never seen")});
    // The bext chunk lies inside the 1000 bytes the data chunk claims.
    EXPECT_EQ(chunkIds(bytes), (std::vector<std::string>{"data"}));
    auto data = Riff::findChunk(bytes, "data");
    ASSERT_TRUE(data);
    EXPECT_EQ(data->declaredSize, 1000u);
    EXPECT_EQ(data->content.size(), bytes.size() - 20);
    EXPECT_FALSE(Riff::findChunk(bytes, "bext"));
}

TEST(Riff, OnlyRiffWaveBuffersAreWalked) {
    const auto good = RiffWriter::wave({RiffWriter::text("JUNK", "ab")});
    struct Case {
        const char* name;
        RiffWriter::Bytes bytes;
    };
    auto withByte = [&](std::size_t at, char c) {
        auto b = good;
        b[at] = static_cast<std::uint8_t>(c);
        return b;
    };
    const Case cases[] = {
        {"big-endian RIFX", withByte(3, 'X')},
        {"AVI form", withByte(8, 'A')},
        {"header cut at 11 bytes", RiffWriter::Bytes(good.begin(), good.begin() + 11)},
        {"empty", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_FALSE(Riff::isWave(c.bytes));
        EXPECT_TRUE(chunkIds(c.bytes).empty());
    }
    // A chunk header cut short ends the walk without a chunk.
    auto cut = good;
    cut.resize(12 + 8 + 2 + 5);
    EXPECT_EQ(chunkIds(cut), (std::vector<std::string>{"JUNK"}));
}

TEST(Riff, ReadsPlainAndExtensibleFormats) {
    auto plain = Riff::readFormat(RiffWriter::fmt(2, 48000, 24).content);
    ASSERT_TRUE(plain);
    EXPECT_EQ(plain->channels, 2);
    EXPECT_EQ(plain->sampleRate, 48000u);
    EXPECT_EQ(plain->blockAlign, 6);
    EXPECT_EQ(plain->subFormat, 1);

    auto extensible = Riff::readFormat(RiffWriter::fmtExtensible(6, 96000, 32, 3).content);
    ASSERT_TRUE(extensible);
    EXPECT_EQ(extensible->formatTag, 0xFFFE);
    EXPECT_EQ(extensible->subFormat, 3);
    EXPECT_EQ(extensible->blockAlign, 24);

    auto shortChunk = RiffWriter::fmt(1, 8000, 8).content;
    shortChunk.resize(15);
    EXPECT_FALSE(Riff::readFormat(shortChunk));
}

} // namespace
