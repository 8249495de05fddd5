#include "TessarinEngine/platform/QuickTime.h"

#include "tests/support/QuickTimeWriter.h"

#include <gtest/gtest.h>

namespace {

using namespace QuickTimeWriter;

template <class T>
struct Case {
    const char* name;
    Bytes bytes;
    T expected;
};

std::vector<std::string> boxTypes(const Bytes& bytes) {
    std::vector<std::string> types;
    QuickTime::forEachBox(bytes, [&](const QuickTime::Box& b) {
        types.push_back({char(b.type >> 24), char(b.type >> 16), char(b.type >> 8), char(b.type)});
        return true;
    });
    return types;
}

TEST(QuickTime, WalksBoxesOfEverySizeForm) {
    const Bytes a = box("free", text("abc"));
    const Case<std::vector<std::string>> cases[] = {
        {"32-bit sizes", cat({a, box("skip", {})}), {"free", "skip"}},
        {"64-bit size", cat({largeBox("mdat", text("xyz")), a}), {"mdat", "free"}},
        {"size 0 runs to the end",
         cat({a, boxClaiming("mdat", 0, text("rest"))}),
         {"free", "mdat"}},
        {"size past the end stops the walk",
         cat({a, boxClaiming("moov", 4096, text("cut"))}),
         {"free"}},
        {"size below its header stops the walk", cat({boxClaiming("free", 7, {}), a}), {}},
        {"64-bit size below its header", cat({be32(1), text("mdat"), be64(15), a}), {}},
        {"header cut short", cat({a, Bytes{0, 0, 0}}), {"free"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(boxTypes(c.bytes), c.expected);
    }
}

Bytes moovWith(const Bytes& children) {
    return cat({box("ftyp", text("qt  ")), box("mdat", Bytes(32, 0xAB)), box("moov", children)});
}

Bytes nestedUdta(int levels, Bytes b) {
    for (int i = 0; i < levels; ++i) {
        b = box("udta", b);
    }
    return b;
}

TEST(QuickTime, FindsMakeAndModelInUserDataAtoms) {
    auto udta = [](const Bytes& atoms) {
        return moovWith(box("udta", atoms));
    };
    const Case<std::optional<std::string>> cases[] = {
        // "und" packs to the printable "U\xC4" and a length of 40 to "(": the header is cut, not
        // cleaned.
        {"language code and a length that read as text",
         udta(cat({userDataText("\xA9mak", "Acme", 0x55C4),
                   userDataText("\xA9mod", std::string(40, 'M'), 0x55C4)})),
         "Acme " + std::string(40, 'M')},
        {"item list in meta",
         udta(fullBox("meta", box("ilst", cat({itemListText("\xA9mak", "Acme"),
                                               itemListText("\xA9mod", "X1")})))),
         "Acme X1"},
        {"a model named with \"data\"", udta(userDataText("\xA9mod", "Metadata 1")), "Metadata 1"},
        {"make alone", udta(userDataText("make", "Acme")), "Acme"},
        {"first model wins",
         moovWith(cat({box("udta", userDataText("\xA9mod", "First")),
                       box("udta", userDataText("\xA9mod", "Second"))})),
         "First"},
        {"other makers' Info says nothing", udta(box("Info", text("Panasonic"))), std::nullopt},
        {"FUJIFILM Info atom of 255 bytes",
         udta(box("Info", cat({text("FUJIFILM DIGITAL CAMERA X-T3"), Bytes(219, ' ')}))),
         "FUJIFILM X-T3"},
        {"Info atom of 256 bytes is passed over",
         udta(box("Info", cat({text("FUJIFILM DIGITAL CAMERA X-T3"), Bytes(220, ' ')}))),
         std::nullopt},
        {"atoms outside moov/udta/meta/ilst are not searched",
         moovWith(box("trak", box("udta", userDataText("\xA9mod", "Hidden")))), std::nullopt},
        {"model at depth 5", moovWith(nestedUdta(4, userDataText("\xA9mod", "Deep"))), "Deep"},
        {"model at depth 6", moovWith(nestedUdta(5, userDataText("\xA9mod", "Deeper"))),
         std::nullopt},
        {"text of control bytes only", udta(box("\xA9mod", Bytes{0, 1, 2, 3})), std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(QuickTime::readDeviceAtoms(c.bytes), c.expected);
    }
}

Track timecodeTrack(std::uint32_t frameNumber, std::uint8_t fps, bool offsets64 = false) {
    return {.handler = "tmcd",
            .timescale = 2500,
            .sampleEntry = tmcdEntry(fps),
            .samples = {be32(frameNumber)},
            .sampleDuration = 100,
            .offsets64 = offsets64};
}

std::optional<std::pair<std::uint32_t, int>> timecodeOf(const Bytes& file) {
    auto m = QuickTime::readMovie(file);
    auto tc = m ? QuickTime::readTimecodeSample(*m, file) : std::nullopt;
    return tc ? std::optional(std::pair<std::uint32_t, int>{tc->frameNumber, tc->frameQuanta})
              : std::nullopt;
}

TEST(QuickTime, ReadsTheFirstTimecodeSample) {
    const Track video{.handler = "vide",
                      .sampleEntry = box("avc1", Bytes(78, 0)),
                      .samples = {Bytes(100, 1), Bytes(60, 2)}};
    Track shortSample = timecodeTrack(0, 25);
    shortSample.samples = {Bytes{0, 1}};
    const Case<std::optional<std::pair<std::uint32_t, int>>> cases[] = {
        {"after a video track", movie({video, timecodeTrack(93079, 25)}, 600, 600),
         std::pair{93079u, 25}},
        {"first of two timecode tracks",
         movie({timecodeTrack(100, 30), timecodeTrack(200, 24)}, 600, 600), std::pair{100u, 30}},
        {"64-bit chunk offsets", movie({timecodeTrack(93079, 25, true)}, 600, 600),
         std::pair{93079u, 25}},
        {"sample of 2 bytes", movie({shortSample}, 600, 600), std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(timecodeOf(c.bytes), c.expected);
    }
}

TEST(QuickTime, ReadsTimedMetadataOfTheFirstSecond) {
    const Bytes utf16 = {0x00, 'Z', 0x00, 'o', 0x00, 'o', 0x00, 'm'};
    // Two samples to a chunk: the second starts where the first ends.
    const Track meta{.handler = "meta",
                     .timescale = 1000,
                     .sampleEntry = mebxEntry({{1, "mdta", "com.example.camera.model", 1},
                                               {7, "mdta", "com.example.lens", 2},
                                               {9, "mdta", "com.example.blob", 0}}),
                     .samples = {mebxSample({{1, text("Cam A")}, {7, utf16}, {9, Bytes{0xFF, 0}}}),
                                 mebxSample({{1, text("Cam B")}, {42, text("unknown key")}}),
                                 mebxSample({{1, text("Cam C, at 1.2 s")}})},
                     .sampleDuration = 600,
                     .samplesPerChunk = 2};
    const Bytes file = movie({meta}, 600, 1200);
    auto m = QuickTime::readMovie(file);
    ASSERT_TRUE(m);
    auto items = QuickTime::readTimedMetadata(*m, file, 1.0);
    ASSERT_EQ(items.size(), 4u);
    EXPECT_EQ(items[0].keyNamespace + "/" + items[0].key, "mdta/com.example.camera.model");
    EXPECT_EQ(items[0].stringValue, "Cam A");
    EXPECT_EQ(items[1].stringValue, "Zoom");
    EXPECT_FALSE(items[2].stringValue);
    EXPECT_EQ(Bytes(items[2].dataValue.begin(), items[2].dataValue.end()), (Bytes{0xFF, 0}));
    EXPECT_EQ(items[3].stringValue, "Cam B");

    // A movie of 0.5 s holds only its first sample.
    const Bytes shortMovie = movie({meta}, 600, 300);
    m = QuickTime::readMovie(shortMovie);
    ASSERT_TRUE(m);
    EXPECT_EQ(QuickTime::readTimedMetadata(*m, shortMovie, 1.0).size(), 3u);
}

TEST(QuickTime, TruncatedMoviesGiveTheRightAnswerOrNothing) {
    const Track meta{.handler = "meta",
                     .sampleEntry = mebxEntry({{1, "mdta", "com.example.model", 1}}),
                     .samples = {mebxSample({{1, text("Cam")}})}};
    const Bytes full = movie({timecodeTrack(1234, 25), meta}, 600, 600,
                             box("udta", userDataText("\xA9mod", "X1")), true);
    ASSERT_EQ(timecodeOf(full), (std::pair{1234u, 25}));
    ASSERT_EQ(QuickTime::readDeviceAtoms(full), "X1");
    // Every cut of the file, through headers, tables and sample data.
    for (std::size_t n = 0; n < full.size(); ++n) {
        SCOPED_TRACE(n);
        const Bytes cut(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(n));
        if (auto device = QuickTime::readDeviceAtoms(cut)) {
            EXPECT_EQ(*device, "X1");
        }
        if (auto tc = timecodeOf(cut)) {
            EXPECT_EQ(*tc, (std::pair{1234u, 25}));
        }
        if (auto m = QuickTime::readMovie(cut)) {
            for (const auto& item : QuickTime::readTimedMetadata(*m, cut, 1.0)) {
                EXPECT_EQ(item.stringValue, "Cam");
            }
        }
    }
}

} // namespace
