#include "TessarinEngine/platform/QuickTime.h"

#include "tests/support/QuickTimeWriter.h"

#include <gtest/gtest.h>

namespace {

using namespace QuickTimeWriter;

std::vector<std::string> boxTypes(const Bytes& bytes) {
    std::vector<std::string> types;
    QuickTime::forEachBox(bytes, [&](const QuickTime::Box& b) {
        std::string t(4, ' ');
        for (int i = 0; i < 4; ++i) {
            t[static_cast<std::size_t>(i)] = static_cast<char>(b.type >> (24 - 8 * i));
        }
        types.push_back(t);
        return true;
    });
    return types;
}

TEST(QuickTime, WalksBoxesOfEverySizeForm) {
    struct Case {
        const char* name;
        Bytes bytes;
        std::vector<std::string> types;
    };
    const Bytes a = box("free", text("abc"));
    const Case cases[] = {
        {"32-bit sizes", cat({a, box("skip", {})}), {"free", "skip"}},
        {"64-bit size", cat({largeBox("mdat", text("xyz")), a}), {"mdat", "free"}},
        {"size 0 runs to the end",
         cat({a, boxClaiming("mdat", 0, text("rest of file"))}),
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
        EXPECT_EQ(boxTypes(c.bytes), c.types);
    }
    const Bytes twoBoxes = cat({a, largeBox("mdat", text("xyz"))});
    auto found = QuickTime::findBox(twoBoxes, QuickTime::fourcc("mdat"));
    ASSERT_TRUE(found);
    EXPECT_EQ(found->offset, a.size());
    EXPECT_EQ(std::string(found->content.begin(), found->content.end()), "xyz");
}

Bytes moovWith(const Bytes& children) {
    return cat({box("ftyp", text("qt  ")), box("mdat", Bytes(32, 0xAB)), box("moov", children)});
}

Bytes nestedUdta(int levels, const Bytes& inner) {
    Bytes b = inner;
    for (int i = 0; i < levels; ++i) {
        b = box("udta", b);
    }
    return b;
}

TEST(QuickTime, FindsMakeAndModelInUserDataAtoms) {
    const Bytes fujiInfo = box("Info", text("FUJIFILM DIGITAL CAMERA X-T3"));
    struct Case {
        const char* name;
        Bytes file;
        std::optional<std::string> device;
    };
    const Case cases[] = {
        {"user-data strings",
         moovWith(box("udta",
                      cat({userDataText("\xA9mak", "Acme"), userDataText("\xA9mod", "Cam One")}))),
         "Acme Cam One"},
        {"item list in meta",
         moovWith(box("udta", fullBox("meta", box("ilst", cat({itemListText("\xA9mak", "Acme"),
                                                               itemListText("\xA9mod", "X1")}))))),
         "Acme X1"},
        {"language code \"und\" and a name of 40 characters",
         moovWith(box("udta", cat({userDataText("\xA9mak", "Acme", 0x55C4),
                                   userDataText("\xA9mod", std::string(40, 'M'), 0x55C4)}))),
         "Acme " + std::string(40, 'M')},
        {"a model named with \"data\"",
         moovWith(box("udta", userDataText("\xA9mod", "Metadata 1"))), "Metadata 1"},
        {"make alone", moovWith(box("udta", userDataText("make", "Acme"))), "Acme"},
        {"model alone", moovWith(box("udta", userDataText("\xA9mod", "X1"))), "X1"},
        {"first model wins",
         moovWith(cat({box("udta", userDataText("\xA9mod", "First")),
                       box("udta", userDataText("\xA9mod", "Second"))})),
         "First"},
        {"FUJIFILM Info atom", moovWith(box("udta", fujiInfo)), "FUJIFILM X-T3"},
        {"other makers' Info says nothing", moovWith(box("udta", box("Info", text("Panasonic")))),
         std::nullopt},
        {"Info of 256 bytes or more is passed over",
         moovWith(box("udta", box("Info", cat({text("FUJIFILM X-T3"), Bytes(250, ' ')})))),
         std::nullopt},
        {"64-bit moov",
         cat({box("ftyp", text("qt  ")),
              largeBox("moov", box("udta", userDataText("\xA9mod", "Wide")))}),
         "Wide"},
        {"atoms outside moov/udta/meta/ilst are not searched",
         moovWith(box("trak", box("udta", userDataText("\xA9mod", "Hidden")))), std::nullopt},
        {"model at depth 5", moovWith(nestedUdta(4, userDataText("\xA9mod", "Deep"))), "Deep"},
        {"model at depth 6", moovWith(nestedUdta(5, userDataText("\xA9mod", "Deeper"))),
         std::nullopt},
        {"text of control bytes only", moovWith(box("udta", box("\xA9mod", Bytes{0, 1, 2, 3}))),
         std::nullopt},
        {"udta claiming past the end",
         moovWith(boxClaiming("udta", 500, userDataText("\xA9mod", "Cut"))), std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(QuickTime::readDeviceAtoms(c.file), c.device);
    }
}

Track timecodeTrack(std::uint32_t frameNumber, std::uint8_t fps) {
    Track t;
    t.handler = "tmcd";
    t.timescale = 2500;
    t.sampleEntry = tmcdEntry(fps);
    t.samples = {be32(frameNumber)};
    t.sampleDuration = 100;
    return t;
}

TEST(QuickTime, ReadsTheFirstTimecodeSample) {
    Track video;
    video.handler = "vide";
    video.sampleEntry = box("avc1", Bytes(78, 0));
    video.samples = {Bytes(100, 1), Bytes(60, 2)};

    Track wide = timecodeTrack(93079, 25);
    wide.offsets64 = true;
    const Track shortSample = [] {
        Track t = timecodeTrack(0, 25);
        t.samples = {Bytes{0, 1}};
        return t;
    }();

    struct Case {
        const char* name;
        Bytes file;
        std::optional<std::pair<std::uint32_t, int>> expected;
    };
    const Case cases[] = {
        {"after a video track", movie({video, timecodeTrack(93079, 25)}, 600, 600),
         std::pair<std::uint32_t, int>{93079, 25}},
        {"first of two timecode tracks",
         movie({timecodeTrack(100, 30), timecodeTrack(200, 24)}, 600, 600),
         std::pair<std::uint32_t, int>{100, 30}},
        {"64-bit chunk offsets", movie({wide}, 600, 600), std::pair<std::uint32_t, int>{93079, 25}},
        {"sample of 2 bytes", movie({shortSample}, 600, 600), std::nullopt},
        {"no timecode track", movie({video}, 600, 600), std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto m = QuickTime::readMovie(c.file);
        ASSERT_TRUE(m);
        auto tc = QuickTime::readTimecodeSample(*m, c.file);
        ASSERT_EQ(tc.has_value(), c.expected.has_value());
        if (tc) {
            EXPECT_EQ(tc->frameNumber, c.expected->first);
            EXPECT_EQ(tc->frameQuanta, c.expected->second);
        }
    }
}

TEST(QuickTime, LocatesSamplesThroughChunksOfSeveralSamples) {
    Track t;
    t.handler = "soun";
    t.sampleEntry = box("lpcm", Bytes(28, 0));
    for (std::uint8_t i = 0; i < 7; ++i) {
        t.samples.push_back(Bytes(static_cast<std::size_t>(i) + 1, i));
    }
    t.samplesPerChunk = 3;
    t.sampleDuration = 300;
    const Bytes file = movie({t}, 600, 2100);
    auto m = QuickTime::readMovie(file);
    ASSERT_TRUE(m);
    ASSERT_EQ(m->tracks.size(), 1u);
    std::vector<Bytes> seen;
    std::vector<double> times;
    QuickTime::forEachSample(m->tracks[0], file, [&](const QuickTime::Sample& s) {
        EXPECT_TRUE(s.data);
        seen.emplace_back(s.data->begin(), s.data->end());
        times.push_back(s.time);
        return true;
    });
    EXPECT_EQ(seen, t.samples);
    EXPECT_EQ(times, (std::vector<double>{0, 0.5, 1, 1.5, 2, 2.5, 3}));
}

TEST(QuickTime, ReadsTimedMetadataOfTheFirstSecond) {
    Track meta;
    meta.handler = "meta";
    meta.timescale = 1000;
    meta.sampleDuration = 600;
    meta.sampleEntry = mebxEntry({{1, "mdta", "com.example.camera.model", 1},
                                  {7, "mdta", "com.example.lens", 2},
                                  {9, "mdta", "com.example.blob", 0}});
    const Bytes utf16 = {0x00, 'Z', 0x00, 'o', 0x00, 'o', 0x00, 'm'};
    meta.samples = {mebxSample({{1, text("Cam A")}, {7, utf16}, {9, Bytes{0xFF, 0}}}),
                    mebxSample({{1, text("Cam B")}, {42, text("unknown key")}}),
                    mebxSample({{1, text("Cam C, at 1.2 s")}})};
    const Bytes file = movie({meta}, 600, 1200);
    auto m = QuickTime::readMovie(file);
    ASSERT_TRUE(m);
    auto items = QuickTime::readTimedMetadata(*m, file, 1.0);
    ASSERT_EQ(items.size(), 4u);
    EXPECT_EQ(items[0].keyNamespace, "mdta");
    EXPECT_EQ(items[0].key, "com.example.camera.model");
    EXPECT_EQ(items[0].stringValue, "Cam A");
    EXPECT_EQ(items[1].stringValue, "Zoom");
    EXPECT_FALSE(items[2].stringValue);
    EXPECT_EQ(Bytes(items[2].dataValue.begin(), items[2].dataValue.end()), (Bytes{0xFF, 0}));
    EXPECT_EQ(items[3].stringValue, "Cam B");

    // A movie of 0.5 s holds only its first sample.
    const Bytes shortMovie = movie({meta}, 600, 300);
    auto sm = QuickTime::readMovie(shortMovie);
    ASSERT_TRUE(sm);
    EXPECT_EQ(QuickTime::readTimedMetadata(*sm, shortMovie, 1.0).size(), 3u);
}

TEST(QuickTime, TruncatedMoviesGiveTheRightAnswerOrNothing) {
    Track meta;
    meta.handler = "meta";
    meta.sampleEntry = mebxEntry({{1, "mdta", "com.example.model", 1}});
    meta.samples = {mebxSample({{1, text("Cam")}})};
    const Bytes full = movie({timecodeTrack(1234, 25), meta}, 600, 600,
                             box("udta", userDataText("\xA9mod", "X1")), true);
    // Every cut of the file, through headers, tables and sample data.
    for (std::size_t n = 0; n <= full.size(); ++n) {
        SCOPED_TRACE(n);
        const Bytes cut(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(n));
        if (auto device = QuickTime::readDeviceAtoms(cut)) {
            EXPECT_EQ(*device, "X1");
        }
        auto m = QuickTime::readMovie(cut);
        if (!m) {
            continue;
        }
        if (auto tc = QuickTime::readTimecodeSample(*m, cut)) {
            EXPECT_EQ(tc->frameNumber, 1234u);
            EXPECT_EQ(tc->frameQuanta, 25);
        }
        for (const auto& item : QuickTime::readTimedMetadata(*m, cut, 1.0)) {
            EXPECT_EQ(item.stringValue, "Cam");
        }
    }
    auto m = QuickTime::readMovie(full);
    ASSERT_TRUE(m);
    EXPECT_TRUE(QuickTime::readTimecodeSample(*m, full));
    EXPECT_EQ(QuickTime::readDeviceAtoms(full), "X1");
}

} // namespace
