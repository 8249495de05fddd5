#include "TessarinEngine/IngestEngine.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

namespace {

ClipItem clip(const std::string& file, double length = 10, std::optional<Date> date = {},
              ClockQuality quality = ClockQuality::none) {
    ClipItem c("/media/" + file);
    c.duration = length;
    c.recordingDate = date;
    c.clockQuality = quality;
    return c;
}

TrackSource trackOf(const std::string& name, std::vector<ClipItem> clips,
                    SourceType type = SourceType::audio, const std::string& session = "/s") {
    TrackSource t;
    t.name = name;
    t.type = type;
    t.session = session;
    t.clips = std::move(clips);
    return t;
}

TrackSource video(const std::string& name, const std::vector<std::string>& files,
                  const std::string& session = "/s") {
    std::vector<ClipItem> clips;
    for (const auto& f : files) {
        clips.push_back(clip(f));
    }
    return trackOf(name, clips, SourceType::video, session);
}

constexpr Date kT = 1700000000;
constexpr auto kEmbedded = ClockQuality::embedded;

// A recorder's channel files in one track: "{take}{suffix}.WAV" for every take and suffix, each
// take with its own length and start.
TrackSource recorder(const std::vector<std::string>& takes,
                     const std::vector<std::string>& suffixes, std::vector<ClipItem> more = {}) {
    std::vector<ClipItem> clips;
    for (std::size_t k = 0; k < takes.size(); ++k) {
        for (const auto& suffix : suffixes) {
            clips.push_back(clip(takes[k] + suffix + ".WAV", 30.0 + k, kT + 100.0 * k, kEmbedded));
        }
    }
    clips.insert(clips.end(), more.begin(), more.end());
    auto track = trackOf("Sound", clips);
    track.deviceName = "F8n";
    return track;
}

// "name/type/device/session: files" per track, joined by "; ".
std::string summary(const std::vector<TrackSource>& tracks) {
    std::string out;
    for (const auto& t : tracks) {
        out += (out.empty() ? "" : "; ") + t.name + "/" + std::string(toString(t.type)) + "/" +
               t.deviceName.value_or("-") + "/" + t.session + ":";
        for (const auto& c : t.clips) {
            out += " " + c.url.stem().string();
        }
    }
    return out;
}

} // namespace

TEST(IngestEngine, ChannelFilesOfOneTrackSplitIntoOneTrackPerChannel) {
    // No twin, and no suffix: it joins the first channel in natural order.
    const auto plain = clip("S4.WAV", 10, kT + 900, kEmbedded);
    // An empty summary: the track stays as it is.
    const std::tuple<const char*, TrackSource, std::string, long> cases[] = {
        {"two channels in one folder", recorder({"SCENE01", "SCENE02"}, {"_1", "_2"}),
         "Sound 1/audio/F8n//s: SCENE01_1 SCENE02_1; Sound 2 2/audio/F8n//s: SCENE01_2 SCENE02_2",
         1},
        {"four channels, one folder per take",
         recorder({"ZOOM0003/ZOOM0003", "ZOOM0004/ZOOM0004"}, {"_Tr1", "_Tr2", "_Tr10", "_LR"}),
         "Sound LR/audio/F8n//s: ZOOM0003_LR ZOOM0004_LR; "
         "Sound Tr1/audio/F8n//s: ZOOM0003_Tr1 ZOOM0004_Tr1; "
         "Sound Tr2/audio/F8n//s: ZOOM0003_Tr2 ZOOM0004_Tr2; "
         "Sound Tr10/audio/F8n//s: ZOOM0003_Tr10 ZOOM0004_Tr10",
         3},
        // The first channel's extra clip keeps it from the others' lead by the channel rules.
        {"nine of ten clips twinned", recorder({"S1", "S2", "S3"}, {"_1", "_2", "_3"}, {plain}),
         "Sound 1/audio/F8n//s: S1_1 S2_1 S3_1 S4; Sound 2 2/audio/F8n//s: S1_2 S2_2 S3_2; "
         "Sound 3/audio/F8n//s: S1_3 S2_3 S3_3",
         1},
        {"no twins", recorder({"T001", "T002", "T003"}, {""}), "", 0},
        {"a video track", video("Sound", {"C1_1.MP4", "C1_2.MP4"}), "", 0},
        // Two channel files per take, but the take number sits in the suffix.
        {"take numbers in the suffix", recorder({"TASCAM_0001", "TASCAM_0002"}, {"S12", "S34"}), "",
         0},
    };
    for (const auto& [name, track, expected, followers] : cases) {
        SCOPED_TRACE(name);
        // A track of that name elsewhere keeps its name.
        const auto other = video("Sound 2", {"C0001.MP4"});
        TestSupport::LogCapture log;
        auto out = IngestEngine::splitChannelTracks({other, track});
        EXPECT_EQ(out[0], other);
        out.erase(out.begin());
        if (expected.empty()) {
            EXPECT_EQ(out, std::vector<TrackSource>{track});
        } else {
            EXPECT_EQ(summary(out), expected);
        }
        EXPECT_EQ(log.lines().size(), expected.empty() ? 0u : 1u);
        out = IngestEngine::detectSiblingChannels(out);
        EXPECT_EQ(std::count_if(out.begin(), out.end(),
                                [](const TrackSource& t) { return t.siblingOf.has_value(); }),
                  followers);
    }
}

TEST(IngestEngine, TwinsShareStemLengthAndClock) {
    const auto fileClock = ClockQuality::filesystem;
    const auto track = trackOf("A", {clip("T1_1.wav", 10, kT, kEmbedded)});
    const std::tuple<const char*, ClipItem, bool> cases[] = {
        {"trusted clocks 5 s apart", clip("T1_2.wav", 10, kT + 5, kEmbedded), false},
        {"trusted clocks 1 s apart", clip("T1_2.wav", 10, kT + 1, ClockQuality::filename), true},
        {"file clock 5 s apart", clip("T1_2.wav", 10, kT + 5, fileClock), true},
        {"lengths 0.1 s apart", clip("T1_2.wav", 10.1), true},
        {"lengths 0.15 s apart", clip("T1_2.wav", 10.15), false},
    };
    for (const auto& [name, other, twins] : cases) {
        EXPECT_EQ(IngestEngine::twin(other, track).has_value(), twins) << name;
    }
}

TEST(IngestEngine, ChannelTracksNeedNineTenthsOfTheLargerTwinned) {
    for (int twins : {9, 8}) {
        SCOPED_TRACE(twins);
        std::vector<ClipItem> nine, ten;
        for (int i = 0; i < 10; ++i) {
            ten.push_back(clip("S" + std::to_string(i) + "_1.wav"));
            if (i < 9) {
                nine.push_back(clip("S" + std::to_string(i) + "_2.wav", i < twins ? 10 : 20));
            }
        }
        TestSupport::LogCapture log;
        const auto out =
            IngestEngine::detectSiblingChannels({trackOf("A", nine), trackOf("Z", ten)});
        // The larger track leads though its name sorts last.
        EXPECT_FALSE(out[1].siblingOf);
        EXPECT_EQ(out[0].siblingOf, twins == 9 ? std::optional(out[1].id) : std::nullopt);
        EXPECT_EQ(log.contains("[Ingest] 'A' is a channel of 'Z': 9/9 clips share stem, length "
                               "and clock — will follow it instead of matching"),
                  twins == 9);
    }
}

TEST(IngestEngine, ChannelSetsJoinThroughChains) {
    // A and C disagree by trusted clocks, but each pairs with B, whose clock is a file date.
    const auto a = trackOf("A", {clip("T_1.wav", 10, kT, kEmbedded)});
    const auto b = trackOf("B", {clip("T_2.wav", 10, kT + 3, ClockQuality::filesystem)});
    const auto c = trackOf("C", {clip("T_3.wav", 10, kT + 5, kEmbedded)});
    // Video tracks, tracks already tied elsewhere and other sessions take no part.
    const auto v = video("V", {"T_4.mov"});
    auto tied = trackOf("D", {clip("T_5.wav")});
    tied.siblingOf = v.id;
    const auto far = trackOf("E", {clip("T_6.wav")}, SourceType::audio, "/t");
    const auto out = IngestEngine::detectSiblingChannels({c, b, a, v, tied, far});
    // Equal clip counts: the name first in natural order leads.
    std::vector<std::optional<Uuid>> leads;
    for (const auto& t : out) {
        leads.push_back(t.siblingOf);
    }
    EXPECT_EQ(leads, (std::vector<std::optional<Uuid>>{a.id, a.id, {}, {}, v.id, {}}));
    // C has no twin on A itself, so it follows the lead without a clip to lean on.
    EXPECT_FALSE(out[0].clips[0].siblingLeaderID);
    EXPECT_EQ(out[1].clips[0].siblingLeaderID, a.clips[0].id);
}

TEST(IngestEngine, CameraGroupsFollowFileNumberingAcrossTracks) {
    // Two one-clip cameras: whether the second one's numbering goes on from the first.
    const std::tuple<const char*, const char*, bool> pairs[] = {
        {"C0120.MP4", "C0152.MP4", true},
        {"C0120.MP4", "C0153.MP4", false},
        {"C0120.MP4", "C0120.MP4", false},
        {"C0120.MP4", "D0121.MP4", false},
    };
    for (const auto& [first, second, grouped] : pairs) {
        SCOPED_TRACE(second);
        const auto out =
            IngestEngine::assignCameraGroups({video("A", {first}), video("B", {second})});
        EXPECT_EQ(out[0].cameraGroup.has_value(), grouped);
        EXPECT_EQ(out[1].cameraGroup, out[0].cameraGroup);
    }
    // Sound files and other sessions never continue a camera.
    std::vector<std::optional<std::string>> groups;
    for (const auto& t : IngestEngine::assignCameraGroups(
             {video("A", {"A001.MOV"}), video("B", {"A002.MOV"}), video("C", {"B001.MOV"}),
              video("D", {"B005.MOV"}), video("E", {}), trackOf("F", {clip("A003.WAV")}),
              video("G", {"A003.MOV"}, "/t")})) {
        groups.push_back(t.cameraGroup);
    }
    EXPECT_EQ(groups,
              (std::vector<std::optional<std::string>>{"cam-0", "cam-0", "cam-1", "cam-1",
                                                       std::nullopt, std::nullopt, std::nullopt}));
}

TEST(IngestEngine, CameraGroupProposalsDescribeTheRun) {
    const auto a = video("Card 1", {"C0101.MP4", "C0120.MP4"});
    const auto b = video("Card 2", {"C0121.MP4", "C0125.MP4"});
    const auto c = video("Card 3", {"C0126.MP4"});
    const auto proposals = IngestEngine::detectCameraGroups({c, a, b});
    ASSERT_EQ(proposals.size(), 1u);
    const auto& p = proposals[0];
    EXPECT_EQ(p.trackIDs, (std::vector<Uuid>{a.id, b.id, c.id}));
    EXPECT_EQ(p.clipCount, 5);
    EXPECT_EQ(p.sequenceHint, "C0120 → C0121, C0125 → C0126");

    // Only accepted proposals count, and one whose tracks are gone takes no number.
    auto gone = p;
    gone.id = Uuid::random();
    gone.trackIDs = {a.id, Uuid::random()};
    const auto out = IngestEngine::applyCameraGroups({a, b, c}, {gone, p, p}, {gone.id, p.id});
    EXPECT_EQ(out[0].cameraGroup, "cam-1");
}
