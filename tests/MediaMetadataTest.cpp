#include "TessarinEngine/MediaMetadata.h"

#include "TessarinEngine/platform/MappedFile.h"
#include "tests/support/MediaFixtures.h"
#include "tests/support/QuickTimeWriter.h"
#include "tests/support/RiffWriter.h"
#include "tests/support/TestSupport.h"

#include <atomic>
#include <chrono>
#include <fcntl.h>
#include <future>
#include <gtest/gtest.h>
#include <iterator>
#include <numeric>
#include <sstream>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
namespace qt = QuickTimeWriter;
namespace rw = RiffWriter;
using Bytes = std::vector<std::uint8_t>;

using TestSupport::ScopedTimeZone;

// 2023-07-01 14:25:30 UTC, and the same wall clock in Berlin (UTC+2 in summer).
constexpr Date kJulyFirstUtc = 1688221530;
constexpr Date kJulyFirstBerlin = 1688214330;

template <class T>
struct Case {
    const char* name;
    Bytes bytes;
    T expected;
};

void expectNear(std::optional<double> actual, std::optional<double> expected, double tolerance) {
    ASSERT_EQ(actual.has_value(), expected.has_value());
    if (actual) {
        EXPECT_NEAR(*actual, *expected, tolerance);
    }
}

// A recorder's bext chunk: recorded 2023-07-01 14:25:30, `timeReference` samples after midnight.
rw::Bext recorderBext(std::uint64_t timeReference = 0) {
    return {"", "F8n Recorder", "2023-07-01", "14:25:30", timeReference};
}

rw::Chunk ixmlTracks(std::initializer_list<const char*> channelIndices) {
    std::string text = "<BWFXML><TRACK_LIST>";
    for (const char* i : channelIndices) {
        text +=
            "<TRACK><NAME>Boom</NAME><CHANNEL_INDEX>" + std::string(i) + "</CHANNEL_INDEX></TRACK>";
    }
    return rw::text("iXML", text + "</TRACK_LIST></BWFXML>");
}

std::string sonyXml(const std::string& lastUpdate) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<NonRealTimeMeta lastUpdate=\"" +
           lastUpdate +
           "\"><LtcChangeTable tcFps=\"25\"><LtcChange frameCount=\"0\" value=\"12595923\" "
           "status=\"increment\"/></LtcChangeTable><Device manufacturer=\"Sony\" "
           "modelName=\"ILCE-7SM3\"/></NonRealTimeMeta>";
}

TEST(MediaMetadata, BroadcastWaveDeviceComesFromTheFirstChunkNamingOne) {
    auto bext = [](const char* originator, const char* description = "") {
        return rw::bext({description, originator, "", "", 0});
    };
    const auto ixml =
        rw::text("iXML", "<BWFXML><MANUFACTURER>Sound Devices</MANUFACTURER>\n<MODEL> MixPre-6 II\n"
                         "</MODEL></BWFXML>");
    const Case<std::optional<std::string>> cases[] = {
        {"originator", rw::wave({bext(" F8n Recorder\r\n")}), "F8n Recorder"},
        {"maker and model in the description",
         rw::wave({bext("", "sTRK1=Boom\r\nMAKER= Zaxcom \r\nMODEL=Nova;x")}), "Zaxcom Nova"},
        {"originator wins over the description",
         rw::wave({bext("Deva", "MAKER=Zaxcom\nMODEL=Nova")}), "Deva"},
        {"iXML before bext comes first", rw::wave({ixml, bext("Deva")}),
         "Sound Devices MixPre-6 II"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(MediaMetadata::readBWFOriginator(c.bytes), c.expected);
    }
}

TEST(MediaMetadata, BroadcastWaveTimecodeIsTimeReferenceOverSampleRate) {
    const auto fmt = rw::fmt(1, 48000, 16);
    const Case<std::optional<double>> cases[] = {
        {"96 kHz, one hour in",
         rw::wave({rw::fmt(1, 96000, 24), rw::bext(recorderBext(345600000))}), 3600.0},
        {"no fmt: 48 kHz assumed", rw::wave({rw::bext(recorderBext(24000))}), 0.5},
        // TimeReference takes bytes 338 to 346 of the chunk.
        {"bext of 346 bytes", rw::wave({fmt, rw::bext(recorderBext(24000), 346)}), 0.5},
        {"bext of 344 bytes", rw::wave({fmt, rw::bext(recorderBext(24000), 344)}), std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(MediaMetadata::readBWFTimecode(c.bytes), c.expected);
    }
}

TEST(MediaMetadata, SonyXmlDateCarriesItsZone) {
    auto endingIn = [](const std::string& tail) {
        return qt::text(std::string(5000, '\x80') + tail);
    };
    const Case<std::optional<Date>> cases[] = {
        {"no zone", endingIn(sonyXml("2023-07-01T14:25:30")), std::nullopt},
        {"the last XML counts",
         endingIn(sonyXml("2020-01-01T00:00:00Z") + sonyXml("2023-07-01T14:25:30Z")),
         kJulyFirstUtc},
        {"bytes after it that are no UTF-8", endingIn(sonyXml("2023-07-01T14:25:30Z") + "\xFF"),
         std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(MediaMetadata::readSonyXMLDate(c.bytes), c.expected);
    }
}

TEST(MediaMetadata, SonyTimecodeComesFromATopLevelMetaAndReadsBackToFront) {
    auto nrtm = [](const std::string& fps, int frame, const std::string& value) {
        return "<NonRealTimeMeta><LtcChangeTable tcFps=\"" + fps + "\"><LtcChange frameCount=\"" +
               std::to_string(frame) + "\" value=\"" + value +
               "\" status=\"increment\"/></LtcChangeTable></NonRealTimeMeta>";
    };
    const std::pair<std::string, std::optional<double>> cases[] = {
        {nrtm("25", 0, "12595923"), 86399.48},
        {nrtm("25", 0, "25595923"), std::nullopt},
        // No change at frame 0: the first increment.
        {nrtm("25", 120, "01000010"), 36000.04},
    };
    for (const auto& [xml, seconds] : cases) {
        SCOPED_TRACE(xml);
        expectNear(MediaMetadata::sonyNRTMTimecodeFromXML(xml), seconds, 1e-9);
    }

    const std::string xml = nrtm("25", 0, "00000001");
    const Bytes ftyp = qt::box("ftyp", qt::text("XAVC"));
    const Bytes other = qt::box("meta", qt::text("<NonRealTimeMeta>no changes</NonRealTimeMeta>"));
    EXPECT_EQ(MediaMetadata::sonyNonRealTimeMetaXML(
                  qt::cat({ftyp, other, qt::box("meta", qt::text(xml))})),
              xml);
    EXPECT_FALSE(MediaMetadata::sonyNonRealTimeMetaXML(
        qt::cat({ftyp, qt::box("moov", qt::box("meta", qt::text(xml)))})));
}

TEST(MediaMetadata, CameraFromXmlAttributes) {
    const std::pair<const char*, std::optional<std::string>> cases[] = {
        {"<?xml version=\"1.0\" encoding=\"UTF-8\"?><NonRealTimeMeta xmlns=\"urn:x\"><Device "
         "manufacturer=\"Sony\" modelName=\"ILCE-7SM3\" serialNo=\"1\"/></NonRealTimeMeta>",
         "Sony ILCE-7SM3"},
        {"<Clip><CameraInfo Manufacturer=\"Canon\" Model=\"C70\"/></Clip>", "Canon C70"},
        // Another element's model stands in until a device names one.
        {"<Clip><Lens model=\"FE 24-70\"/></Clip>", "FE 24-70"},
        {"<Clip><Lens model=\"FE 24-70\"/><Device manufacturer=\"Sony\" modelName=\"FX3\"/></Clip>",
         "Sony FX3"},
    };
    for (const auto& [xml, device] : cases) {
        SCOPED_TRACE(xml);
        EXPECT_EQ(MediaMetadata::parseCameraFromXML(xml), device);
    }
}

TEST(MediaMetadata, CameraAttributesArePropertyListsOrText) {
    auto plist = [](const std::string& body) {
        return qt::text("<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>" +
                        body + "</dict></plist>");
    };
    const Case<std::optional<std::string>> cases[] = {
        {"Model before Make",
         plist("<key>Make</key><string>Sony</string><key>Model</key><string>FX30</string>"),
         "FX30"},
        {"empty model skipped",
         plist("<key>Model</key><string></string><key>DeviceModel</key><string>A7</string>"), "A7"},
        // libplist's copying getter aborts on this: the value up to the NUL is the model.
        {"NUL inside the model",
         plist("<key>Model</key><string>A" + std::string(1, '\0') + "B</string>"), "A"},
        {"plain text", qt::text(std::string("ZV-E10\n\0", 8)), "ZV-E10"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(MediaMetadata::extractCameraAttributesModel(c.bytes), c.expected);
    }
}

TEST(MediaMetadata, NamesGiveDatesAndCodecsGiveFingerprints) {
    // A date must end the stem and be one the calendar knows.
    EXPECT_FALSE(MediaMetadata::dateFromFilename("clip_20230701_142530_2.mov"));
    EXPECT_FALSE(MediaMetadata::dateFromFilename("20230230_120000.mov"));
    // A published FNV-1a 64-bit test vector.
    EXPECT_EQ(MediaMetadata::codecFingerprint(qt::text("foobar")), "cam_85944171f73967e8");
}

// ---- Files made at test time ----

// Media shared by the file tests, made once: each ffmpeg run costs a tenth of a second.
class MediaMetadataFiles : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        dir_.emplace();
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
               "A001_20230701_142530.mp4");
        ffmpeg("-f lavfi -i testsrc=size=128x72:rate=30000/1001:duration=1" + h264, "large.mp4");
        ffmpeg("-i " + path("tc.mov") + " -map 0:v -c copy -metadata:s:v:0 rotate=90",
               "rotated.mov");
        ffmpeg(video + "-c:v prores_ks", "prores.mov");

        const Bytes sonyBox = qt::box("meta", qt::text(sonyXml("2023-07-01T14:25:30+09:00")));
        for (const char* name : {"sony.MOV", "sony.mxf", "C0001.MP4"}) {
            write(name, qt::cat({MediaFixtures::readBytes(path("ntsc.mp4")), sonyBox}));
        }
        // A sidecar naming another camera than the file's own XML.
        TestSupport::writeText(path("C0001M01.XML"),
                               "<NonRealTimeMeta><Device manufacturer=\"Sony\" modelName=\"FX3\"/>"
                               "</NonRealTimeMeta>");
        write("tc_sony.mov", qt::cat({MediaFixtures::readBytes(path("tc.mov")), sonyBox}));
        fs::copy_file(path("A001_20230701_142530.mp4"), path("DJI_01_0001.mp4"));
        // A container that names its model and dates itself, under a dated name and beside a
        // sidecar naming another camera.
        fs::copy_file(path("tc.mov"), path("A002_20230115_080000.mov"));
        fs::copy_file(path("tc.mov"), path("C0002.MOV"));
        fs::copy_file(path("C0001M01.XML"), path("C0002M01.XML"));

        const qt::Track meta{.handler = "meta",
                             .sampleEntry = qt::mebxEntry({{1, "com.example.camera.model"}}),
                             .samples = {qt::mebxSample({{1, qt::text("Cam A")}})}};
        write("timed.mov", qt::movie({meta}, 600));

        write("ZOOM0001.WAV",
              rw::wave({rw::fmt(2, 48000, 24), ixmlTracks({"3", "4"}), rw::silence(2, 24, 24000)}));
        const auto bwf = rw::wave({rw::fmt(1, 48000, 16), rw::bext(recorderBext(480000))});
        write("ZOOM_20230115_080000.wav", bwf);
        write("bwf.mov", bwf);
        // The time reference a quarter second into the origination's second: 14:25:30.25.
        write("TREF0001.WAV",
              rw::wave({rw::fmt(1, 48000, 16), rw::bext(recorderBext(51930ull * 48000 + 12000))}));
        write("exact_20230115_080000.wav", rw::wave({rw::bext(recorderBext(), 338)}));
        write("short_20230115_080000.wav", rw::wave({rw::bext(recorderBext(), 337)}));
        write("float6.wav",
              rw::wave({rw::fmtExtensible(6, 96000, 32, 3), rw::silence(6, 32, 9600)}));
        write("unfinished.wav",
              rw::wave({rw::fmt(2, 48000, 16), rw::Chunk{"data", Bytes(48000, 0), 0xFFFFFFF0}}));
    }

    static void TearDownTestSuite() { dir_.reset(); }

    static std::string path(const std::string& name) { return (*dir_ / name).string(); }
    static void write(const std::string& name, const Bytes& bytes) {
        MediaFixtures::writeBytes(path(name), bytes);
    }

    // Arguments as one blank-separated line; none of them holds a blank.
    static void ffmpeg(const std::string& options, const std::string& output) {
        std::istringstream words(options);
        std::vector<std::string> args(std::istream_iterator<std::string>(words), {});
        args.push_back(path(output));
        MediaFixtures::runFfmpeg(args);
    }

    static inline std::optional<TestSupport::TempDir> dir_;
};

TEST_F(MediaMetadataFiles, ReadsMediaProperties) {
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
        {"ZOOM0001.WAV", std::nullopt, std::nullopt, 0.5, 2},
        {"float6.wav", std::nullopt, std::nullopt, 0.1, 6},
        // A recorder that stopped before fixing its sizes: what the file holds plays.
        {"unfinished.wav", std::nullopt, std::nullopt, 0.25, 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto meta = MediaMetadata::readClipMeta(path(c.name));
        expectNear(meta.fps, c.fps, 1e-4);
        EXPECT_EQ(meta.size, c.size);
        // AAC adds a priming frame of 1024 samples at most.
        EXPECT_NEAR(meta.duration, c.duration, 0.025);
        EXPECT_EQ(meta.channels, c.channels);
    }
}

TEST_F(MediaMetadataFiles, ChannelIndicesFromIXML) {
    auto latin1 = rw::wave({ixmlTracks({"5", "6"})});
    // A Latin-1 "é" in a track name: the chunk is no UTF-8, yet its numbers read.
    *std::search(latin1.begin(), latin1.end(), std::begin("Boom"), std::end("Boom") - 1) = 0xE9;
    struct Case {
        const char* name;
        Bytes bytes;
        int channelCount;
        std::vector<int> indices;
    };
    const Case cases[] = {
        {"indices 3 and 4", rw::wave({ixmlTracks({"3", "4"})}), 2, {3, 4}},
        {"count does not match", rw::wave({ixmlTracks({"3", "4"})}), 3, {1, 2, 3}},
        {"an index twice", rw::wave({ixmlTracks({"3", "3"})}), 2, {1, 2}},
        {"Latin-1 chunk", latin1, 2, {5, 6}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(MediaMetadata::readIXMLChannelIndices(c.bytes, c.channelCount), c.indices);
    }
    EXPECT_EQ(MediaMetadata::readClipMeta(path("ZOOM0001.WAV")).channelMap,
              (std::vector<int>{3, 4}));
}

TEST_F(MediaMetadataFiles, EachFieldTakesItsBestSourceFirst) {
    // Names are read in the local zone; the BWF and Sony clocks must not move with it.
    ScopedTimeZone berlin("Europe/Berlin");
    // The file system dates of files this suite made.
    const Date now =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    // The Sony date carries its zone: 14:25:30 at UTC+9 is 05:25:30 UTC.
    constexpr Date kSony = 1688189130;
    const auto fingerprint = MediaMetadata::readClipMeta(path("ntsc.mp4")).device;
    ASSERT_TRUE(fingerprint && fingerprint->starts_with("cam_"));
    using enum ClockQuality;
    struct Case {
        const char* name;
        std::optional<std::string> device;
        std::optional<Date> date;
        ClockQuality quality;
        std::optional<double> timecode;
    };
    const Case cases[] = {
        // The container's model alone, though the make is there too.
        {"tc.mov", "Cam1", kJulyFirstUtc, asset, 3723.16},
        {"tc_sony.mov", "Cam1", kSony, embedded, 3723.16},
        {"sony.MOV", "Sony ILCE-7SM3", kSony, embedded, 86399.48},
        // Sony XML names the camera and the date in movies only; the name says SONY.
        {"sony.mxf", "SONY", now, filesystem, 86399.48},
        // A sidecar comes before the file's own XML.
        {"C0001.MP4", "Sony FX3", kSony, embedded, 86399.48},
        // The container's model before a sidecar; a dated name before the container's date.
        {"C0002.MOV", "Cam1", kJulyFirstUtc, asset, 3723.16},
        {"A002_20230115_080000.mov", "Cam1", 1673766000, filename, 3723.16},
        {"timed.mov", "Cam A", now, filesystem, std::nullopt},
        {"make_only.mov", "Acme", now, filesystem, std::nullopt},
        {"DJI_01_0001.mp4", "DJI 01", now, filesystem, std::nullopt},
        // Same encoder settings, other pictures: one camera.
        {"A001_20230701_142530.mp4", fingerprint, kJulyFirstBerlin, filename, std::nullopt},
        {"prores.mov", std::nullopt, now, filesystem, std::nullopt},
        // A time reference in another second is a timecode of its own; one in the same second
        // gives the clock its fraction.
        {"ZOOM_20230115_080000.wav", "F8n Recorder", kJulyFirstUtc, embedded, 10.0},
        {"TREF0001.WAV", "F8n Recorder", kJulyFirstUtc + 0.25, embedded, 51930.25},
        // The origination time ends at byte 338 of the bext chunk.
        {"exact_20230115_080000.wav", "F8n Recorder", kJulyFirstUtc, embedded, std::nullopt},
        // One byte short of the time: the name's date, in winter time (08:00 at UTC+1).
        {"short_20230115_080000.wav", "F8n Recorder", 1673766000, filename, std::nullopt},
        // A WAV under a movie's name: its chunks are not read.
        {"bwf.mov", std::nullopt, now, filesystem, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto meta = MediaMetadata::readClipMeta(path(c.name));
        EXPECT_EQ(meta.device, c.device);
        EXPECT_EQ(meta.quality, c.quality);
        expectNear(meta.date, c.date, c.quality == filesystem ? 600 : 1e-6);
        expectNear(meta.timecode, c.timecode, 1e-9);
    }
    EXPECT_NE(MediaMetadata::readClipMeta(path("large.mp4")).device, fingerprint);
    // Only the Sony date keeps the zone it was written in; a container's "Z" is no zone.
    for (const auto& [name, offset] : {std::pair<const char*, std::optional<int>>{"sony.MOV", 540},
                                       {"tc.mov", std::nullopt},
                                       {"ZOOM_20230115_080000.wav", std::nullopt}}) {
        EXPECT_EQ(MediaMetadata::readClipMeta(path(name)).clockOffsetMinutes, offset) << name;
    }
}

auto fields(const MediaMetadata::ClipMeta& m) {
    return std::tie(m.duration, m.fps, m.device, m.date, m.quality, m.channels, m.channelMap,
                    m.size, m.timecode, m.clockOffsetMinutes);
}

TEST_F(MediaMetadataFiles, BadInputGivesDefaultsWithoutHanging) {
    fs::create_directories(path("folder.mov"));
    ASSERT_EQ(mkfifo(path("pipe.wav").c_str(), 0600), 0);
    write("empty.mov", {});
    write("noise.mov", MediaFixtures::randomBytes(65536, 7));
    // Boxes nested far deeper than any reader should follow.
    Bytes deep = qt::userDataText("\xA9mod", "Buried");
    for (int i = 0; i < 3000; ++i) {
        deep = qt::box(i % 2 ? "udta" : "moov", deep);
    }
    write("deep.mov", deep);

    const std::pair<const char*, bool> cases[] = {
        {"missing.mov", false}, {"folder.mov", false}, {"pipe.wav", false},
        {"empty.mov", true},    {"noise.mov", true},   {"deep.mov", true},
    };
    for (const auto& [name, regularFile] : cases) {
        SCOPED_TRACE(name);
        // A FIFO with no writer would block a plain open forever.
        const fs::path file = path(name);
        auto read =
            std::async(std::launch::async, [file] { return MediaMetadata::readClipMeta(file); });
        ASSERT_EQ(read.wait_for(std::chrono::seconds(20)), std::future_status::ready);
        const auto meta = read.get();
        MediaMetadata::ClipMeta unread;
        unread.date = meta.date;
        unread.quality = regularFile ? ClockQuality::filesystem : ClockQuality::none;
        unread.channelMap = {1};
        EXPECT_TRUE(fields(meta) == fields(unread));
        EXPECT_EQ(meta.date.has_value(), regularFile);
    }
}

TEST(MediaMetadata, AMappingOfAFileThatShrinksReadsZerosNotABusError) {
    TestSupport::TempDir dir;
    // Read past the end a file lost after it was mapped: zeros, and the mapping says it is
    // damaged, where a plain mapping ends the process.
    const auto blob = dir / "blob.bin";
    MediaFixtures::writeBytes(blob, MediaFixtures::randomBytes(65536, 9));
    auto mapped = MappedFile::open(blob);
    ASSERT_TRUE(mapped);
    ASSERT_EQ(::truncate(blob.c_str(), 100), 0);
    EXPECT_FALSE(mapped->damaged());
    const auto bytes = mapped->bytes();
    EXPECT_EQ(std::accumulate(bytes.begin() + 8192, bytes.end(), 0u), 0u);
    EXPECT_TRUE(mapped->damaged());
}

} // namespace
