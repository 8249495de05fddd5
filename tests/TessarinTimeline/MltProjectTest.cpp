#include "TessarinTimeline/MltProject.h"

#include "tests/TessarinTimeline/TimelineFixtures.h"
#include "tests/support/TestSupport.h"

#include <cmath>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <sstream>

using TestSupport::runProcess;

namespace {

// A project read back one element a line, as the writer lays it out (xmllint checks the rest).
struct Project {
    using Fields = std::map<std::string, std::string>;
    Fields profile;
    std::map<std::string, Fields> properties; // of each producer and playlist
    std::map<std::string, std::vector<std::pair<std::string, long>>> playlists; // producer, frames
    std::vector<std::string> tracks;                                            // "id hide"
    std::vector<Fields> transitions;
};

Project readProject(const std::string& xml) {
    Project p;
    std::string owner;
    Project::Fields* fields = nullptr;
    std::istringstream lines(xml);
    for (std::string line; std::getline(lines, line);) {
        auto tag = TimelineFixtures::firstTag(line);
        auto& a = tag.attributes;
        if (tag.name == "property") {
            (*fields)[a["name"]] = tag.text;
        } else if (tag.name == "profile") {
            p.profile = a;
        } else if (tag.name == "producer" || tag.name == "playlist") {
            owner = a["id"];
            fields = &p.properties[owner];
        } else if (tag.name == "transition") {
            fields = &p.transitions.emplace_back();
        } else if (tag.name == "blank") {
            p.playlists[owner].emplace_back("", std::stol(a["length"]));
        } else if (tag.name == "entry") {
            // A bin entry names its producer alone: the whole clip.
            const long frames = a.count("in") ? std::stol(a["out"]) - std::stol(a["in"]) + 1 : 0;
            p.playlists[owner].emplace_back(a["producer"], frames);
        } else if (tag.name == "track") {
            p.tracks.push_back(a["producer"] + " " + a["hide"]);
        }
    }
    return p;
}

std::string writeProject(const std::vector<TimelineFixtures::Clip>& clips) {
    const auto read = EventStream::readTimeline(TimelineFixtures::eventStream(clips));
    return MltProject::write(std::get<Timeline>(read));
}

// The MLT XML DTD as Debian's libmlt-data installs it. Its `properties` declaration lacks the
// brackets XML requires, so no validator reads the file as shipped; the copy mends that one line.
std::filesystem::path mltDtd(const TestSupport::TempDir& dir) {
    std::istringstream files(runProcess({"/usr/bin/dpkg", "-L", "libmlt-data"}).out);
    std::string shipped;
    for (std::string line; std::getline(files, line);) {
        shipped = line.ends_with("/mlt-xml.dtd") ? line : shipped;
    }
    std::ifstream in(shipped);
    std::string dtd((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_FALSE(dtd.empty()) << "libmlt-data installs no mlt-xml.dtd";
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
        {"/usr/bin/xmllint", "--noout", "--dtdvalid", mltDtd(dir), (dir / "shoot.mlt").string()});
    EXPECT_EQ(lint.exitCode, 0) << lint.err;

    const auto p = readProject(xml);
    EXPECT_EQ(p.profile.at("frame_rate_num") + "/" + p.profile.at("frame_rate_den"), "24000/1001");
    EXPECT_EQ(p.profile.at("width") + "x" + p.profile.at("height"), "1920x1080");
    // Background first, then the video tracks in event order, then sound without picture; one
    // mix into the background per track above it, so that every track is heard.
    EXPECT_EQ(p.tracks, (std::vector<std::string>{"background ", "playlist0 ", "playlist1 ",
                                                  "playlist2 video"}));
    std::string names;
    for (const auto* id : {"playlist0", "playlist1", "playlist2"}) {
        names += p.properties.at(id).at("shotcut:name") + " ";
    }
    EXPECT_EQ(names, "CamA CamB Sound ");
    std::string mixes;
    for (const auto& t : p.transitions) {
        mixes += t.at("mlt_service") == "mix" ? t.at("a_track") + "<" + t.at("b_track") + " " : "";
    }
    EXPECT_EQ(mixes, "0<1 0<2 0<3 ");

    const double fps = 24000.0 / 1001.0;
    int placed = 0;
    for (const auto* id : {"playlist0", "playlist1", "playlist2"}) {
        long position = 0;
        for (const auto& [producer, frames] : p.playlists.at(id)) {
            if (!producer.empty()) {
                const auto& props = p.properties.at(producer);
                const auto& clip = *std::find_if(shoot.begin(), shoot.end(), [&](const auto& c) {
                    return c.path == props.at("resource");
                });
                SCOPED_TRACE(clip.path);
                ++placed;
                EXPECT_NE(clip.status, "failed");
                EXPECT_NEAR(position / fps, clip.start, 1 / fps);
                EXPECT_NEAR(frames / fps, clip.duration, 1 / fps);
                EXPECT_EQ(props.at("tessarin:syncStatus"), clip.status);
            }
            position += frames;
        }
    }
    EXPECT_EQ(placed, 6);
    const auto& bin = p.playlists.at("main_bin");
    ASSERT_EQ(bin.size(), 1u);
    EXPECT_EQ(p.properties.at(bin[0].first).at("resource"), "/shoot/Day 1/CamA/A003 #&.MOV");
}

TEST(MltProject, DriftPlaysThroughATimeWarpProducer) {
    const auto p =
        readProject(writeProject({{"/s/T1.WAV", "S", "audio", 0, 3600, "synced", {}, 50.0},
                                  {"/s/A1.MOV", "A", "video", 2, 3000, "synced", 25.0}}));
    const auto& sound = p.playlists.at("playlist1");
    ASSERT_EQ(sound.size(), 1u);
    const auto& warped = p.properties.at(sound[0].first);
    EXPECT_EQ(warped.at("mlt_service"), "timewarp");
    EXPECT_EQ(warped.at("resource"), "1.00005:/s/T1.WAV");
    // Played 50 ppm faster, an hour of sound fills 0.18 s (4.5 frames) less of the timeline.
    EXPECT_NEAR(sound[0].second, 3600 * 25 - 4.5, 1);
    const auto& camera = p.playlists.at("playlist0");
    EXPECT_EQ(p.properties.at(camera.back().first).at("mlt_service"), "avformat");
}
