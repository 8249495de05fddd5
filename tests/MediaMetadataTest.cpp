#include "TessarinEngine/MediaMetadata.h"

#include "tests/support/QuickTimeWriter.h"
#include "tests/support/RiffWriter.h"
#include "tests/support/TestSupport.h"

#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <future>
#include <gtest/gtest.h>
#include <random>
#include <sstream>
#include <sys/stat.h>
#include <thread>

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;
namespace qt = QuickTimeWriter;
using RiffWriter::Chunk;

// Sets the process's time zone for one scope and restores it after.
class ScopedTimeZone {
public:
    explicit ScopedTimeZone(const char* zone) {
        if (const char* old = std::getenv("TZ")) {
            previous_ = old;
        }
        setenv("TZ", zone, 1);
        tzset();
    }
    ~ScopedTimeZone() {
        if (previous_) {
            setenv("TZ", previous_->c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }
    ScopedTimeZone(const ScopedTimeZone&) = delete;
    ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

private:
    std::optional<std::string> previous_;
};

// 2023-07-01 14:25:30 UTC, and the same wall clock in Berlin (UTC+2 in summer).
constexpr Date kJulyFirstUtc = 1688221530;
constexpr Date kJulyFirstBerlin = 1688214330;

TEST(MediaMetadata, DateFromFilenameReadsTheLocalWallClock) {
    ScopedTimeZone berlin("Europe/Berlin");
    struct Case {
        const char* name;
        std::optional<Date> date;
    };
    const Case cases[] = {
        {"A001_20230701_142530.mov", kJulyFirstBerlin},
        // Winter time, UTC+1: 08:00 local is 07:00 UTC.
        {"REC_20230115_080000.WAV", 1673766000},
        {"clip_20230701_142530_2.mov", std::nullopt},
        {"2023071_142530.mov", std::nullopt},
        {"20230230_120000.mov", std::nullopt},
        {"20230701_240000.mov", std::nullopt},
        {"20230701_126000.mov", std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(MediaMetadata::dateFromFilename(c.name), c.date);
    }
    ScopedTimeZone utc("UTC");
    EXPECT_EQ(MediaMetadata::dateFromFilename("A001_20230701_142530.mov"), kJulyFirstUtc);
}

RiffWriter::Bext julyFirst() {
    RiffWriter::Bext b;
    b.originationDate = "2023-07-01";
    b.originationTime = "14:25:30";
    return b;
}

TEST(MediaMetadata, BroadcastWaveDateIsAUtcWallClock) {
    // The zone of the machine must not move a BWF date.
    ScopedTimeZone newYork("America/New_York");
    auto fields = julyFirst();
    auto badTime = fields;
    badTime.originationTime = "14.25.30";
    struct Case {
        const char* name;
        Bytes wav;
        std::optional<Date> date;
    };
    const Case cases[] = {
        {"full bext", RiffWriter::wave({RiffWriter::fmt(1, 48000, 16), RiffWriter::bext(fields)}),
         kJulyFirstUtc},
        {"odd chunk before bext",
         RiffWriter::wave({RiffWriter::text("JUNK", "odd"), RiffWriter::bext(fields)}),
         kJulyFirstUtc},
        {"bext of exactly 338 bytes", RiffWriter::wave({RiffWriter::bextTruncated(fields, 338)}),
         kJulyFirstUtc},
        {"bext of 337 bytes", RiffWriter::wave({RiffWriter::bextTruncated(fields, 337)}),
         std::nullopt},
        {"time with dots", RiffWriter::wave({RiffWriter::bext(badTime)}), std::nullopt},
        {"no bext", RiffWriter::wave({RiffWriter::fmt(1, 48000, 16)}), std::nullopt},
        {"chunk size past the end before bext",
         RiffWriter::wave(
             {Chunk{"JUNK", RiffWriter::toBytes("ab"), 0x7FFFFFF0}, RiffWriter::bext(fields)}),
         std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(MediaMetadata::readBWFOriginationDate(c.wav), c.date);
    }
}

TEST(MediaMetadata, BroadcastWaveOriginatorAndIXMLNames) {
    auto withOriginator = [](std::string originator, std::string description = {}) {
        RiffWriter::Bext b;
        b.originator = std::move(originator);
        b.description = std::move(description);
        return RiffWriter::bext(b);
    };
    const auto ixml = RiffWriter::text(
        "iXML", "<BWFXML><MANUFACTURER>Sound Devices</MANUFACTURER>\n<MODEL> MixPre-6 II\n"
                "</MODEL></BWFXML>");
    struct Case {
        const char* name;
        Bytes wav;
        std::optional<std::string> device;
    };
    const Case cases[] = {
        {"originator", RiffWriter::wave({withOriginator(" F8n Recorder\r\n")}), "F8n Recorder"},
        {"maker and model in the description",
         RiffWriter::wave({withOriginator("", "sTRK1=Boom\r\nMAKER= Zaxcom \r\nMODEL=Nova;x")}),
         "Zaxcom Nova"},
        {"model alone in the description", RiffWriter::wave({withOriginator("", "MODEL=Nova")}),
         "Nova"},
        {"originator wins over the description",
         RiffWriter::wave({withOriginator("Deva", "MAKER=Zaxcom\nMODEL=Nova")}), "Deva"},
        {"iXML", RiffWriter::wave({ixml}), "Sound Devices MixPre-6 II"},
        {"lower-case chunk id and tags",
         RiffWriter::wave({RiffWriter::text("ixml", "<manufacturer>Tascam</manufacturer>")}),
         "Tascam"},
        {"iXML before bext comes first", RiffWriter::wave({ixml, withOriginator("Deva")}),
         "Sound Devices MixPre-6 II"},
        {"bext before iXML comes first", RiffWriter::wave({withOriginator("Deva"), ixml}), "Deva"},
        {"empty bext, then iXML", RiffWriter::wave({withOriginator(""), ixml}),
         "Sound Devices MixPre-6 II"},
        {"nothing named", RiffWriter::wave({RiffWriter::fmt(2, 48000, 24), withOriginator("")}),
         std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(MediaMetadata::readBWFOriginator(c.wav), c.device);
    }
}

TEST(MediaMetadata, BroadcastWaveTimecodeIsTimeReferenceOverSampleRate) {
    auto bextAt = [](std::uint64_t timeReference) {
        RiffWriter::Bext b;
        b.timeReference = timeReference;
        return RiffWriter::bext(b);
    };
    struct Case {
        const char* name;
        Bytes file;
        std::optional<double> seconds;
    };
    const Case cases[] = {
        {"96 kHz, one hour in",
         RiffWriter::wave({RiffWriter::fmt(1, 96000, 24), bextAt(96000ull * 3600)}), 3600.0},
        {"above 32 bits", RiffWriter::wave({RiffWriter::fmt(1, 48000, 16), bextAt(1ull << 33)}),
         static_cast<double>(1ull << 33) / 48000},
        {"no fmt: 48 kHz assumed", RiffWriter::wave({bextAt(24000)}), 0.5},
        {"sample rate 0: 48 kHz assumed",
         RiffWriter::wave({RiffWriter::fmt(1, 0, 16), bextAt(24000)}), 0.5},
        {"bext cut before TimeReference",
         RiffWriter::wave({RiffWriter::fmt(1, 48000, 16), RiffWriter::bextTruncated({}, 340)}),
         std::nullopt},
        {"no bext", RiffWriter::wave({RiffWriter::fmt(1, 48000, 16)}), std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(MediaMetadata::readBWFTimecode(c.file), c.seconds);
    }
}

TEST(MediaMetadata, SonyXmlDateCarriesItsZone) {
    auto fileEndingIn = [](const std::string& tail) {
        const std::string file = std::string(5000, '\x80') + tail;
        return Bytes(file.begin(), file.end());
    };
    auto xml = [](const std::string& lastUpdate) {
        return "<?xml version=\"1.0\"?><NonRealTimeMeta lastUpdate=\"" + lastUpdate + "\"/>";
    };
    struct Case {
        const char* name;
        Bytes file;
        std::optional<Date> date;
    };
    const Case cases[] = {
        {"Z", fileEndingIn(xml("2023-07-01T14:25:30Z")), kJulyFirstUtc},
        {"fraction", fileEndingIn(xml("2023-07-01T14:25:30.250000Z")), kJulyFirstUtc + 0.25},
        {"+09:00", fileEndingIn(xml("2023-07-01T23:25:30+09:00")), kJulyFirstUtc},
        {"+09", fileEndingIn(xml("2023-07-01T23:25:30+09")), kJulyFirstUtc},
        {"-05:30 across midnight", fileEndingIn(xml("2023-07-01T08:55:30-05:30")), kJulyFirstUtc},
        {"no zone", fileEndingIn(xml("2023-07-01T14:25:30")), std::nullopt},
        {"blank for T", fileEndingIn(xml("2023-07-01 14:25:30Z")), std::nullopt},
        {"trailing text", fileEndingIn(xml("2023-07-01T14:25:30Zulu")), std::nullopt},
        {"the last XML counts",
         fileEndingIn(xml("2020-01-01T00:00:00Z") + xml("2023-07-01T14:25:30Z")), kJulyFirstUtc},
        {"bytes after it that are no UTF-8", fileEndingIn(xml("2023-07-01T14:25:30Z") + "\xFF\xFE"),
         std::nullopt},
        {"no XML", fileEndingIn("lastUpdate=\"2023-07-01T14:25:30Z\""), std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(MediaMetadata::readSonyXMLDate(c.file), c.date);
    }
    // Only the last 4 MiB are searched: padding that puts the "xml " marker first in that window
    // keeps the date, one byte more pushes it out.
    const std::string text = xml("2023-07-01T14:25:30Z");
    auto padded = fileEndingIn(text);
    const std::size_t marker = 5000 + 2;
    padded.resize(marker + 4 * 1024 * 1024, ' ');
    EXPECT_EQ(MediaMetadata::readSonyXMLDate(padded), kJulyFirstUtc);
    padded.push_back(' ');
    EXPECT_FALSE(MediaMetadata::readSonyXMLDate(padded));
}

TEST(MediaMetadata, SonyTimecodeReadsItsDigitsBackToFront) {
    auto nrtm = [](const std::string& fps, const std::string& changes) {
        return "<?xml version=\"1.0\"?><NonRealTimeMeta><LtcChangeTable tcFps=\"" + fps +
               "\" halfStep=\"false\">" + changes + "</LtcChangeTable></NonRealTimeMeta>";
    };
    auto start = [](const std::string& value) {
        return "<LtcChange frameCount=\"0\" value=\"" + value + "\" status=\"increment\"/>";
    };
    struct Case {
        const char* name;
        std::string xml;
        std::optional<double> seconds;
    };
    const Case cases[] = {
        {"23:59:59:12 at 25", nrtm("25", start("12595923")), 86399.48},
        {"25 frames at 25 is refused", nrtm("25", start("25595923")), std::nullopt},
        {"60 seconds is refused", nrtm("30", start("00600010")), std::nullopt},
        {"60 minutes is refused", nrtm("30", start("00006010")), std::nullopt},
        {"hours are not bounded", nrtm("24", start("01000030")), 108000 + 1.0 / 24},
        {"first increment when no change at frame 0",
         nrtm("25", "<LtcChange frameCount=\"120\" value=\"01000010\" status=\"increment\"/>"),
         36000.04},
        {"no rate", nrtm("", start("12595923")), std::nullopt},
        {"no change", nrtm("25", ""), std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto tc = MediaMetadata::sonyNRTMTimecodeFromXML(c.xml);
        ASSERT_EQ(tc.has_value(), c.seconds.has_value());
        if (tc) {
            EXPECT_NEAR(*tc, *c.seconds, 1e-9);
        }
    }
}

TEST(MediaMetadata, SonyXmlIsTakenFromATopLevelMetaAtomOnly) {
    const std::string xml =
        "<NonRealTimeMeta><LtcChangeTable tcFps=\"25\"><LtcChange frameCount=\"0\" "
        "value=\"00000001\"/></LtcChangeTable></NonRealTimeMeta>";
    const Bytes other = qt::box("meta", qt::text("<NonRealTimeMeta>no changes</NonRealTimeMeta>"));
    struct Case {
        const char* name;
        Bytes file;
        bool found;
    };
    const Case cases[] = {
        {"after another meta",
         qt::cat({qt::box("ftyp", qt::text("XAVC")), other, qt::box("meta", qt::text(xml))}), true},
        {"inside moov",
         qt::cat(
             {qt::box("ftyp", qt::text("XAVC")), qt::box("moov", qt::box("meta", qt::text(xml)))}),
         false},
        {"behind a box that runs past the end",
         qt::cat({qt::boxClaiming("free", 1 << 20, qt::text("x")), qt::box("meta", qt::text(xml))}),
         false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(MediaMetadata::sonyNonRealTimeMetaXML(c.file) == xml, c.found);
    }
}

TEST(MediaMetadata, CameraFromXmlAttributes) {
    struct Case {
        const char* name;
        const char* xml;
        std::optional<std::string> device;
    };
    const Case cases[] = {
        {"Sony device element",
         "<?xml version=\"1.0\" encoding=\"UTF-8\"?><NonRealTimeMeta xmlns=\"urn:x\">"
         "<Device manufacturer=\"Sony\" modelName=\"ILCE-7SM3\" serialNo=\"1\"/></NonRealTimeMeta>",
         "Sony ILCE-7SM3"},
        {"camera element with capitalised attributes",
         "<Clip><CameraInfo Manufacturer=\"Canon\" Model=\"C70\"/></Clip>", "Canon C70"},
        {"another element's model stands in", "<Clip><Lens model=\"FE 24-70\"/></Clip>",
         "FE 24-70"},
        {"a device after a stand-in replaces it",
         "<Clip><Lens model=\"FE 24-70\"/><Device manufacturer=\"Sony\" modelName=\"FX3\"/></Clip>",
         "Sony FX3"},
        {"elements before a parse error count",
         "<a><Device manufacturer=\"Sony\" modelName=\"FX6\"/><b></a>", "Sony FX6"},
        {"manufacturer alone", "<Device manufacturer=\"Sony\"/>", "Sony"},
        {"no model anywhere", "<Clip><Take name=\"1\"/></Clip>", std::nullopt},
        {"not XML", "\x01\x02 binary", std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(MediaMetadata::parseCameraFromXML(c.xml), c.device);
    }
}

TEST(MediaMetadata, CameraAttributesArePropertyListsOrText) {
    auto plist = [](const std::string& body) {
        return RiffWriter::toBytes(
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>" + body +
            "</dict></plist>");
    };
    struct Case {
        const char* name;
        Bytes value;
        std::optional<std::string> model;
    };
    const Case cases[] = {
        {"model key", plist("<key>CameraModel</key><string>ZV-E1</string>"), "ZV-E1"},
        {"Model before Make",
         plist("<key>Make</key><string>Sony</string><key>Model</key><string>FX30</string>"),
         "FX30"},
        {"empty model skipped",
         plist("<key>Model</key><string></string><key>DeviceModel</key><string>A7</string>"), "A7"},
        {"dictionary without a model", plist("<key>ISO</key><string>800</string>"), std::nullopt},
        // libplist's copying getter aborts on this: the value up to the NUL is the model.
        {"NUL inside the model",
         plist("<key>Model</key><string>A" + std::string(1, '\0') + "B</string>"), "A"},
        {"plain text", RiffWriter::toBytes(std::string("ZV-E10\n\0", 8)), "ZV-E10"},
        {"invalid UTF-8", Bytes{0xC3, 0x28}, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(MediaMetadata::extractCameraAttributesModel(c.value), c.model);
    }
}

TEST(MediaMetadata, DeviceFromFilenamePatterns) {
    struct Case {
        const char* name;
        std::optional<std::string> device;
    };
    const Case cases[] = {
        {"DJI_01_0001.MP4", "DJI 01"},    {"dji_123_0001.mp4", "DJI 123"},
        {"DJI_0012_X.MP4", std::nullopt}, {"ZOOM0001.WAV", "ZOOM"},
        {"MYZOOM.WAV", std::nullopt},     {"Tascam_0001.wav", "TASCAM"},
        {"clip-dr10.wav", "TASCAM"},      {"PCM_0001.WAV", "SONY"},
        {"sony_take.wav", "SONY"},        {"R0001234.WAV", "ROLAND"},
        {"XR0001234.WAV", std::nullopt},  {"R000123.WAV", std::nullopt},
        {"C0001.MP4", std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(MediaMetadata::deviceFromFilename(c.name), c.device);
    }
}

TEST(MediaMetadata, CodecFingerprintIsFnv1a64) {
    // Published FNV-1a 64-bit test vectors.
    EXPECT_EQ(MediaMetadata::codecFingerprint(RiffWriter::toBytes("a")), "cam_af63dc4c8601ec8c");
    EXPECT_EQ(MediaMetadata::codecFingerprint(RiffWriter::toBytes("foobar")),
              "cam_85944171f73967e8");
}

// ---- Files made at test time ----

std::string sonyXml(const std::string& lastUpdate) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<NonRealTimeMeta lastUpdate=\"" +
           lastUpdate +
           "\"><LtcChangeTable tcFps=\"25\"><LtcChange frameCount=\"0\" value=\"12595923\" "
           "status=\"increment\"/></LtcChangeTable><Device manufacturer=\"Sony\" "
           "modelName=\"ILCE-7SM3\"/></NonRealTimeMeta>";
}

void appendBytes(const fs::path& file, const Bytes& bytes) {
    std::ofstream out(file, std::ios::binary | std::ios::app);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
}

// Media shared by the file tests, made once: each ffmpeg run costs a tenth of a second.
class MediaMetadataFiles : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        dir_ = new TestSupport::TempDir();
        const std::string video = "-f lavfi -i testsrc=size=64x36:rate=25:duration=1 ";
        const std::string h264 = " -c:v libx264 -pix_fmt yuv420p ";
        const std::string ntsc = "-f lavfi -i testsrc=size=64x36:rate=30000/1001:duration=1 ";
        ffmpeg(video + "-f lavfi -i sine=r=48000:d=1" + h264 +
                   "-c:a pcm_s16le -timecode 01:02:03:04 -metadata "
                   "creation_time=2023-07-01T14:25:30Z -metadata make=Acme -metadata model=Cam1",
               "tc.mov");
        ffmpeg(video + h264 + "-metadata make=Acme", "make_only.mov");
        ffmpeg(ntsc + "-f lavfi -i sine=r=48000:d=1 -ac 2 -c:a aac" + h264, "ntsc.mp4");
        ffmpeg("-f lavfi -i smptebars=size=64x36:rate=30000/1001:duration=1" + h264,
               "ntsc_other.mp4");
        ffmpeg("-f lavfi -i testsrc=size=128x72:rate=30000/1001:duration=1" + h264, "large.mp4");
        ffmpeg("-i " + path("tc.mov") + " -map 0:v -c copy -metadata:s:v:0 rotate=90",
               "rotated.mov");
        ffmpeg(video + "-c:v prores_ks", "prores.mov");
        ffmpeg("-f lavfi -i sine=r=44100:d=0.5 -c:a aac", "audio.m4a");

        const Bytes sonyBox = qt::box("meta", qt::text(sonyXml("2023-07-01T14:25:30+09:00")));
        for (const char* name : {"sony.mp4", "sony.MOV", "sony.mxf"}) {
            fs::copy_file(path("ntsc.mp4"), path(name));
            appendBytes(path(name), sonyBox);
        }
        fs::copy_file(path("tc.mov"), path("tc_sony.mov"));
        appendBytes(path("tc_sony.mov"), sonyBox);
        fs::copy_file(path("ntsc_other.mp4"), path("A001_20230701_142530.mp4"));
        fs::copy_file(path("ntsc_other.mp4"), path("DJI_01_0001.mp4"));
    }

    static void TearDownTestSuite() {
        delete dir_;
        dir_ = nullptr;
    }

    static std::string path(const std::string& name) { return (*dir_ / name).string(); }

    // Arguments as one blank-separated line; none of them holds a blank.
    static void ffmpeg(const std::string& options, const std::string& output) {
        std::vector<std::string> args = {"ffmpeg", "-nostdin", "-v", "error", "-y"};
        std::istringstream words(options);
        for (std::string w; words >> w;) {
            args.push_back(w);
        }
        args.push_back(path(output));
        auto result = TestSupport::runProcess(args);
        ASSERT_EQ(result.exitCode, 0) << result.err;
    }

    static TestSupport::TempDir* dir_;
};

TestSupport::TempDir* MediaMetadataFiles::dir_ = nullptr;

TEST_F(MediaMetadataFiles, ReadsMovieProperties) {
    struct Case {
        const char* name;
        std::optional<float> fps;
        std::optional<std::pair<int, int>> size;
        double duration;
        int channels;
    };
    const Case cases[] = {
        {"tc.mov", 25.0f, std::pair{64, 36}, 1.0, 1},
        {"ntsc.mp4", 30000.0f / 1001, std::pair{64, 36}, 1.0, 2},
        {"rotated.mov", 25.0f, std::pair{36, 64}, 1.0, 1},
        {"audio.m4a", std::nullopt, std::nullopt, 0.5, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const fs::path file = path(c.name);
        auto fps = MediaMetadata::readFrameRate(file);
        ASSERT_EQ(fps.has_value(), c.fps.has_value());
        if (fps) {
            EXPECT_NEAR(*fps, *c.fps, 1e-4);
        }
        EXPECT_EQ(MediaMetadata::readVideoSize(file), c.size);
        // AAC adds a priming frame of 1024 samples at most.
        EXPECT_NEAR(MediaMetadata::readDuration(file), c.duration, 0.025);
        EXPECT_EQ(MediaMetadata::readChannelCount(file), c.channels);
    }
}

TEST_F(MediaMetadataFiles, WaveShapeComesFromItsChunks) {
    struct Case {
        const char* name;
        Bytes wav;
        double duration;
        int channels;
    };
    const Case cases[] = {
        {"stereo 16-bit",
         RiffWriter::wave({RiffWriter::fmt(2, 48000, 16), RiffWriter::silence(2, 16, 24000)}), 0.5,
         2},
        {"float extensible, 6 channels",
         RiffWriter::wave(
             {RiffWriter::fmtExtensible(6, 96000, 32, 3), RiffWriter::silence(6, 32, 9600)}),
         0.1, 6},
        {"data size past the end: what is there plays",
         RiffWriter::wave(
             {RiffWriter::fmt(2, 48000, 16), Chunk{"data", Bytes(4800, 0), 0xFFFFFFF0}}),
         0.025, 2},
        {"fmt hidden behind a chunk that runs past the end",
         RiffWriter::wave({Chunk{"JUNK", Bytes(4, 0), 0x7FFFFFF0}, RiffWriter::fmt(2, 48000, 16),
                           RiffWriter::silence(2, 16, 4800)}),
         0.0, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const fs::path file = path("shape.wav");
        RiffWriter::writeFile(file, c.wav);
        const auto meta = MediaMetadata::readClipMeta(file);
        EXPECT_NEAR(meta.duration, c.duration, 1e-9);
        EXPECT_EQ(meta.channels, c.channels);
        EXPECT_FALSE(meta.fps);
        EXPECT_FALSE(meta.size);
    }
}

TEST_F(MediaMetadataFiles, ChannelIndicesFromIXML) {
    auto ixmlTracks = [](std::initializer_list<const char*> indices) {
        std::string text = "<BWFXML><TRACK_LIST><TRACK_COUNT>2</TRACK_COUNT>";
        for (const char* i : indices) {
            text += "<TRACK><NAME>Boom</NAME><CHANNEL_INDEX>" + std::string(i) +
                    "</CHANNEL_INDEX><INTERLEAVE_INDEX>1</INTERLEAVE_INDEX></TRACK>";
        }
        return RiffWriter::wave({RiffWriter::fmt(2, 48000, 24),
                                 RiffWriter::text("iXML", text + "</TRACK_LIST></BWFXML>")});
    };
    auto latin1 = ixmlTracks({"5", "6"});
    // A Latin-1 "é" in a track name: the chunk is no UTF-8, yet its numbers read.
    const auto at =
        std::search(latin1.begin(), latin1.end(), std::begin("Boom"), std::end("Boom") - 1);
    *at = 0xE9;
    struct Case {
        const char* name;
        const char* file;
        Bytes bytes;
        int channelCount;
        std::vector<int> indices;
    };
    const Case cases[] = {
        {"indices 3 and 4", "a.wav", ixmlTracks({"3", "4"}), 2, {3, 4}},
        {"count does not match", "a.wav", ixmlTracks({"3", "4"}), 3, {1, 2, 3}},
        {"an index twice", "a.wav", ixmlTracks({"3", "3"}), 2, {1, 2}},
        {"white space around numbers", "a.wav", ixmlTracks({" 7 ", "\n8"}), 2, {7, 8}},
        {"upper-case BWF extension", "a.BWF", ixmlTracks({"3", "4"}), 2, {3, 4}},
        {"Latin-1 chunk", "a.wav", latin1, 2, {5, 6}},
        {"no iXML", "a.wav", RiffWriter::wave({RiffWriter::fmt(1, 48000, 24)}), 1, {1}},
        {"not a WAV name", "a.mp4", ixmlTracks({"3", "4"}), 2, {1, 2}},
        {"not a WAV, no channels", "a.mp4", ixmlTracks({}), 0, {1}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const fs::path file = path(std::string("indices_") + c.file);
        RiffWriter::writeFile(file, c.bytes);
        EXPECT_EQ(MediaMetadata::readAudioChannelIndices(file, c.channelCount), c.indices);
        fs::remove(file);
    }
}

// The file system's own birth time where it keeps one, else the modification time.
std::optional<Date> fileSystemDate(const fs::path& file) {
    struct statx st {};
    if (statx(AT_FDCWD, file.c_str(), 0, STATX_BTIME | STATX_MTIME, &st) != 0) {
        return std::nullopt;
    }
    const auto& t = (st.stx_mask & STATX_BTIME) != 0 ? st.stx_btime : st.stx_mtime;
    return static_cast<double>(t.tv_sec) + t.tv_nsec / 1e9;
}

TEST_F(MediaMetadataFiles, RecordingClockTakesTheBestSourceFirst) {
    ScopedTimeZone berlin("Europe/Berlin");
    RiffWriter::writeFile(
        path("bwf_20230115_080000.wav"),
        RiffWriter::wave({RiffWriter::fmt(1, 48000, 16), RiffWriter::bext(julyFirst())}));
    RiffWriter::writeFile(path("short_20230115_080000.wav"),
                          RiffWriter::wave({RiffWriter::bextTruncated(julyFirst(), 300)}));
    // The Sony date carries its zone: 14:25:30 at UTC+9 is 05:25:30 UTC.
    constexpr Date kSonyDate = 1688189130;
    struct Case {
        const char* name;
        std::optional<Date> date;
        ClockQuality quality;
    };
    const Case cases[] = {
        {"bwf_20230115_080000.wav", kJulyFirstUtc, ClockQuality::embedded},
        {"short_20230115_080000.wav", 1673766000, ClockQuality::filename},
        {"sony.mp4", kSonyDate, ClockQuality::embedded},
        {"sony.MOV", kSonyDate, ClockQuality::embedded},
        {"sony.mxf", fileSystemDate(path("sony.mxf")), ClockQuality::filesystem},
        {"A001_20230701_142530.mp4", kJulyFirstBerlin, ClockQuality::filename},
        {"tc.mov", kJulyFirstUtc, ClockQuality::asset},
        {"ntsc.mp4", fileSystemDate(path("ntsc.mp4")), ClockQuality::filesystem},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto clock = MediaMetadata::readRecordingClock(path(c.name));
        EXPECT_EQ(clock.quality, c.quality);
        ASSERT_EQ(clock.date.has_value(), c.date.has_value());
        if (clock.date) {
            EXPECT_NEAR(*clock.date, *c.date, 1e-6);
        }
    }
}

TEST_F(MediaMetadataFiles, DeviceTakesTheMostDirectSourceFirst) {
    RiffWriter::writeFile(path("ZOOM0001.WAV"), RiffWriter::wave({RiffWriter::fmt(2, 48000, 24)}));
    RiffWriter::Bext originator;
    originator.originator = "F8n Recorder";
    RiffWriter::writeFile(path("ZOOM0002.WAV"), RiffWriter::wave({RiffWriter::fmt(2, 48000, 24),
                                                                  RiffWriter::bext(originator)}));
    // A Sony clip whose sidecar names the camera; the sidecar comes before the file's own XML.
    fs::copy_file(path("sony.mp4"), path("C0001.MP4"), fs::copy_options::overwrite_existing);
    TestSupport::writeText(path("C0001M01.XML"),
                           "<NonRealTimeMeta><Device manufacturer=\"Sony\" modelName=\"FX3\"/>"
                           "</NonRealTimeMeta>");
    fs::copy_file(path("ntsc.mp4"), path("C0002.mp4"), fs::copy_options::overwrite_existing);
    TestSupport::writeText(path("C0002.xml"), "<Clip><CameraInfo Model=\"C70\"/></Clip>");
    // Timed metadata in a movie of our own making.
    qt::Track meta;
    meta.handler = "meta";
    meta.sampleEntry = qt::mebxEntry({{1, "mdta", "com.example.camera.model", 1}});
    meta.samples = {qt::mebxSample({{1, qt::text("Cam A")}})};
    const auto timed = qt::movie({meta}, 600, 600);
    RiffWriter::writeFile(path("timed.mov"), Bytes(timed.begin(), timed.end()));

    const auto fingerprint = MediaMetadata::readDeviceInfo(path("ntsc.mp4"));
    ASSERT_TRUE(fingerprint);
    EXPECT_EQ(fingerprint->size(), 20u);
    EXPECT_EQ(fingerprint->rfind("cam_", 0), 0u);
    EXPECT_EQ(fingerprint->find_first_not_of("0123456789abcdef", 4), std::string::npos);

    struct Case {
        const char* name;
        std::optional<std::string> device;
    };
    const Case cases[] = {
        {"ZOOM0001.WAV", "ZOOM"},
        {"ZOOM0002.WAV", "F8n Recorder"},
        // The container's model alone, though the make is there too.
        {"tc.mov", "Cam1"},
        {"make_only.mov", "Acme"},
        {"C0001.MP4", "Sony FX3"},
        {"C0002.mp4", "C70"},
        {"sony.mp4", "Sony ILCE-7SM3"},
        {"timed.mov", "Cam A"},
        {"DJI_01_0001.mp4", "DJI 01"},
        // Same encoder settings, other pictures: one camera.
        {"ntsc_other.mp4", fingerprint},
        {"prores.mov", std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(MediaMetadata::readDeviceInfo(path(c.name)), c.device);
    }
    EXPECT_NE(MediaMetadata::readDeviceInfo(path("large.mp4")), fingerprint);
}

TEST_F(MediaMetadataFiles, TimecodeTrackThenSonyThenBroadcastWave) {
    RiffWriter::Bext bext;
    bext.timeReference = 48000 * 10;
    RiffWriter::writeFile(
        path("tc.wav"), RiffWriter::wave({RiffWriter::fmt(1, 48000, 16), RiffWriter::bext(bext)}));
    // The same bytes under a movie's name: the BWF step reads WAV files only.
    fs::copy_file(path("tc.wav"), path("tc_wav.mov"), fs::copy_options::overwrite_existing);
    struct Case {
        const char* name;
        std::optional<double> seconds;
    };
    const Case cases[] = {
        {"tc.mov", 3723.16}, {"tc_sony.mov", 3723.16},     {"sony.mp4", 86399.48},
        {"tc.wav", 10.0},    {"tc_wav.mov", std::nullopt}, {"ntsc.mp4", std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto tc = MediaMetadata::readStartTimecode(path(c.name));
        ASSERT_EQ(tc.has_value(), c.seconds.has_value());
        if (tc) {
            EXPECT_NEAR(*tc, *c.seconds, 1e-9);
        }
    }
}

TEST_F(MediaMetadataFiles, ClipMetaAgreesWithEachReaderAlsoWhenReadConcurrently) {
    const std::vector<std::string> names = {
        "tc.mov",     "sony.mp4",        "rotated.mov",
        "audio.m4a",  "DJI_01_0001.mp4", "ZOOM0001.WAV",
        "prores.mov", "ntsc.mp4",        "A001_20230701_142530.mp4"};
    RiffWriter::writeFile(
        path("ZOOM0001.WAV"),
        RiffWriter::wave({RiffWriter::fmt(2, 48000, 24), RiffWriter::silence(2, 24, 480)}));
    std::vector<MediaMetadata::ClipMeta> serial;
    for (const auto& name : names) {
        SCOPED_TRACE(name);
        const fs::path file = path(name);
        const auto meta = MediaMetadata::readClipMeta(file);
        serial.push_back(meta);
        EXPECT_EQ(meta.duration, MediaMetadata::readDuration(file));
        EXPECT_EQ(meta.fps, MediaMetadata::readFrameRate(file));
        EXPECT_EQ(meta.device, MediaMetadata::readDeviceInfo(file));
        const auto clock = MediaMetadata::readRecordingClock(file);
        EXPECT_EQ(meta.date, clock.date);
        EXPECT_EQ(meta.quality, clock.quality);
        EXPECT_EQ(meta.channels, MediaMetadata::readChannelCount(file));
        EXPECT_EQ(meta.channelMap, MediaMetadata::readAudioChannelIndices(file, meta.channels));
        EXPECT_EQ(meta.size, MediaMetadata::readVideoSize(file));
        EXPECT_EQ(meta.timecode, MediaMetadata::readStartTimecode(file));
    }
    EXPECT_EQ(serial[5].channelMap, (std::vector<int>{1, 2}));
    EXPECT_NEAR(serial[5].duration, 0.01, 1e-12);

    auto same = [](const MediaMetadata::ClipMeta& a, const MediaMetadata::ClipMeta& b) {
        return a.duration == b.duration && a.fps == b.fps && a.device == b.device &&
               a.date == b.date && a.quality == b.quality && a.channels == b.channels &&
               a.channelMap == b.channelMap && a.size == b.size && a.timecode == b.timecode;
    };
    std::vector<std::future<bool>> workers;
    for (std::size_t t = 0; t < 4; ++t) {
        workers.push_back(std::async(std::launch::async, [&, t] {
            bool ok = true;
            for (int round = 0; round < 3; ++round) {
                for (std::size_t i = 0; i < names.size(); ++i) {
                    const std::size_t k = (i + t) % names.size();
                    ok = ok && same(MediaMetadata::readClipMeta(path(names[k])), serial[k]);
                }
            }
            return ok;
        }));
    }
    for (auto& w : workers) {
        EXPECT_TRUE(w.get());
    }
}

TEST_F(MediaMetadataFiles, BadInputGivesDefaultsWithoutHanging) {
    fs::create_directories(path("folder.mov"));
    ASSERT_EQ(mkfifo(path("pipe.wav").c_str(), 0600), 0);
    RiffWriter::writeFile(path("empty.mov"), {});
    std::mt19937 random(7);
    Bytes noise(65536);
    for (auto& b : noise) {
        b = static_cast<std::uint8_t>(random());
    }
    RiffWriter::writeFile(path("noise.mov"), noise);
    RiffWriter::writeFile(
        path("lying.wav"),
        RiffWriter::wave({Chunk{"fmt ", Bytes(4, 0), 3}, Chunk{"data", Bytes(8, 0), 0xFFFFFFFF}}));
    const auto pastEnd =
        qt::cat({qt::box("ftyp", qt::text("qt  ")),
                 qt::boxClaiming("moov", 1u << 30, qt::box("mvhd", Bytes(100, 0)))});
    RiffWriter::writeFile(path("past_end.mov"), Bytes(pastEnd.begin(), pastEnd.end()));
    Bytes deep = qt::userDataText("\xA9mod", "Buried");
    for (int i = 0; i < 3000; ++i) {
        deep = qt::box(i % 2 ? "udta" : "moov", deep);
    }
    RiffWriter::writeFile(path("deep.mov"), Bytes(deep.begin(), deep.end()));

    struct Case {
        const char* name;
        bool regularFile;
    };
    const Case cases[] = {
        {"missing.mov", false}, {"folder.mov", false}, {"pipe.wav", false},    {"empty.mov", true},
        {"noise.mov", true},    {"lying.wav", true},   {"past_end.mov", true}, {"deep.mov", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        // A FIFO with no writer would block a plain open forever.
        auto read = std::async(std::launch::async,
                               [&] { return MediaMetadata::readClipMeta(path(c.name)); });
        ASSERT_EQ(read.wait_for(std::chrono::seconds(20)), std::future_status::ready);
        const auto meta = read.get();
        EXPECT_EQ(meta.duration, 0);
        EXPECT_FALSE(meta.fps);
        EXPECT_FALSE(meta.device);
        EXPECT_EQ(meta.channels, 1);
        EXPECT_EQ(meta.channelMap, std::vector<int>{1});
        EXPECT_FALSE(meta.size);
        EXPECT_FALSE(meta.timecode);
        EXPECT_EQ(meta.quality, c.regularFile ? ClockQuality::filesystem : ClockQuality::none);
        EXPECT_EQ(meta.date.has_value(), c.regularFile);
    }
}

TEST(MediaMetadata, RealRecordingProperties) {
    const fs::path file = fs::path(TESSARIN_REALDATA_DIR) / "avbs_full.mp4";
    if (!fs::exists(file)) {
        GTEST_SKIP() << "real recordings not present at " << file;
    }
    // A 10x18 px, 25 fps H.264 clip with mono AAC; its movie header says 15.08 s.
    const auto meta = MediaMetadata::readClipMeta(file);
    EXPECT_EQ(meta.fps, 25.0f);
    EXPECT_EQ(meta.size, (std::pair{10, 18}));
    EXPECT_EQ(meta.channels, 1);
    EXPECT_NEAR(meta.duration, 15.08, 1e-6);
    ASSERT_TRUE(meta.device);
    EXPECT_EQ(meta.device->rfind("cam_", 0), 0u);
}

} // namespace
