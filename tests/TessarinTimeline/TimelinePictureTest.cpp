#include "TessarinTimeline/TimelinePicture.h"

#include "TessarinTimeline/platform/TextCells.h"
#include "tests/TessarinTimeline/TimelineFixtures.h"
#include "tests/support/TestSupport.h"

#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <sstream>

namespace {

// The stated metrics of the picture's text: 11 px, 6.7 px a character cell.
constexpr double kCell = 6.7;
constexpr double kFontSize = 11;

struct Box {
    double x = 0, y = 0, w = 0, h = 0;
    std::string text;
};

// Six tracks of clips over just over three hours, 250 in all, of lengths from 8 s to 10 min, with
// long, wide-character and markup-bearing names.
std::vector<TimelineFixtures::Clip> bigShoot() {
    const double lengths[] = {8, 310, 45, 600, 301, 120, 20, 299, 480, 30};
    const char* statuses[] = {"synced", "synced", "weak", "failed"};
    std::vector<TimelineFixtures::Clip> clips;
    for (int si = 0; si < 6; ++si) {
        const std::string track =
            si < 4 ? "Camera " + std::string(1, char('A' + si)) : "Rec " + std::to_string(si);
        double t = si * 7.0;
        for (int ci = 0; clips.size() < 250 && ci < 42; ++ci) {
            const double d = lengths[(ci + si) % 10];
            const std::string n = std::to_string(ci);
            const std::string names[] = {
                "A" + n + ".MOV", "CAMERA_B_ROLL_2024-06-01_take_" + n + ".MP4",
                "\u30AB\u30E1\u30E9\u6771_" + n + ".MOV", "R&D <" + n + ">.wav"};
            const std::string& name = names[ci % 4];
            clips.push_back({"/shoot/" + track + "/" + name, track, si < 4 ? "video" : "audio", t,
                             d, statuses[(ci + si) % 4], 25.0});
            t += d + 40.0;
        }
    }
    return clips;
}

} // namespace

TEST(TimelinePicture, BigShootKeepsLabelsReadableAndApart) {
    const auto shoot = bigShoot();
    ASSERT_EQ(shoot.size(), 250u);
    const auto read = EventStream::readTimeline(TimelineFixtures::eventStream(shoot));
    const std::string svg = TimelinePicture::write(std::get<Timeline>(read));

    std::vector<Box> bars;
    std::vector<Box> labels;
    std::istringstream lines(svg);
    for (std::string line; std::getline(lines, line);) {
        const auto tag = TimelineFixtures::firstTag(line);
        const auto& a = tag.attributes;
        auto at = [&](const char* name) {
            return std::stod(a.at(name));
        };
        if (tag.name == "rect" && a.count("class") && a.at("class") == "clip") {
            bars.push_back({at("x"), at("y"), at("width"), at("height"), {}});
        } else if (tag.name == "text" && a.at("class") == "label") {
            // The box of the text: from the baseline up by the font size, down by a descender.
            labels.push_back({at("x"), at("y") - kFontSize, TextCells::width(tag.text) * kCell,
                              kFontSize + 3, tag.text});
        }
    }
    ASSERT_EQ(bars.size(), 250u);

    // Bars come in clip order within each lane: at least 1 px per 5 s.
    for (std::size_t i = 0; i < bars.size(); ++i) {
        EXPECT_GE(bars[i].w, shoot[i].duration / 5 - 0.01) << shoot[i].path;
    }
    for (std::size_t a = 0; a < labels.size(); ++a) {
        for (std::size_t b = a + 1; b < labels.size(); ++b) {
            const auto& p = labels[a];
            const auto& q = labels[b];
            const bool apart =
                p.x + p.w <= q.x || q.x + q.w <= p.x || p.y + p.h <= q.y || q.y + q.h <= p.y;
            EXPECT_TRUE(apart) << p.text << " overlaps " << q.text;
        }
    }
    int labelled = 0;
    for (std::size_t i = 0; i < bars.size(); ++i) {
        const auto& bar = bars[i];
        if (bar.w < 60) {
            continue;
        }
        ++labelled;
        const std::string name = shoot[i].path.substr(shoot[i].path.rfind('/') + 1);
        SCOPED_TRACE(name);
        const auto inside = std::find_if(labels.begin(), labels.end(), [&](const Box& l) {
            return l.x >= bar.x && l.x + l.w <= bar.x + bar.w && l.y >= bar.y &&
                   l.y + l.h <= bar.y + bar.h;
        });
        ASSERT_NE(inside, labels.end());
        // The whole name, or its head and tail around an ellipsis.
        const auto cut = inside->text.find("\u2026");
        if (cut == std::string::npos) {
            EXPECT_EQ(inside->text, name);
        } else {
            const auto head = inside->text.substr(0, cut);
            const auto tail = inside->text.substr(cut + 3);
            EXPECT_TRUE(name.starts_with(head) && name.ends_with(tail)) << inside->text;
            EXPECT_GE(head.size(), 3u);
        }
    }
    EXPECT_GT(labelled, 100);

    // The picture must be one that a renderer draws at the size it states.
    TestSupport::TempDir dir;
    TestSupport::writeText(dir / "big.svg", svg);
    const auto png = TestSupport::runProcess(
        {"/usr/bin/rsvg-convert", "-o", (dir / "big.png").string(), (dir / "big.svg").string()});
    EXPECT_EQ(png.exitCode, 0) << png.err;
    // 3 hours at 1 px per 5 s need 2160 px beside the margins; the PNG's header holds its width.
    std::ifstream in(dir / "big.png", std::ios::binary);
    unsigned char header[20] = {};
    in.read(reinterpret_cast<char*>(header), sizeof header);
    EXPECT_GE(header[18] * 256 + header[19], 2160);
}
