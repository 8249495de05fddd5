#include "TessarinEngine/platform/Riff.h"

#include "tests/support/RiffWriter.h"

#include <gtest/gtest.h>

namespace {

using RiffWriter::Bytes;

std::vector<std::string> chunkIds(const Bytes& bytes) {
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
        {RiffWriter::Chunk{"data", Bytes(10, 7), 1000}, RiffWriter::text("bext", "never seen")});
    // The bext chunk lies inside the 1000 bytes the data chunk claims.
    EXPECT_EQ(chunkIds(bytes), (std::vector<std::string>{"data"}));
    auto data = Riff::findChunk(bytes, "data");
    ASSERT_TRUE(data);
    EXPECT_EQ(data->declaredSize, 1000u);
    EXPECT_EQ(data->content.size(), bytes.size() - 20);
}

TEST(Riff, OnlyWholeRiffWaveHeadersAreWalked) {
    const auto good = RiffWriter::wave({RiffWriter::text("JUNK", "ab")});
    auto withByte = [&](std::size_t at, char c) {
        auto b = good;
        b[at] = static_cast<std::uint8_t>(c);
        return b;
    };
    const std::pair<const char*, Bytes> cases[] = {
        {"big-endian RIFX", withByte(3, 'X')},
        {"AVI form", withByte(8, 'A')},
        {"header cut at 11 bytes", Bytes(good.begin(), good.begin() + 11)},
    };
    for (const auto& [name, bytes] : cases) {
        SCOPED_TRACE(name);
        EXPECT_FALSE(Riff::isWave(bytes));
        EXPECT_TRUE(chunkIds(bytes).empty());
    }
    // A chunk header cut short ends the walk without a chunk.
    auto cut = good;
    cut.resize(12 + 8 + 2 + 7);
    EXPECT_EQ(chunkIds(cut), (std::vector<std::string>{"JUNK"}));

    auto format = RiffWriter::fmt(1, 8000, 8).content;
    EXPECT_TRUE(Riff::readFormat(format));
    format.resize(15);
    EXPECT_FALSE(Riff::readFormat(format));
}

} // namespace
