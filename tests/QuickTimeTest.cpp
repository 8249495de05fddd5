#include "TessarinEngine/platform/QuickTime.h"

#include "TessarinEngine/MediaMetadata.h"
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
    // A size field that claims `size`, whatever the content.
    auto claiming = [](std::uint32_t size, const char* type, const char* content) {
        return cat({be32(size), text(type), text(content)});
    };
    const Case<std::vector<std::string>> cases[] = {
        {"32-bit sizes", cat({a, box("skip", {})}), {"free", "skip"}},
        {"64-bit size", cat({be32(1), text("mdat"), be64(19), text("xyz"), a}), {"mdat", "free"}},
        {"size 0 runs to the end", cat({a, claiming(0, "mdat", "rest")}), {"free", "mdat"}},
        {"size past the end stops the walk", cat({a, claiming(4096, "moov", "cut")}), {"free"}},
        {"size below its header stops the walk", cat({claiming(7, "free", ""), a}), {}},
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

TEST(QuickTime, FindsMakeAndModelInUserDataAtoms) {
    auto udta = [](const Bytes& atoms) {
        return moovWith(box("udta", atoms));
    };
    auto nested = [](int levels, Bytes b) {
        while (levels-- > 0) {
            b = box("udta", b);
        }
        return moovWith(b);
    };
    auto item = [](const char* type, const char* value) {
        return box(type, box("data", cat({be32(1), be32(0), text(value)})));
    };
    auto info = [](std::size_t padding) {
        return box("Info", cat({text("FUJIFILM DIGITAL CAMERA X-T3"), Bytes(padding, ' ')}));
    };
    const Case<std::optional<std::string>> cases[] = {
        // "und" packs to the printable "U\xC4" and a length of 40 to "(": the header is cut, not
        // cleaned.
        {"language code and a length that read as text",
         udta(cat({userDataText("\xA9mak", "Acme", 0x55C4),
                   userDataText("\xA9mod", std::string(40, 'M'), 0x55C4)})),
         "Acme " + std::string(40, 'M')},
        {"item list in meta",
         udta(fullBox("meta", box("ilst", cat({item("\xA9mak", "Acme"), item("\xA9mod", "X1")})))),
         "Acme X1"},
        {"make alone", udta(userDataText("make", "Acme")), "Acme"},
        {"first model wins",
         moovWith(cat({box("udta", userDataText("\xA9mod", "First")),
                       box("udta", userDataText("\xA9mod", "Second"))})),
         "First"},
        {"FUJIFILM Info atom of 255 bytes", udta(info(219)), "FUJIFILM X-T3"},
        {"atoms outside moov/udta/meta/ilst are not searched",
         moovWith(box("trak", box("udta", userDataText("\xA9mod", "Hidden")))), std::nullopt},
        {"model at depth 5", nested(4, userDataText("\xA9mod", "Deep")), "Deep"},
        {"model at depth 6", nested(5, userDataText("\xA9mod", "Deeper")), std::nullopt},
        {"text of control bytes only", udta(box("\xA9mod", Bytes{0, 1, 2, 3})), std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(MediaMetadata::readQuickTimeDeviceAtoms(c.bytes), c.expected);
    }
}

// A timecode track of `fps` frames per second whose first sample is `frameNumber`.
Track timecodeTrack(std::uint32_t frameNumber, std::uint8_t fps) {
    const Bytes entry =
        cat({Bytes(6, 0), Bytes{0, 1}, be32(0), be32(0), be32(fps), be32(1), Bytes{fps, 0}});
    return {.handler = "tmcd", .sampleEntry = box("tmcd", entry), .samples = {be32(frameNumber)}};
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
    Track wide = timecodeTrack(93079, 25);
    wide.offsets64 = true;
    Track shortSample = timecodeTrack(0, 25);
    shortSample.samples = {Bytes{0, 1}};
    const Case<std::optional<std::pair<std::uint32_t, int>>> cases[] = {
        {"after a video track", movie({video, timecodeTrack(93079, 25)}, 600),
         std::pair{93079u, 25}},
        {"first of two timecode tracks",
         movie({timecodeTrack(100, 30), timecodeTrack(200, 24)}, 600), std::pair{100u, 30}},
        {"64-bit chunk offsets", movie({wide}, 600), std::pair{93079u, 25}},
        {"sample of 2 bytes", movie({shortSample}, 600), std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(timecodeOf(c.bytes), c.expected);
    }
}

TEST(QuickTime, ReadsTimedMetadataOfTheFirstSecond) {
    // Two samples to a chunk: the second starts where the first ends.
    const Track meta{.handler = "meta",
                     .sampleEntry = mebxEntry({{1, "com.example.camera.model", 1},
                                               {7, "com.example.lens", 2},
                                               {9, "com.example.blob", 0}}),
                     .samples = {mebxSample({{1, text("Cam A")},
                                             {7, Bytes{0, 'Z', 0, 'o', 0, 'o', 0, 'm'}},
                                             {9, Bytes{0xFF, 0}}}),
                                 mebxSample({{1, text("Cam B")}, {42, text("unknown key")}}),
                                 mebxSample({{1, text("Cam C, at 1.2 s")}})},
                     .timescale = 1000,
                     .samplesPerChunk = 2};
    // Items point into the file's bytes, so each file outlives what is read from it.
    const Bytes file = movie({meta}, 1200);
    const Bytes half = movie({meta}, 300);
    const auto read = [](const Bytes& bytes) {
        return QuickTime::readTimedMetadata(QuickTime::readMovie(bytes).value(), bytes, 1.0);
    };
    const auto items = read(file);
    ASSERT_EQ(items.size(), 4u);
    EXPECT_EQ(items[0].keyNamespace + "/" + items[0].key, "mdta/com.example.camera.model");
    EXPECT_EQ(items[0].stringValue, "Cam A");
    EXPECT_EQ(items[1].stringValue, "Zoom");
    EXPECT_FALSE(items[2].stringValue);
    EXPECT_EQ(Bytes(items[2].dataValue.begin(), items[2].dataValue.end()), (Bytes{0xFF, 0}));
    EXPECT_EQ(items[3].stringValue, "Cam B");
    // A movie of 0.5 s holds only its first sample.
    EXPECT_EQ(read(half).size(), 3u);
}

TEST(QuickTime, TruncatedMoviesGiveTheRightAnswerOrNothing) {
    const Track meta{.handler = "meta",
                     .sampleEntry = mebxEntry({{1, "com.example.model"}}),
                     .samples = {mebxSample({{1, text("Cam")}})}};
    // The moov comes first, so most cuts leave whole tables pointing past the end.
    const Bytes full =
        movie({timecodeTrack(1234, 25), meta}, 600, box("udta", userDataText("\xA9mod", "X1")));
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
