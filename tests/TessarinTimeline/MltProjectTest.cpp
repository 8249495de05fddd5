#include "TessarinTimeline/MltProject.h"

#include "TessarinEngine/platform/Xml.h"
#include "tests/TessarinTimeline/TimelineFixtures.h"
#include "tests/support/TestSupport.h"

#include <cmath>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <regex>
#include <sstream>

using TestSupport::runProcess;

namespace {

// What a project says, read line by line as the writer lays it out: producers with their
// properties, playlists as their blanks and entries, the multitrack and the transitions.
struct Project {
    struct Entry {
        std::string producer; // empty for a blank
        long in = 0;
        long out = 0;
    };
    std::map<std::string, std::string> profile;
    std::map<std::string, std::map<std::string, std::string>> properties; // by producer/playlist
    std::map<std::string, std::vector<Entry>> playlists;
    std::vector<std::pair<std::string, std::string>> tracks; // producer, hide
    std::vector<std::map<std::string, std::string>> transitions;
};

std::string unescape(std::string text) {
    const std::pair<const char*, const char*> entities[] = {
        {"&lt;", "<"}, {"&gt;", ">"}, {"&quot;", "\""}, {"&apos;", "'"}, {"&amp;", "&"}};
    for (const auto& [entity, plain] : entities) {
        for (auto at = text.find(entity); at != std::string::npos; at = text.find(entity, at + 1)) {
            text.replace(at, std::strlen(entity), plain);
        }
    }
    return text;
}

Project readProject(const std::string& xml) {
    Project p;
    std::string owner;
    std::map<std::string, std::string>* transition = nullptr;
    const bool wellFormed = Xml::forEachElement(xml, [&](const Xml::Element& e) {
        auto attr = [&](const char* name) {
            return e.attribute(name).value_or("");
        };
        if (e.name == "profile") {
            for (const auto& [k, v] : e.attributes) {
                p.profile[k] = v;
            }
        } else if (e.name == "producer" || e.name == "playlist") {
            owner = attr("id");
            transition = nullptr;
            if (e.name == "playlist") {
                p.playlists[owner];
            }
        } else if (e.name == "blank") {
            p.playlists[owner].push_back({"", 0, std::stol(attr("length")) - 1});
        } else if (e.name == "entry") {
            // A bin entry names its producer alone: the whole clip.
            p.playlists[owner].push_back({attr("producer"),
                                          std::stol(e.attribute("in").value_or("0")),
                                          std::stol(e.attribute("out").value_or("-1"))});
        } else if (e.name == "track") {
            p.tracks.emplace_back(attr("producer"), attr("hide"));
        } else if (e.name == "transition") {
            transition = &p.transitions.emplace_back();
        }
    });
    EXPECT_TRUE(wellFormed);
    // Property values are element text, which the start-tag reader does not see.
    const std::regex property(R"re(<property name="([^"]+)">([^<]*)</property>)re");
    owner.clear();
    std::size_t transitionIndex = 0;
    std::istringstream lines(xml);
    for (std::string line; std::getline(lines, line);) {
        std::smatch m;
        if (std::regex_search(line, m, std::regex(R"re(<(producer|playlist) id="([^"]+)")re"))) {
            owner = m[2];
        } else if (line.find("<transition") != std::string::npos) {
            owner = "transition";
            ++transitionIndex;
        } else if (std::regex_search(line, m, property)) {
            if (owner == "transition") {
                p.transitions[transitionIndex - 1][m[1]] = unescape(m[2]);
            } else {
                p.properties[owner][m[1]] = unescape(m[2]);
            }
        }
    }
    return p;
}

std::string writeProject(const std::vector<TimelineFixtures::Clip>& clips) {
    const auto read = EventStream::readTimeline(TimelineFixtures::eventStream(clips));
    return MltProject::write(std::get<Timeline>(read));
}

// The MLT XML DTD as Debian's packages install it. Its `properties` declaration lacks the
// brackets XML requires, so no validator reads the file as shipped; that one declaration is
// mended in the copy the tests use.
std::filesystem::path mltDtd(const TestSupport::TempDir& dir) {
    const auto listing = runProcess({"/usr/bin/dpkg", "-L", "libmlt-data"});
    std::istringstream lines(listing.out);
    std::string shipped;
    for (std::string line; std::getline(lines, line);) {
        if (line.ends_with("/mlt-xml.dtd")) {
            shipped = line;
        }
    }
    EXPECT_FALSE(shipped.empty()) << "libmlt-data installs no mlt-xml.dtd";
    std::ifstream in(shipped);
    std::string dtd((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const std::string broken = "<!ELEMENT properties property >";
    if (auto at = dtd.find(broken); at != std::string::npos) {
        dtd.replace(at, broken.size(), "<!ELEMENT properties (property)* >");
    }
    TestSupport::writeText(dir / "mlt-xml.dtd", dtd);
    return dir / "mlt-xml.dtd";
}

} // namespace

TEST(MltProject, SmallShootIsValidAndReadsBack) {
    const auto shoot = TimelineFixtures::smallShoot();
    const std::string xml = writeProject(shoot);
    TestSupport::TempDir dir;
    TestSupport::writeText(dir / "shoot.mlt", xml);
    const auto lint = runProcess(
        {"/usr/bin/xmllint", "--noout", "--dtdvalid", mltDtd(dir).string(), (dir / "shoot.mlt")});
    EXPECT_EQ(lint.exitCode, 0) << lint.err;

    const auto p = readProject(xml);
    EXPECT_EQ(p.profile.at("frame_rate_num"), "24000");
    EXPECT_EQ(p.profile.at("frame_rate_den"), "1001");
    EXPECT_EQ(p.profile.at("width"), "1920");
    EXPECT_EQ(p.profile.at("height"), "1080");

    // Background first, then the video tracks in event order, then sound without picture.
    std::vector<std::pair<std::string, std::string>> names;
    for (const auto& [producer, hide] : p.tracks) {
        const auto props = p.properties.find(producer);
        const bool named = props != p.properties.end() && props->second.count("shotcut:name");
        names.emplace_back(named ? props->second.at("shotcut:name") : producer, hide);
    }
    EXPECT_EQ(names, (std::vector<std::pair<std::string, std::string>>{
                         {"background", ""}, {"CamA", ""}, {"CamB", ""}, {"Sound", "video"}}));
    // One mix into the background per track above it, so that every track is heard.
    std::vector<std::string> mixed;
    for (const auto& t : p.transitions) {
        if (t.at("mlt_service") == "mix") {
            EXPECT_EQ(t.at("a_track"), "0");
            mixed.push_back(t.at("b_track"));
        }
    }
    EXPECT_EQ(mixed, (std::vector<std::string>{"1", "2", "3"}));

    const double fps = 24000.0 / 1001.0;
    std::map<std::string, std::string> placedIn; // resource -> playlist
    for (std::size_t ti = 1; ti < p.tracks.size(); ++ti) {
        const auto& playlist = p.tracks[ti].first;
        long position = 0;
        for (const auto& e : p.playlists.at(playlist)) {
            if (!e.producer.empty()) {
                const auto& props = p.properties.at(e.producer);
                const auto& resource = props.at("resource");
                placedIn[resource] = playlist;
                const auto& clip = *std::find_if(shoot.begin(), shoot.end(),
                                                 [&](const auto& c) { return c.path == resource; });
                SCOPED_TRACE(resource);
                EXPECT_NEAR(position / fps, clip.start, 1 / fps);
                EXPECT_NEAR((e.out - e.in + 1) / fps, clip.duration, 1 / fps);
                EXPECT_EQ(props.at("mlt_service"), "avformat");
                EXPECT_EQ(props.at("tessarin:syncStatus"), clip.status);
                EXPECT_EQ(props.at("tessarin:placement"), "A1");
                EXPECT_EQ(props.at("tessarin:explanation"), "Strong audio match \u00B7 score 9.5");
            }
            position += e.out - e.in + 1;
        }
    }
    EXPECT_EQ(placedIn.size(), 6u);
    EXPECT_FALSE(placedIn.count("/shoot/Day 1/CamA/A003 #&.MOV"));
    const auto& bin = p.playlists.at("main_bin");
    ASSERT_EQ(bin.size(), 1u);
    EXPECT_EQ(p.properties.at(bin[0].producer).at("resource"), "/shoot/Day 1/CamA/A003 #&.MOV");
}

TEST(MltProject, DriftPlaysThroughATimeWarpProducer) {
    const auto p =
        readProject(writeProject({{"/s/T1.WAV", "S", "audio", 0, 3600, "synced", {}, 50.0},
                                  {"/s/A1.MOV", "A", "video", 2, 3000, "synced", 25.0}}));
    const auto& sound = p.playlists.at("playlist1");
    ASSERT_EQ(sound.size(), 1u);
    const auto& warped = p.properties.at(sound[0].producer);
    EXPECT_EQ(warped.at("mlt_service"), "timewarp");
    EXPECT_EQ(warped.at("resource"), "1.00005:/s/T1.WAV");
    EXPECT_EQ(warped.at("warp_speed"), "1.00005");
    // Played 50 ppm faster, an hour of sound fills 0.18 s (4.5 frames) less of the timeline.
    EXPECT_NEAR(sound[0].out - sound[0].in + 1, 3600 * 25 - 4.5, 1);
    const auto& camera = p.playlists.at("playlist0");
    ASSERT_EQ(camera.size(), 2u);
    EXPECT_EQ(p.properties.at(camera[1].producer).at("mlt_service"), "avformat");
    EXPECT_EQ(p.properties.at(camera[1].producer).at("resource"), "/s/A1.MOV");
}

namespace {

// The project's sound with only one of its tracks heard, from frame `in` to `out`, as 16 kHz
// mono samples rendered by melt.
std::vector<float> renderTrackAlone(const std::string& xml, const std::string& playlist, long in,
                                    long out, const TestSupport::TempDir& dir) {
    std::string only = xml;
    const std::regex track(R"re(<track producer="(playlist\d+)"( hide="video")?/>)re");
    std::string edited;
    auto begin = only.cbegin();
    for (std::smatch m; std::regex_search(begin, only.cend(), m, track); begin = m.suffix().first) {
        edited.append(m.prefix().first, m.prefix().second);
        edited +=
            m[1] == playlist ? m.str() : "<track producer=\"" + m.str(1) + "\" hide=\"both\"/>";
    }
    edited.append(begin, only.cend());
    const auto project = dir / (playlist + ".mlt");
    const auto raw = dir / (playlist + ".raw");
    TestSupport::writeText(project, edited);
    const auto melt = runProcess(
        {"/usr/bin/melt", "-quiet", project.string(), "in=" + std::to_string(in),
         "out=" + std::to_string(out), "-consumer", "avformat:" + raw.string(), "f=s16le",
         "acodec=pcm_s16le", "vn=1", "video_off=1", "ar=16000", "ac=1", "real_time=0"});
    EXPECT_EQ(melt.exitCode, 0) << melt.err;
    std::ifstream file(raw, std::ios::binary);
    std::vector<float> samples;
    for (std::int16_t s = 0; file.read(reinterpret_cast<char*>(&s), sizeof s);) {
        samples.push_back(s / 32768.0f);
    }
    return samples;
}

// The shift of `b` against `a` in seconds (positive: b's sound comes later) that best lines them
// up, searched by brute force within +-0.2 s on 4 kHz block means.
double bestLag(const std::vector<float>& a, const std::vector<float>& b) {
    auto quarter = [](const std::vector<float>& x) {
        std::vector<double> y(x.size() / 4);
        for (std::size_t i = 0; i < y.size(); ++i) {
            y[i] = x[4 * i] + x[4 * i + 1] + x[4 * i + 2] + x[4 * i + 3];
        }
        return y;
    };
    const auto qa = quarter(a);
    const auto qb = quarter(b);
    const long n = static_cast<long>(std::min(qa.size(), qb.size()));
    constexpr long kMaxLag = 800;
    long best = 0;
    double bestSum = -1e300;
    for (long lag = -kMaxLag; lag <= kMaxLag; ++lag) {
        double sum = 0;
        for (long i = std::max(0L, -lag); i < n && i + lag < n; ++i) {
            sum += qa[i] * qb[i + lag];
        }
        if (sum > bestSum) {
            bestSum = sum;
            best = lag;
        }
    }
    return best / 4000.0;
}

} // namespace

TEST(MltProject, MeltRendersTwoTracksAlignedWhereTheEngineMatchedThem) {
    TestSupport::TempDir dir;
    ASSERT_EQ(TestSupport::makeShoot(dir / "shoot", "small").exitCode, 0);
    const auto run = TestSupport::runEngine(dir / "shoot" / "request.json",
                                            {"XDG_CACHE_HOME=" + (dir / "cache").string()});
    ASSERT_EQ(run.exitCode, 0) << run.log;
    std::string events;
    for (const auto& e : run.events) {
        events += e.dump() + "\n";
    }
    TestSupport::writeText(dir / "events.jsonl", events);
    const auto exported =
        runProcess({TESSARIN_TIMELINE_PATH, "--input", (dir / "events.jsonl").string(), "--mlt",
                    (dir / "shoot.mlt").string()});
    ASSERT_EQ(exported.exitCode, 0) << exported.err;
    std::ifstream file(dir / "shoot.mlt");
    const std::string xml((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());

    // A camera clip the engine placed by an audio match, and the recorder take under it.
    struct Span {
        double from = 0;
        double to = 0;
    };
    auto spanOf = [](const nlohmann::json& r) {
        const double start = r["startOffset"];
        return Span{start, start + r["duration"].get<double>()};
    };
    std::optional<Span> camera;
    std::optional<Span> overlap;
    for (const auto& r : run.ofType("result")) {
        if (!camera && r["track"] == "CamA" && r["syncStatus"] == "synced" &&
            r["placement"] == "A1") {
            camera = spanOf(r);
        }
    }
    ASSERT_TRUE(camera);
    for (const auto& r : run.ofType("result")) {
        const auto take = spanOf(r);
        const Span both{std::max(take.from, camera->from), std::min(take.to, camera->to)};
        if (!overlap && r["track"] == "Sound" && both.to - both.from > 12) {
            overlap = both;
        }
    }
    ASSERT_TRUE(overlap);
    // The small shoot runs at 25 fps; a 16 s stretch inside the overlap keeps melt quick.
    const long in = std::lround((overlap->from + 1) * 25);
    const long out = std::lround(std::min(overlap->to - 1, overlap->from + 17) * 25);
    const auto cameraSound = renderTrackAlone(xml, "playlist0", in, out, dir);
    const auto recorderSound = renderTrackAlone(xml, "playlist2", in, out, dir);
    ASSERT_GT(cameraSound.size(), 16000u * 10);
    ASSERT_GT(recorderSound.size(), 16000u * 10);
    EXPECT_LE(std::abs(bestLag(recorderSound, cameraSound)), 1 / 25.0);
}
