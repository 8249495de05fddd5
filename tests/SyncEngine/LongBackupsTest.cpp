#include "tests/SyncEngine/SyncFixtures.h"

#include <gtest/gtest.h>

using namespace SyncEngine;
using namespace SyncFixtures;

namespace {

constexpr double kDay = 1.7e9;

} // namespace

TEST(LongBackups, WhichTracksCountAsOneDayLongRecording) {
    using enum ClockQuality;
    using V = std::vector<double>;
    // Name, the files' lengths, seconds from each file's start to the next file's date, their
    // clock, whether the track is one long recording.
    const std::tuple<const char*, V, V, ClockQuality, bool> cases[] = {
        {"two files of 1799 s", {1799, 1799}, {}, embedded, false},
        {"one file of 1800 s", {1800}, {}, embedded, true},
        {"three files chaining within 2 s", {900, 900, 900}, {902, 898}, filename, true},
        {"three files 2.1 s apart", {900, 900, 900}, {902.1, 900}, embedded, false},
        {"a long file among three", {3000, 60, 60}, {4000, 60}, embedded, false},
        {"chaining on a weak clock", {900, 900, 900}, {900, 900}, asset, false},
        {"chaining, under 1800 s in all", {599, 600, 600}, {599, 600}, embedded, false},
    };
    for (const auto& [name, durs, gaps, quality, longBackup] : cases) {
        SCOPED_TRACE(name);
        std::vector<ClipItem> clips;
        double date = kDay;
        for (std::size_t k = 0; k < durs.size(); ++k) {
            clips.push_back(makeClip("B_" + std::to_string(k), durs[k], date, quality));
            date += k < gaps.size() ? gaps[k] : 0;
        }
        const auto run = regionRun({makeRecorder("A", {30}), audioTrack("B", clips)});
        TestSupport::LogCapture log;
        EXPECT_EQ(isLongBackup(run, 1), longBackup);
        EXPECT_EQ(log.contains("files chain by their own clock into one 45-min recording"),
                  longBackup && durs.size() == 3);
    }
}

TEST(LongBackups, ClockMarginOfFifteenMinutesDecidesOverlap) {
    // The reference's clips are dated kDay and kDay + 600.
    const std::vector<std::pair<std::optional<Date>, bool>> cases = {
        {kDay - 1800, true},
        {kDay - 1800.5, false},
        {kDay + 600 + 1800.5, false},
        {std::nullopt, true},
    };
    for (const auto& [date, overlaps] : cases) {
        SCOPED_TRACE(date.value_or(0) - kDay);
        const auto run = regionRun(
            {audioTrack("R", {makeClip("R_0", 60, kDay), makeClip("R_1", 60, kDay + 600)}),
             audioTrack("B", {makeClip("B_0", 1000, date)})});
        EXPECT_EQ(clocksOverlapRef(run, 1), overlaps);
    }
}

TEST(LongBackups, TakeMovesOnlyWhenTheBackupDisagreesBetweenLimits) {
    const auto sound = randomBands(400 * 25, 42);
    // How far the take's clock put it before where the backup hears it, and whether it moves.
    const std::vector<std::pair<double, bool>> cases = {
        {0.12, false}, {0.2, true}, {59.96, true}, {60.04, false}};
    for (const auto& [early, moves] : cases) {
        SCOPED_TRACE(early);
        // The take truly began 100 s into the backup, which stands at 0 on the timeline.
        auto run =
            regionRun({audioTrack("Ref", {heardClip(sound, "Ref_0", 100, 120, 1, kDay),
                                          heardClip(sound, "Ref_1", 250, 60, 2, kDay + 150)}),
                       audioTrack("Backup", {heardClip(sound, "Backup_0", 0, 400, 3, kDay)})});
        auto& take = run.sources[0].clips[0];
        take.startOffset = 100 - early;
        run.region.hasFullClock = true;
        run.region.refEpoch = kDay;
        run.region.takes = {{0}, {1}};

        TestSupport::LogCapture log;
        calibrateSegmentIfNeeded(run, 0, 1);
        // The backup's peak is refined below a frame, so a moved take lands within a hair.
        EXPECT_NEAR(take.startOffset, moves ? 100.0 : 100 - early, moves ? 0.03 : 1e-9);
        EXPECT_EQ(log.contains("ref 'Ref' take 1/2 calibrated "), moves);
        // Tried once: a take put back where its clock had it stays there.
        take.startOffset = 100 - early;
        calibrateSegmentIfNeeded(run, 0, 1);
        EXPECT_NEAR(take.startOffset, 100 - early, 1e-6);
        EXPECT_EQ(run.sources[0].clips[1].startOffset, 0.0);
    }
}

TEST(LongBackups, ProbeBelievesAConsensusOfVotesOrOneVeryStrongWitness) {
    const auto sound = randomBands(600 * 25, 42);
    const auto elsewhere = randomBands(600 * 25, 43);
    // The backup's longest clip, of this length, truly began 50 s into the ready clips; a flat
    // clip of 10 s runs ahead of it. Three windows are asked of each of the two ready clips, and
    // the whole clip of the pool.
    const std::tuple<const char*, double, bool, std::string> cases[] = {
        {"three windows and the whole clip agree", 200, true,
         "'Backup' content consensus: 7/7 window votes clustered @ 150s"},
        {"under 25 s only the whole clip is tried", 20, true,
         "'Backup' single-witness probe: 1 window(s) tried, best score="},
        {"heard nothing", 200, false, ""},
    };
    for (const auto& [name, longest, heard, line] : cases) {
        SCOPED_TRACE(name);
        auto r0 = heardClip(sound, "R0", 0, 300, 1);
        auto r1 = heardClip(sound, "R1", 0, 300, 2);
        r0.startOffset = r1.startOffset = 100;
        auto lead = makeClip("Backup_0", 10);
        lead.bandFeature = flatFeature(250);
        auto run = regionRun({audioTrack("R0", {r0}), audioTrack("R1", {r1}),
                              audioTrack("Backup", {lead, heardClip(heard ? sound : elsewhere,
                                                                    "Backup_1", 50, longest, 9)})});
        run.region.readyTracks = {0, 1};
        TestSupport::LogCapture log;
        const auto offset = probeBackupLinkage(run, 2);
        ASSERT_EQ(offset.has_value(), heard);
        if (heard) {
            // The longest clip lands on 150 s, with the clip ahead of it butted before it.
            EXPECT_NEAR(*offset, 140.0, 0.04);
            EXPECT_TRUE(log.contains(line));
            // A lone witness is believed only at 14 or more.
            EXPECT_EQ(log.contains("(need 14.0) — linking"), longest < 25);
        } else {
            EXPECT_TRUE(log.lines().empty());
        }
    }
}
