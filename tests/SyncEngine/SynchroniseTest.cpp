#include "TessarinEngine/SyncEngine.h"
#include "tests/SyncEngine/SyncFixtures.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

using namespace SyncFixtures;

namespace {

// The names of the reference tracks, one per region, in the order the regions were treated.
std::vector<std::string> referencesChosen(std::vector<TrackSource> tracks) {
    TestSupport::LogCapture log;
    runEngine(std::move(tracks));
    std::vector<std::string> refs;
    const std::string marker = "[SyncEngine] region '";
    for (const auto& line : log.lines()) {
        if (line.starts_with(marker)) {
            const auto at = line.find("' ref '") + 7;
            refs.push_back(line.substr(at, line.find('\'', at) - at));
        }
    }
    return refs;
}

} // namespace

TEST(Synchronise, FewerThanTwoTracksComeBackUntouched) {
    for (int count : {0, 1}) {
        SCOPED_TRACE(count);
        std::vector<TrackSource> tracks;
        if (count == 1) {
            tracks.push_back(makeRecorder("A", {30, 40}));
        }
        TestSupport::LogCapture log;
        Reports reports;
        const auto out = runEngine(tracks, &reports);
        EXPECT_EQ(out, tracks);
        EXPECT_TRUE(log.lines().empty());
        EXPECT_TRUE(reports.progress.empty());
        EXPECT_TRUE(reports.places.empty());
    }
}

TEST(Synchronise, TracksWithoutClipsStillCloseTheRun) {
    TestSupport::LogCapture log;
    std::vector<TrackSource> tracks = {makeRecorder("A", {}), makeCamera("B", {})};
    runEngine(tracks);
    EXPECT_TRUE(log.contains("[SyncEngine]  track 'A' [session=shoot region=—]: 0 clips, bands=0, "
                             "dur[max=0]"));
    EXPECT_TRUE(log.contains("[SyncEngine] 1 session(s) [proto ref-track]"));
    EXPECT_FALSE(log.contains("region '"));
    EXPECT_EQ(log.lines().back(),
              "[SyncEngine] DONE: timeline=0s (0h00m), synced=0 weak=0 failed=0 / 0");
}

TEST(Synchronise, ReferenceFollowsTheRulesOfTrust) {
    struct Case {
        const char* name;
        std::vector<TrackSource> tracks;
        std::string expected;
    };
    // A lavalier-like recorder: more than two clips, none of 20 minutes.
    const auto lav = makeRecorder("Lav", {100, 100, 100});
    const std::vector<Case> cases = {
        {"a recorder with a 45-minute clip beats an ensemble of cameras",
         {makeCamera("C1", {600}), makeCamera("C2", {900}), makeCamera("C3", {700}),
          makeRecorder("Long", {2700})},
         "Long"},
        {"ensemble of three long cameras: the longest camera",
         {makeCamera("C1", {600}), makeCamera("C2", {900}), makeCamera("C3", {700}),
          makeRecorder("Rec", {2699})},
         "C2"},
        {"two long cameras and a recorder without lav: the recorder",
         {makeCamera("C1", {600}), makeCamera("C2", {900}), makeRecorder("Rec", {300})},
         "Rec"},
        {"two long cameras and a lav recorder: the longest camera",
         {makeCamera("C1", {600}), makeCamera("C2", {900}), lav},
         "C2"},
        {"the busiest recorder with more than two clips",
         {makeRecorder("Few", {2000}), makeRecorder("Busy", {60, 60, 60})},
         "Busy"},
        {"recorders of two clips or fewer: the longest clip",
         {makeRecorder("R1", {100, 100}), makeRecorder("R2", {150}), makeCamera("C", {10})},
         "R2"},
        {"a single recorder, whatever its length",
         {makeCamera("C1", {900}), makeRecorder("Short", {20})},
         "Short"},
        {"no recorder: the longest track that is no channel",
         {makeCamera("C1", {30}), makeCamera("C2", {50})},
         "C2"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(referencesChosen(c.tracks), std::vector<std::string>{c.expected});
    }
}

TEST(Synchronise, ReferenceIsLaidByItsOwnClock) {
    constexpr Date t0 = 1.7e9;
    struct Case {
        const char* name;
        std::optional<Date> secondDate;
        double expectedSecond;
        const char* expectedLine;
    };
    // The first clip runs 60 s from t0.
    const std::vector<Case> cases = {
        {"a pause of 30 s is kept", t0 + 90, 90.0,
         "[SyncEngine]  ref 'Rec' laid out by its own clock — 0.5 min of pauses kept"},
        {"exactly 2 s after the end is butt-joined", t0 + 62, 60.0, nullptr},
        {"1.5 s after the end is butt-joined", t0 + 61.5, 60.0, nullptr},
        {"2.5 s after the end is a pause", t0 + 62.5, 62.5,
         "[SyncEngine]  ref 'Rec' laid out by its own clock — 0.0 min of pauses kept"},
        {"a date before the end never overlaps", t0 + 30, 60.0, nullptr},
        {"a week of pause is still a pause", t0 + 60 + 604800.0, 60.0 + 604800.0,
         "[SyncEngine]  ref 'Rec' laid out by its own clock — 10080.0 min of pauses kept"},
        {"more than a week is a wrong date", t0 + 60 + 604800.5, 60.0,
         "[SyncEngine]  ref 'Rec' clip 'Rec_1' dated 7.0 days after the previous clip ended — too "
         "implausible to be a real pause, butt-joining instead (check this file's date/time)"},
        {"a clip without date: end to end", std::nullopt, 60.0,
         "[SyncEngine]  ref 'Rec' has no full clock — laid end to end"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto rec = makeRecorder("Rec", {60, 30});
        rec.clips[0].recordingDate = t0;
        rec.clips[0].clockQuality = ClockQuality::embedded;
        rec.clips[1].recordingDate = c.secondDate;
        rec.clips[1].clockQuality = ClockQuality::embedded;
        TestSupport::LogCapture log;
        const auto out = runEngine({rec, makeCamera("Cam", {10})});
        EXPECT_DOUBLE_EQ(out[0].clips[0].startOffset, 0.0);
        EXPECT_DOUBLE_EQ(out[0].clips[1].startOffset, c.expectedSecond);
        for (const auto& clip : out[0].clips) {
            EXPECT_EQ(clip.syncStatus, SyncStatus::synced);
            EXPECT_EQ(clip.placementPass, "ref");
        }
        if (c.expectedLine) {
            EXPECT_TRUE(log.contains(c.expectedLine));
        } else {
            EXPECT_FALSE(log.contains("pauses kept"));
            EXPECT_FALSE(log.contains("no full clock"));
        }
    }
}

TEST(Synchronise, SingleClipReferenceHasNoFullClock) {
    TestSupport::LogCapture log;
    auto rec = makeRecorder("Rec", {60});
    rec.clips[0].recordingDate = 1.7e9;
    runEngine({rec, makeCamera("Cam", {10})});
    EXPECT_TRUE(log.contains("[SyncEngine]  ref 'Rec' has no full clock — laid end to end"));
}

TEST(Synchronise, ReferenceClockFarFromTheRestDoesNotSetTheEpoch) {
    // The recorder's dates lie a month from the camera's: the reference is still laid by its
    // own dates.
    constexpr Date camDate = 1.7e9;
    auto rec = makeRecorder("Rec", {60, 60});
    rec.clips[0].recordingDate = camDate + 30 * 86400.0;
    rec.clips[1].recordingDate = camDate + 30 * 86400.0 + 100;
    auto cam = makeCamera("Cam", {10});
    cam.clips[0].recordingDate = camDate;
    TestSupport::LogCapture log;
    const auto out = runEngine({rec, cam});
    EXPECT_TRUE(log.contains("[SyncEngine]  ref 'Rec' clock doesn't overlap the rest of region "
                             "'default' — ignoring it for the region epoch (still used for content "
                             "matching)"));
    EXPECT_DOUBLE_EQ(out[0].clips[1].startOffset, 100.0);
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
    EXPECT_EQ(referencesChosen({a, b, c, other, lone}),
              (std::vector<std::string>{"C", "B", "A", "Lone"}));

    const auto out = runEngine({a, b, c, other, lone});
    // day-10 at 0, day-2 two seconds after it, cam-a two after that; the second session 4 s on.
    EXPECT_DOUBLE_EQ(out[2].clips[0].startOffset, 0.0);
    EXPECT_DOUBLE_EQ(out[1].clips[0].startOffset, 22.0);
    EXPECT_DOUBLE_EQ(out[0].clips[0].startOffset, 74.0);
    EXPECT_DOUBLE_EQ(out[4].clips[0].startOffset, 178.0);
}

TEST(Synchronise, ClipsWithoutEvidenceAreFailedOnCamerasAndWeakOnRecorders) {
    auto cam = makeCamera("Cam", {40});
    auto mute = makeClip("Mute", 30);
    mute.audioUsability = AudioUsability::none;
    auto rec2 = makeRecorder("Rec2", {40});
    rec2.clips.push_back(mute);
    const auto out = runEngine({cam, makeRecorder("Rec", {100, 100, 100}), rec2});
    const auto& camClip = out[0].clips[0];
    EXPECT_EQ(camClip.syncStatus, SyncStatus::failed);
    EXPECT_EQ(camClip.placementPass, "interp");
    EXPECT_EQ(camClip.placementExplanation(),
              "No matching audio nearby — placed between neighbours");
    const auto& recClip = out[2].clips[0];
    EXPECT_EQ(recClip.syncStatus, SyncStatus::weak);
    EXPECT_EQ(recClip.placementPass, "interp");
    const auto& muted = out[2].clips[1];
    EXPECT_EQ(muted.syncStatus, SyncStatus::pending);
    EXPECT_EQ(muted.placementPass, "interp-noaudio");
    EXPECT_DOUBLE_EQ(muted.startOffset, recClip.startOffset + 40);
}

TEST(Synchronise, ChannelTracksFollowTheirLead) {
    auto lead = makeRecorder("Lead", {100, 100, 100});
    auto channel = makeRecorder("Lead_ch2", {100, 100, 40});
    channel.siblingOf = lead.id;
    channel.clips[0].siblingLeaderID = lead.clips[0].id;
    channel.clips[1].siblingLeaderID = lead.clips[2].id;
    TestSupport::LogCapture log;
    const auto out = runEngine({lead, channel});
    const auto& mirrored = out[1].clips[1];
    EXPECT_DOUBLE_EQ(mirrored.startOffset, out[0].clips[2].startOffset);
    EXPECT_EQ(mirrored.syncStatus, SyncStatus::synced);
    EXPECT_EQ(mirrored.placementPass, "sibling-ch");
    EXPECT_EQ(mirrored.placementNote, "channel of 'Lead' (ref)");
    const auto& orphan = out[1].clips[2];
    EXPECT_EQ(orphan.syncStatus, SyncStatus::weak);
    EXPECT_EQ(orphan.placementPass, "interp");
    EXPECT_EQ(orphan.placementNote, "no matching take on 'Lead'");
    EXPECT_DOUBLE_EQ(orphan.startOffset, 300.0);
    EXPECT_TRUE(log.contains("[SyncEngine]  channel track 'Lead_ch2' follows 'Lead': 2 clip(s) "
                             "mirrored"));
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
    for (std::size_t i = 1; i < reports.progress.size(); ++i) {
        EXPECT_LT(reports.progress[i - 1].first, reports.progress[i].first);
    }
    for (const auto& track : out) {
        for (const auto& clip : track.clips) {
            const bool reported =
                std::any_of(reports.places.begin(), reports.places.end(),
                            [&](const auto& p) { return std::get<0>(p) == clip.id; });
            EXPECT_TRUE(reported) << clip.url;
        }
    }
}

TEST(Synchronise, CancelledRunReturnsItsInput) {
    std::atomic<bool> cancel{false};
    Reports reports;
    std::vector<TrackSource> tracks = {makeRecorder("Rec", {100, 100, 100}),
                                       makeCamera("Cam", {40, 50})};
    // Track-relative positions as ingest hands them in.
    tracks[0].clips[1].startOffset = 100;
    tracks[1].clips[1].startOffset = 40;
    TestSupport::LogCapture log;
    const auto out = SyncEngine::synchronise(
        tracks, reports.onProgress(), [&](const Uuid&, double, SyncStatus) { cancel = true; },
        &cancel);
    EXPECT_EQ(out, tracks);
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

TEST(Synchronise, LayoutLogShowsEveryClip) {
    TestSupport::LogCapture log;
    auto cam = makeCamera("Cam", {40});
    cam.clips[0].url = "/shoot/Scène.mov";
    runEngine({makeRecorder("Rec", {60}), cam});
    EXPECT_TRUE(log.contains("[SyncEngine] LAYOUT 'Rec':"));
    // Names are padded to 28 characters, not bytes.
    EXPECT_TRUE(log.contains("[SyncEngine]    Rec_0" + std::string(23, ' ') +
                             "  start=0.0s  end=60.0s  OK  raw=  —   score=0.0 [ref]"));
    EXPECT_TRUE(log.contains("[SyncEngine]    Scène" + std::string(23, ' ') +
                             "  start=0.0s  end=40.0s  !!  raw=  —   score=0.0 [interp]"));
    EXPECT_EQ(log.lines().back(),
              "[SyncEngine] DONE: timeline=60s (0h01m), synced=1 weak=0 failed=1 / 2");
}
