#include "TessarinEngine/IngestEngine.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

namespace {

struct ClipSetup {
    ClipSetup(std::string f, double d = 10, std::optional<Date> t = {},
              ClockQuality q = ClockQuality::none)
        : file(std::move(f)), duration(d), date(t), quality(q) {}
    std::string file;
    double duration;
    std::optional<Date> date;
    ClockQuality quality;
};

TrackSource trackOf(const std::string& name, const std::vector<ClipSetup>& clips,
                    SourceType type = SourceType::audio, const std::string& session = "/s") {
    TrackSource t;
    t.name = name;
    t.type = type;
    t.session = session;
    for (const auto& setup : clips) {
        ClipItem c("/media/" + name + "/" + setup.file);
        c.duration = setup.duration;
        c.recordingDate = setup.date;
        c.clockQuality = setup.quality;
        t.clips.push_back(c);
    }
    return t;
}

constexpr Date kT = 1700000000;

} // namespace

TEST(IngestEngine, ChannelStems) {
    const std::pair<const char*, const char*> cases[] = {
        {"/r/SCENE12_3.wav", "SCENE12"}, {"/r/_3.wav", "_3"},   {"/r/TAKE.wav", "TAKE"},
        {"/r/A_B_C.wav", "A_B"},         {"/r/T1_.wav", "T1_"}, {"/r/Sc_1_Tr1.WAV", "Sc_1"},
    };
    for (const auto& [file, stem] : cases) {
        EXPECT_EQ(IngestEngine::channelStem(file), stem) << file;
    }
}

TEST(IngestEngine, OneClipChannelPairsByLengthAndClock) {
    struct Case {
        const char* name;
        ClipSetup a;
        ClipSetup b;
        std::string sessionB;
        bool channels;
    };
    const Case cases[] = {
        {"no dates", {"T1_1.wav"}, {"T1_2.wav"}, "/s", true},
        {"trusted clocks 5 s apart",
         {"T1_1.wav", 10, kT, ClockQuality::embedded},
         {"T1_2.wav", 10, kT + 5, ClockQuality::embedded},
         "/s",
         false},
        {"trusted clocks 1 s apart",
         {"T1_1.wav", 10, kT, ClockQuality::filename},
         {"T1_2.wav", 10, kT + 1, ClockQuality::embedded},
         "/s",
         true},
        {"one file clock 5 s apart",
         {"T1_1.wav", 10, kT, ClockQuality::embedded},
         {"T1_2.wav", 10, kT + 5, ClockQuality::filesystem},
         "/s",
         true},
        {"lengths 0.1 s apart", {"T1_1.wav", 10.0}, {"T1_2.wav", 10.1}, "/s", true},
        {"lengths 0.15 s apart", {"T1_1.wav", 10.0}, {"T1_2.wav", 10.15}, "/s", false},
        {"same file name", {"T1_1.wav"}, {"T1_1.wav"}, "/s", false},
        {"other stem", {"T1_1.wav"}, {"T2_2.wav"}, "/s", false},
        {"other session", {"T1_1.wav"}, {"T1_2.wav"}, "/t", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto lead = trackOf("Rec 9", {c.a});
        const auto member = trackOf("Rec 10", {c.b}, SourceType::audio, c.sessionB);
        TestSupport::LogCapture log;
        const auto out = IngestEngine::detectSiblingChannels({member, lead});
        EXPECT_FALSE(out[1].siblingOf);
        if (!c.channels) {
            EXPECT_FALSE(out[0].siblingOf);
            EXPECT_TRUE(log.lines().empty());
            continue;
        }
        // Equal clip counts: the name first in natural order leads.
        EXPECT_EQ(out[0].siblingOf, lead.id);
        EXPECT_EQ(out[0].clips[0].siblingLeaderID, lead.clips[0].id);
        EXPECT_EQ(log.lines(), std::vector<std::string>{
                                   "[Ingest] 'Rec 10' is a channel of 'Rec 9': 1/1 clips share "
                                   "stem, length and clock — will follow it instead of matching"});
    }
}

TEST(IngestEngine, ChannelTracksNeedNineTenthsOfTheirClipsTwinned) {
    for (int twins : {9, 8}) {
        SCOPED_TRACE(twins);
        std::vector<ClipSetup> a, b;
        for (int i = 0; i < 10; ++i) {
            a.push_back({"S" + std::to_string(i) + "_1.wav", 30});
            b.push_back({"S" + std::to_string(i) + "_2.wav", i < twins ? 30.0 : 40.0});
        }
        const auto out = IngestEngine::detectSiblingChannels({trackOf("A", a), trackOf("B", b)});
        EXPECT_EQ(out[1].siblingOf.has_value(), twins == 9);
        if (twins == 9) {
            EXPECT_EQ(out[1].clips[8].siblingLeaderID, out[0].clips[8].id);
            EXPECT_FALSE(out[1].clips[9].siblingLeaderID);
        }
    }

    // Nine clips against ten: the larger track leads though its name sorts last.
    std::vector<ClipSetup> ten, nine;
    for (int i = 0; i < 10; ++i) {
        ten.push_back({"S" + std::to_string(i) + "_1.wav"});
        if (i < 9) {
            nine.push_back({"S" + std::to_string(i) + "_2.wav"});
        }
    }
    TestSupport::LogCapture log;
    const auto out = IngestEngine::detectSiblingChannels({trackOf("A", nine), trackOf("Z", ten)});
    EXPECT_EQ(out[0].siblingOf, out[1].id);
    EXPECT_FALSE(out[1].siblingOf);
    EXPECT_TRUE(log.contains("'A' is a channel of 'Z': 9/9 clips"));
}

TEST(IngestEngine, ChannelSetsJoinThroughChains) {
    // A and C disagree by trusted clocks, but each pairs with B, whose clock is a file date.
    const auto a = trackOf("A", {{"T_1.wav", 10, kT, ClockQuality::embedded}});
    const auto b = trackOf("B", {{"T_2.wav", 10, kT + 3, ClockQuality::filesystem}});
    const auto c = trackOf("C", {{"T_3.wav", 10, kT + 5, ClockQuality::embedded}});
    auto video = trackOf("V", {{"T_4.mov"}}, SourceType::video);
    auto tied = trackOf("D", {{"T_5.wav"}});
    tied.siblingOf = video.id;
    const auto out = IngestEngine::detectSiblingChannels({a, b, c, video, tied});
    EXPECT_FALSE(out[0].siblingOf);
    EXPECT_EQ(out[1].siblingOf, a.id);
    EXPECT_EQ(out[2].siblingOf, a.id);
    // C has no twin on A itself, so it follows the lead without a clip to lean on.
    EXPECT_FALSE(out[2].clips[0].siblingLeaderID);
    EXPECT_FALSE(out[3].siblingOf);
    EXPECT_EQ(out[4].siblingOf, video.id);
}

TEST(IngestEngine, CameraGroupsFollowFileNumberingAcrossTracks) {
    const auto video = SourceType::video;
    struct Case {
        const char* name;
        std::vector<TrackSource> tracks;
        std::vector<std::optional<std::string>> groups;
    };
    const Case cases[] = {
        {"next number",
         {trackOf("B", {{"C0121.MP4"}, {"C0130.MP4"}}, video),
          trackOf("A", {{"C0101.MP4"}, {"C0120.MP4"}}, video)},
         {"cam-0", "cam-0"}},
        {"gap of 32",
         {trackOf("A", {{"C0120.MP4"}}, video), trackOf("B", {{"C0152.MP4"}}, video)},
         {"cam-0", "cam-0"}},
        {"gap of 33",
         {trackOf("A", {{"C0120.MP4"}}, video), trackOf("B", {{"C0153.MP4"}}, video)},
         {std::nullopt, std::nullopt}},
        {"same number",
         {trackOf("A", {{"C0100.MP4"}, {"C0120.MP4"}}, video),
          trackOf("B", {{"C0120.MP4"}, {"C0130.MP4"}}, video)},
         {std::nullopt, std::nullopt}},
        {"no number",
         {trackOf("A", {{"C0100.MP4"}, {"C0120.MP4"}}, video),
          trackOf("B", {{"C0121a.MP4"}}, video)},
         {std::nullopt, std::nullopt}},
        {"other prefix",
         {trackOf("A", {{"C0120.MP4"}}, video), trackOf("B", {{"D0121.MP4"}}, video)},
         {std::nullopt, std::nullopt}},
        {"second gap too large",
         {trackOf("A", {{"C0001.MP4"}, {"C0010.MP4"}}, video),
          trackOf("B", {{"C0011.MP4"}, {"C0020.MP4"}}, video),
          trackOf("C", {{"C0060.MP4"}}, video)},
         {"cam-0", "cam-0", std::nullopt}},
        {"other session",
         {trackOf("A", {{"C0120.MP4"}}, video, "/s"), trackOf("B", {{"C0121.MP4"}}, video, "/t")},
         {std::nullopt, std::nullopt}},
        {"audio",
         {trackOf("A", {{"ZOOM0001.WAV"}}), trackOf("B", {{"ZOOM0002.WAV"}})},
         {std::nullopt, std::nullopt}},
        {"two groups",
         {trackOf("A", {{"A001.MOV"}}, video), trackOf("B", {{"A002.MOV"}}, video),
          trackOf("C", {{"B001.MOV"}}, video), trackOf("D", {{"B005.MOV"}}, video),
          trackOf("E", {}, video)},
         {"cam-0", "cam-0", "cam-1", "cam-1", std::nullopt}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto out = IngestEngine::assignCameraGroups(c.tracks);
        std::vector<std::optional<std::string>> groups;
        for (const auto& t : out) {
            groups.push_back(t.cameraGroup);
        }
        EXPECT_EQ(groups, c.groups);
    }
}

TEST(IngestEngine, CameraGroupProposalsDescribeTheRun) {
    const auto a = trackOf("Card 1", {{"C0101.MP4"}, {"C0120.MP4"}}, SourceType::video);
    const auto b = trackOf("Card 2", {{"C0121.MP4"}, {"C0125.MP4"}}, SourceType::video);
    const auto c = trackOf("Card 3", {{"C0126.MP4"}}, SourceType::video);
    const auto proposals = IngestEngine::detectCameraGroups({c, a, b});
    ASSERT_EQ(proposals.size(), 1u);
    const auto& p = proposals[0];
    EXPECT_EQ(p.session, "/s");
    EXPECT_EQ(p.trackIDs, (std::vector<Uuid>{a.id, b.id, c.id}));
    EXPECT_EQ(p.trackNames, (std::vector<std::string>{"Card 1", "Card 2", "Card 3"}));
    EXPECT_EQ(p.clipCount, 5);
    EXPECT_EQ(p.filenamePrefix, "C");
    EXPECT_EQ(p.sequenceHint, "C0120 → C0121, C0125 → C0126");

    // Only accepted proposals count, and one whose tracks are gone takes no number.
    auto gone = p;
    gone.id = Uuid::random();
    gone.trackIDs = {a.id, Uuid::random()};
    TestSupport::LogCapture log;
    const auto out = IngestEngine::applyCameraGroups({a, b, c}, {gone, p, p}, {gone.id, p.id});
    EXPECT_EQ(out[0].cameraGroup, "cam-1");
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "[Ingest] camera group 'cam-0': Card 1, Card 2, Card 3 (5 clips, "
                               "prefix=C)",
                               "[Ingest] camera group 'cam-1': Card 1, Card 2, Card 3 (5 clips, "
                               "prefix=C)"}));
}
