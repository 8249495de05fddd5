#include "tests/SyncEngine/SyncFixtures.h"

#include <gtest/gtest.h>

using namespace SyncFixtures;

namespace {

// The names of the reference tracks, one per region, in the order the regions were treated.
std::vector<std::string> referencesChosen(std::vector<TrackSource> tracks) {
    TestSupport::LogCapture log;
    runEngine(std::move(tracks));
    std::vector<std::string> refs;
    for (const auto& line : linesWith(log, "[SyncEngine] region '")) {
        const auto at = line.find("' ref '") + 7;
        refs.push_back(line.substr(at, line.find('\'', at) - at));
    }
    return refs;
}

} // namespace

TEST(Synchronise, OneTrackComesBackUntouched) {
    const std::vector<TrackSource> tracks = {makeRecorder("A", {30, 40})};
    TestSupport::LogCapture log;
    Reports reports;
    EXPECT_EQ(runEngine(tracks, &reports), tracks);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_TRUE(reports.progress.empty() && reports.placed.empty());
}

TEST(Synchronise, ReferenceFollowsTheRulesOfTrust) {
    const auto c1 = makeCamera("C1", {600});
    const auto c2 = makeCamera("C2", {900});
    const auto c3 = makeCamera("C3", {700});
    const std::tuple<const char*, std::string, std::vector<TrackSource>> cases[] = {
        // A recorder with a 45-minute clip beats an ensemble of three long cameras; without it
        // the longest camera of the ensemble leads.
        {"45 min recorder", "Long", {c1, c2, c3, makeRecorder("Long", {2700})}},
        {"ensemble", "C2", {c1, c2, c3, makeRecorder("Rec", {2699})}},
        // Two long cameras yield to a recorder unless it looks like a lavalier: more than two
        // clips, none of 20 minutes.
        {"two cameras", "Rec", {c1, c2, makeRecorder("Rec", {300})}},
        {"two cameras, lav", "C2", {c1, c2, makeRecorder("Lav", {100, 100, 100})}},
        // Else the busiest recorder of more than two clips, the longest clip, the only recorder.
        {"busiest", "Busy", {makeRecorder("Few", {2000}), makeRecorder("Busy", {60, 60, 60})}},
        {"longest clip", "R2", {makeRecorder("R1", {100, 100}), makeRecorder("R2", {150}), c1}},
        {"single recorder", "Short", {c2, makeRecorder("Short", {20})}},
        // No recorder: the longest track.
        {"no recorder", "C5", {makeCamera("C4", {30}), makeCamera("C5", {50})}},
    };
    for (const auto& [name, expected, tracks] : cases) {
        EXPECT_EQ(referencesChosen(tracks), std::vector<std::string>{expected}) << name;
    }
}

TEST(Synchronise, ATrackWithoutFeaturesNeverLeads) {
    const auto silent = unheard(makeRecorder("Silent", {21600}));
    const std::tuple<const char*, std::string, std::vector<TrackSource>> cases[] = {
        {"six silent hours", "Rec", {silent, makeRecorder("Rec", {300}), makeCamera("Cam", {40})}},
        {"the busiest recorder failed",
         "Cam",
         {unheard(makeRecorder("Busy", {60, 60, 60})), makeCamera("Cam", {40})}},
        // Where nothing was heard the usual rules choose.
        {"nothing heard", "Silent", {silent, unheard(makeCamera("Cam", {40}))}},
    };
    for (const auto& [name, expected, tracks] : cases) {
        EXPECT_EQ(referencesChosen(tracks), std::vector<std::string>{expected}) << name;
    }
    // The heard clips still find each other beside the silent file.
    const auto signal = randomBands(25 * 300, 33);
    const auto out = runEngine({silent, audioTrack("Rec", {heardClip(signal, "Rec_0", 0, 300, 1)}),
                                videoTrack("Cam", {heardClip(signal, "Cam_0", 120, 40, 2)})});
    EXPECT_EQ(out[2].clips[0].syncStatus, SyncStatus::synced);
    EXPECT_NEAR(out[2].clips[0].startOffset - out[1].clips[0].startOffset, 120, 0.041);
}

TEST(Synchronise, ReferenceIsLaidByItsOwnClock) {
    constexpr Date t0 = 1.7e9;
    constexpr double week = 604800;
    // The first clip runs 60 s from t0; the second's date, where it lands, what is logged.
    const std::tuple<const char*, std::optional<Date>, double, const char*> cases[] = {
        {"2 s after the end is butt-joined", t0 + 62, 60, nullptr},
        {"2.5 s after the end is a pause", t0 + 62.5, 62.5,
         "laid out by its own clock — 0.0 min of pauses kept"},
        {"a date before the end never overlaps", t0 + 30, 60, nullptr},
        {"a week of pause is still a pause", t0 + 60 + week, 60 + week, "10080.0 min of pauses"},
        // The user is told to check the file's date.
        {"more than a week is a wrong date", t0 + 60 + week + 0.5, 60,
         "clip 'Rec_1' dated 7.0 days after the previous clip ended — too implausible to be a "
         "real pause, butt-joining instead (check this file's date/time)"},
        {"a clip without date: end to end", std::nullopt, 60,
         "has no full clock — laid end to end"},
    };
    for (const auto& [name, date, second, line] : cases) {
        SCOPED_TRACE(name);
        TestSupport::LogCapture log;
        const auto out = runEngine({audioTrack("Rec", {heard(makeClip("Rec_0", 60, t0)),
                                                       heard(makeClip("Rec_1", 30, date))}),
                                    makeCamera("Cam", {10})});
        EXPECT_DOUBLE_EQ(out[0].clips[0].startOffset, 0.0);
        EXPECT_DOUBLE_EQ(out[0].clips[1].startOffset, second);
        EXPECT_EQ(log.contains(line ? line : "pauses kept"), line != nullptr);
    }
}

TEST(Synchronise, RegionsAndSessionsAreTreatedInOrderWithGapsBetween) {
    auto a = makeRecorder("A", {100});
    a.clips[0].dayRegion = "cam-a";
    auto b = makeRecorder("B", {50});
    b.clips[0].dayRegion = "day-2";
    auto c = makeRecorder("C", {20});
    c.clips[0].dayRegion = "day-10";
    auto other = makeTrack("Other", SourceType::audio, {}, "/elsewhere");
    auto lone = makeRecorder("Lone", {10});
    lone.session = "/elsewhere";
    // The shorter session comes first in the request; the longer is laid out first all the same.
    EXPECT_EQ(referencesChosen({other, lone, a, b, c}),
              (std::vector<std::string>{"C", "B", "A", "Lone"}));

    const auto out = runEngine({other, lone, a, b, c});
    // day-10 at 0, day-2 two seconds after it, cam-a two after that; the second session 4 s on.
    EXPECT_DOUBLE_EQ(out[4].clips[0].startOffset, 0.0);
    EXPECT_DOUBLE_EQ(out[3].clips[0].startOffset, 22.0);
    EXPECT_DOUBLE_EQ(out[2].clips[0].startOffset, 74.0);
    EXPECT_DOUBLE_EQ(out[1].clips[0].startOffset, 178.0);
}

TEST(Synchronise, ClipsWithoutEvidenceAreFailedOnCamerasAndWeakOnRecorders) {
    auto rec2 = makeRecorder("Rec2", {40, 30});
    rec2.clips[1].audioUsability = AudioUsability::none;
    const auto out =
        runEngine({makeCamera("Cam", {40}), makeRecorder("Rec", {100, 100, 100}), rec2});
    EXPECT_EQ(out[0].clips[0].syncStatus, SyncStatus::failed);
    EXPECT_EQ(out[2].clips[0].syncStatus, SyncStatus::weak);
    EXPECT_EQ(out[2].clips[0].placementPass, "interp");
    EXPECT_EQ(out[2].clips[1].syncStatus, SyncStatus::pending);
    EXPECT_EQ(out[2].clips[1].placementPass, "interp-noaudio");
    EXPECT_DOUBLE_EQ(out[2].clips[1].startOffset, out[2].clips[0].startOffset + 40);
}

TEST(Synchronise, ChannelTracksFollowTheirLead) {
    // Without features the tie cannot be tested by audio and is believed.
    auto lead = unheard(makeRecorder("Lead", {100, 100, 100}));
    auto channel = unheard(makeRecorder("Lead_ch2", {100, 100, 40}));
    channel.siblingOf = lead.id;
    channel.clips[0].siblingLeaderID = lead.clips[0].id;
    channel.clips[1].siblingLeaderID = lead.clips[2].id;
    TestSupport::LogCapture log;
    const auto out = runEngine({lead, channel});
    EXPECT_DOUBLE_EQ(out[1].clips[1].startOffset, out[0].clips[2].startOffset);
    EXPECT_EQ(out[1].clips[1].placementPass, "sibling-ch");
    EXPECT_EQ(out[1].clips[1].placementNote, "channel of 'Lead' (ref)");
    EXPECT_EQ(out[1].clips[2].syncStatus, SyncStatus::weak);
    EXPECT_EQ(out[1].clips[2].placementNote, "no matching take on 'Lead'");
    EXPECT_DOUBLE_EQ(out[1].clips[2].startOffset, 300.0);
    EXPECT_TRUE(log.contains("channel track 'Lead_ch2' follows 'Lead': 2 clip(s) mirrored"));
}

TEST(Synchronise, ProgressGrowsByClipAndEveryClipIsReported) {
    Reports reports;
    const auto out =
        runEngine({makeRecorder("Rec", {100, 100}), makeCamera("Cam", {40, 3})}, &reports);
    // Reference clips count a whole step of 0.999 / 4 clips; camera clips half steps.
    ASSERT_EQ(reports.progress.size(), 5u);
    EXPECT_DOUBLE_EQ(reports.progress[0].first, 0.999 / 4);
    EXPECT_EQ(reports.progress[1].second, "Rec_1");
    EXPECT_DOUBLE_EQ(reports.progress[4].first, 0.999 / 4 * 3.5);
    for (const auto& track : out) {
        for (const auto& clip : track.clips) {
            EXPECT_TRUE(std::ranges::count(reports.placed, clip.id)) << clip.url;
        }
    }
}

TEST(Synchronise, CancelledRunReturnsItsInput) {
    std::atomic<bool> cancel{false};
    std::vector<TrackSource> tracks = {makeRecorder("Rec", {100, 100, 100}),
                                       makeCamera("Cam", {40, 50})};
    // Track-relative positions as ingest hands them in.
    tracks[0].clips[1].startOffset = 100;
    tracks[1].clips[1].startOffset = 40;
    TestSupport::LogCapture log;
    const auto out = SyncEngine::synchronise(
        tracks, noProgress, [&](const Uuid&, double, SyncStatus) { cancel = true; }, &cancel);
    for (const auto& track : out) {
        for (const auto& clip : track.clips) {
            EXPECT_EQ(clip.syncStatus, SyncStatus::pending);
            EXPECT_FALSE(clip.placementPass);
        }
    }
    EXPECT_DOUBLE_EQ(out[0].clips[1].startOffset, 100.0);
    EXPECT_DOUBLE_EQ(out[1].clips[1].startOffset, 40.0);
    EXPECT_FALSE(log.contains("DONE"));
}
