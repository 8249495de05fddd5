#include "TessarinEngine/SyncEngine/Run.h"
#include "tests/SyncEngine/SyncFixtures.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

using namespace SyncEngine;
using namespace SyncFixtures;

namespace {

const ProgressCallback noProgress;
const PlaceCallback noPlace;

constexpr double kDay = 1.7e9;
constexpr double kFiveHours = 5 * 3600.0;

// An audio clip whose feature is [fromSec, fromSec + durSec) of the shoot's sound.
ClipItem heard(const std::vector<std::vector<float>>& sound, const std::string& name,
               double fromSec, double durSec, unsigned seed, std::optional<Date> date) {
    auto clip = makeClip(name, durSec, date);
    clip.bandFeature = cutFeature(sound, static_cast<int>(std::lround(fromSec * 25)),
                                  static_cast<int>(std::lround(durSec * 25)), seed);
    return clip;
}

// The reference recorder: takes of 120 s that truly began at `starts` (seconds into the day's
// sound), whose clock only knows whole seconds.
TrackSource reference(const std::vector<std::vector<float>>& sound,
                      const std::vector<double>& starts) {
    std::vector<ClipItem> clips;
    for (std::size_t k = 0; k < starts.size(); ++k) {
        clips.push_back(heard(sound, "Ref_" + std::to_string(k), starts[k], 120, 10 + k,
                              kDay + std::round(starts[k])));
    }
    return makeTrack("Ref", SourceType::audio, std::move(clips));
}

const ClipItem& clipNamed(const std::vector<TrackSource>& out, const std::string& name) {
    for (const auto& track : out) {
        for (const auto& clip : track.clips) {
            if (clipName(clip) == name) {
                return clip;
            }
        }
    }
    throw std::runtime_error("no clip " + name);
}

int linesWith(const TestSupport::LogCapture& log, const std::string& fragment) {
    int n = 0;
    for (const auto& line : log.lines()) {
        n += line.find(fragment) != std::string::npos ? 1 : 0;
    }
    return n;
}

} // namespace

TEST(LongBackups, WhichTracksCountAsOneDayLongRecording) {
    struct Case {
        const char* name;
        std::vector<double> durs;
        // Seconds from each file's start to the next file's date; none leaves it undated.
        std::vector<double> gaps;
        ClockQuality quality;
        bool longBackup;
        bool chainLine;
    };
    const std::vector<Case> cases = {
        {"two files of 1799 s", {1799, 1799}, {}, ClockQuality::embedded, false, false},
        {"one file of 1800 s", {1800}, {}, ClockQuality::embedded, true, false},
        {"three files chaining within 2 s",
         {900, 900, 900},
         {902, 898},
         ClockQuality::filename,
         true,
         true},
        {"three files 2.1 s apart",
         {900, 900, 900},
         {902.1, 900},
         ClockQuality::embedded,
         false,
         false},
        {"one long file among three that do not chain",
         {3000, 60, 60},
         {4000, 60},
         ClockQuality::embedded,
         false,
         false},
        {"three chaining files on a weak clock",
         {900, 900, 900},
         {900, 900},
         ClockQuality::asset,
         false,
         false},
        {"three chaining files under 1800 s in all",
         {599, 600, 600},
         {599, 600},
         ClockQuality::embedded,
         false,
         false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<ClipItem> clips;
        double date = kDay;
        for (std::size_t k = 0; k < c.durs.size(); ++k) {
            clips.push_back(makeClip("B_" + std::to_string(k), c.durs[k], date, c.quality));
            if (k < c.gaps.size()) {
                date += c.gaps[k];
            }
        }
        std::vector<TrackSource> tracks = {makeRecorder("A", {30}),
                                           makeTrack("B", SourceType::audio, std::move(clips))};
        SyncEngine::Run run(tracks, noProgress, noPlace, nullptr);
        std::vector<ClipRef> refs;
        for (int si = 0; si < 2; ++si) {
            for (int ci = 0; ci < static_cast<int>(run.sources[si].clips.size()); ++ci) {
                refs.push_back(ClipRef{si, ci});
            }
        }
        beginRegion(run, "default", refs);
        TestSupport::LogCapture log;
        EXPECT_EQ(isLongBackup(run, 1), c.longBackup);
        EXPECT_EQ(log.contains("files chain by their own clock into one 45-min recording"),
                  c.chainLine);
    }
}

TEST(LongBackups, ClockMarginOfFifteenMinutesDecidesOverlap) {
    struct Case {
        const char* name;
        std::optional<Date> backupDate;
        bool overlaps;
    };
    // The reference's clips are dated kDay and kDay + 600.
    const std::vector<Case> cases = {
        {"dated 1800 s before the reference's first clip", kDay - 1800, true},
        {"dated 1800.5 s before it", kDay - 1800.5, false},
        {"dated 1800 s after the reference's last clip", kDay + 600 + 1800, true},
        {"dated 1800.5 s after it", kDay + 600 + 1800.5, false},
        {"undated", std::nullopt, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<TrackSource> tracks = {
            makeTrack("R", SourceType::audio,
                      {makeClip("R_0", 60, kDay), makeClip("R_1", 60, kDay + 600)}),
            makeTrack("B", SourceType::audio, {makeClip("B_0", 1000, c.backupDate)})};
        SyncEngine::Run run(tracks, noProgress, noPlace, nullptr);
        beginRegion(run, "default", {{0, 0}, {0, 1}, {1, 0}});
        run.region.refTrack = 0;
        EXPECT_EQ(clocksOverlapRef(run, 1), c.overlaps);
    }
}

TEST(LongBackups, BackupOnAnotherClockIsLinkedByContentAndCalibratesTheTakes) {
    if (!signalCoreReady()) {
        GTEST_SKIP() << "band search not available";
    }
    // 40 minutes of the day's sound. The backup heard all of it, on a clock five hours off.
    const auto sound = randomBands(2400 * 25, 42);
    const std::vector<double> truth = {300.0, 1000.44, 1750.72};
    std::vector<TrackSource> tracks;
    tracks.push_back(reference(sound, truth));
    tracks.push_back(makeTrack("Backup", SourceType::audio,
                               {heard(sound, "Backup_0", 0, 2400, 3, kDay - kFiveHours)}));
    // A recorder that shares sound with the backup only: it can be placed once the backup is.
    tracks.push_back(makeTrack("Lav", SourceType::audio,
                               {heard(sound, "Lav_0", 600.2, 60, 4, std::nullopt),
                                heard(sound, "Lav_1", 2100.8, 60, 5, std::nullopt)}));

    TestSupport::LogCapture log;
    const auto out = runEngine(tracks);

    const auto& backup = clipNamed(out, "Backup_0");
    EXPECT_EQ(backup.placementPass, "linked");
    EXPECT_EQ(backup.syncStatus, SyncStatus::synced);
    EXPECT_EQ(linesWith(log, "long-backup 'Backup' clock disagreed with the ref but the audio "
                             "agrees — linked by content @ "),
              1);
    EXPECT_TRUE(log.contains("'Backup' content consensus: "));
    // The clock put the takes up to 0.44 s away from where the backup hears them; each ends where
    // the backup's content says.
    for (std::size_t k = 0; k < truth.size(); ++k) {
        SCOPED_TRACE(k);
        const auto& take = clipNamed(out, "Ref_" + std::to_string(k));
        EXPECT_NEAR(take.startOffset - backup.startOffset, truth[k], 0.05);
        EXPECT_EQ(take.placementPass, "ref");
    }
    EXPECT_GE(linesWith(log, "[SyncEngine]  ref 'Ref' take "), 1);
    bool movedFar = false;
    for (const auto& line : log.lines()) {
        if (const auto at = line.find(" calibrated "); at != std::string::npos) {
            EXPECT_NE(line.find("against 'Backup' content"), std::string::npos) << line;
            movedFar = movedFar || std::abs(std::stod(line.substr(at + 12))) > 0.15;
        }
    }
    EXPECT_TRUE(movedFar);
    EXPECT_NEAR(clipNamed(out, "Lav_0").startOffset - backup.startOffset, 600.2, 0.05);
    EXPECT_NEAR(clipNamed(out, "Lav_1").startOffset - backup.startOffset, 2100.8, 0.05);
}

TEST(LongBackups, BackupThatHeardNothingOfTheShootIsParkedAfterIt) {
    if (!signalCoreReady()) {
        GTEST_SKIP() << "band search not available";
    }
    const auto sound = randomBands(1900 * 25, 42);
    const auto elsewhere = randomBands(2400 * 25, 99);
    std::vector<TrackSource> tracks;
    tracks.push_back(reference(sound, {300.0, 1000.0, 1750.0}));
    tracks.push_back(makeTrack("Backup", SourceType::audio,
                               {heard(elsewhere, "Backup_0", 0, 2400, 3, kDay - kFiveHours)}));

    TestSupport::LogCapture log;
    Reports reports;
    const auto out = runEngine(tracks, &reports);

    const auto& backup = clipNamed(out, "Backup_0");
    EXPECT_EQ(backup.placementPass, "unlinked");
    EXPECT_EQ(backup.syncStatus, SyncStatus::weak);
    EXPECT_EQ(backup.placementNote, "after 'Ref'");
    // The last take was laid 1450 s after the first and runs 120 s.
    EXPECT_DOUBLE_EQ(backup.startOffset, 1570.0);
    EXPECT_TRUE(log.contains("[SyncEngine]  unlinked long-backup 'Backup' @ 1570s"));
    EXPECT_FALSE(log.contains("linked by content"));
    for (int k = 0; k < 3; ++k) {
        EXPECT_EQ(clipNamed(out, "Ref_" + std::to_string(k)).startOffset,
                  std::vector<double>({0, 700, 1450})[k]);
    }
    EXPECT_TRUE(std::any_of(reports.places.begin(), reports.places.end(), [&](const auto& p) {
        return std::get<0>(p) == backup.id && std::get<1>(p) == 1570.0 &&
               std::get<2>(p) == SyncStatus::weak;
    }));
}

TEST(LongBackups, FilesThatChainByTheirOwnClockMoveAsOneBlock) {
    if (!signalCoreReady()) {
        GTEST_SKIP() << "band search not available";
    }
    const auto sound = randomBands(2700 * 25, 42);
    std::vector<TrackSource> tracks;
    tracks.push_back(reference(sound, {100.0, 380.0, 640.0}));
    std::vector<ClipItem> files;
    for (int k = 0; k < 3; ++k) {
        files.push_back(heard(sound, "Day_" + std::to_string(k), 900.0 * k, 900, 20 + k,
                              kDay - 3 * kFiveHours + 900.0 * k + (k == 2 ? 1.5 : 0.0)));
    }
    tracks.push_back(makeTrack("Day", SourceType::audio, std::move(files)));

    TestSupport::LogCapture log;
    const auto out = runEngine(tracks);

    EXPECT_TRUE(log.contains("[SyncEngine]  'Day': 3 files chain by their own clock into one "
                             "45-min recording — treated as a long backup"));
    EXPECT_TRUE(log.contains("long-backup 'Day' clock disagreed with the ref"));
    const double first = clipNamed(out, "Ref_0").startOffset;
    for (int k = 0; k < 3; ++k) {
        SCOPED_TRACE(k);
        const auto& clip = clipNamed(out, "Day_" + std::to_string(k));
        EXPECT_EQ(clip.placementPass, "linked");
        EXPECT_NEAR(clip.startOffset - first, 900.0 * k - 100.0, 0.05);
    }
}

TEST(LongBackups, TakeMovesOnlyWhenTheBackupDisagreesBetweenLimits) {
    if (!signalCoreReady()) {
        GTEST_SKIP() << "band search not available";
    }
    const auto sound = randomBands(400 * 25, 42);
    struct Case {
        const char* name;
        // How far the take's clock put it before where the backup hears it.
        double early;
        bool moves;
    };
    const std::vector<Case> cases = {
        {"0.12 s off", 0.12, false},
        {"0.2 s off", 0.2, true},
        {"59.96 s off", 59.96, true},
        {"60.04 s off", 60.04, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        // The take truly began 100 s into the backup, which stands at 0 on the timeline.
        std::vector<TrackSource> tracks = {
            makeTrack("Ref", SourceType::audio,
                      {heard(sound, "Ref_0", 100, 120, 1, kDay),
                       heard(sound, "Ref_1", 250, 60, 2, kDay + 150)}),
            makeTrack("Backup", SourceType::audio, {heard(sound, "Backup_0", 0, 400, 3, kDay)})};
        tracks[0].clips[0].startOffset = 100 - c.early;
        SyncEngine::Run run(tracks, noProgress, noPlace, nullptr);
        beginRegion(run, "default", {{0, 0}, {0, 1}, {1, 0}});
        run.region.refTrack = 0;
        run.region.hasFullClock = true;
        run.region.refEpoch = kDay;
        run.region.takes = {{0}, {1}};

        TestSupport::LogCapture log;
        calibrateSegmentIfNeeded(run, 0, 1);
        const double expected = c.moves ? 100.0 : 100 - c.early;
        // The backup's peak is refined below a frame, so a moved take lands within a hair.
        EXPECT_NEAR(run.sources[0].clips[0].startOffset, expected, c.moves ? 0.03 : 1e-9);
        EXPECT_EQ(log.contains("ref 'Ref' take 1/2 calibrated "), c.moves);
        // Tried once: a take put back where its clock had it stays there.
        run.sources[0].clips[0].startOffset = 100 - c.early;
        calibrateSegmentIfNeeded(run, 0, 1);
        EXPECT_NEAR(run.sources[0].clips[0].startOffset, 100 - c.early, 1e-6);
        // The other take is not touched by the first one's calibration.
        EXPECT_EQ(run.sources[0].clips[1].startOffset, 0.0);
    }
}

TEST(LongBackups, ProbeCountsAVoteFromEveryReadyClipThatHearsTheBackup) {
    if (!signalCoreReady()) {
        GTEST_SKIP() << "band search not available";
    }
    const auto sound = randomBands(600 * 25, 42);
    const auto elsewhere = randomBands(600 * 25, 43);
    struct Case {
        const char* name;
        // Length of the backup's longest clip, which truly began 50 s into the ready clips; a
        // flat clip of 10 s runs ahead of it.
        double longest;
        int readyTracks;
        bool heard;
        std::string line;
    };
    const std::vector<Case> cases = {
        {"three windows and the whole clip agree", 200, 1, true,
         "'Backup' content consensus: 4/4 window votes clustered @ 150s"},
        {"each ready clip adds its own votes", 200, 2, true,
         "'Backup' content consensus: 7/7 window votes clustered @ 150s"},
        {"under 25 s only the whole clip is tried", 20, 1, true,
         "'Backup' single-witness probe: 1 window(s) tried, best score="},
        {"heard nothing", 200, 1, false, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<TrackSource> tracks;
        for (int k = 0; k < c.readyTracks; ++k) {
            auto clip = heard(sound, "R" + std::to_string(k), 0, 300, 1 + k, std::nullopt);
            clip.startOffset = 100;
            tracks.push_back(makeTrack("R" + std::to_string(k), SourceType::audio, {clip}));
        }
        auto lead = makeClip("Backup_0", 10);
        lead.bandFeature = flatFeature(250);
        tracks.push_back(makeTrack("Backup", SourceType::audio,
                                   {lead, heard(c.heard ? sound : elsewhere, "Backup_1", 50,
                                                c.longest, 9, std::nullopt)}));
        SyncEngine::Run run(tracks, noProgress, noPlace, nullptr);
        std::vector<ClipRef> refs;
        for (int si = 0; si < static_cast<int>(tracks.size()); ++si) {
            for (int ci = 0; ci < static_cast<int>(tracks[si].clips.size()); ++ci) {
                refs.push_back(ClipRef{si, ci});
            }
        }
        beginRegion(run, "default", refs);
        run.region.refTrack = 0;
        for (int k = 0; k < c.readyTracks; ++k) {
            run.region.readyTracks.insert(k);
        }
        TestSupport::LogCapture log;
        const auto offset = probeBackupLinkage(run, c.readyTracks);
        EXPECT_EQ(offset.has_value(), c.heard);
        if (c.heard) {
            // The longest clip lands on 150 s, with the clip ahead of it butted before it.
            EXPECT_NEAR(*offset, 140.0, 0.04);
            EXPECT_TRUE(log.contains(c.line));
            // A lone witness is believed only at 14 or more.
            EXPECT_EQ(log.contains("(need 14.0) — linking"), c.longest < 25);
        } else {
            EXPECT_TRUE(log.lines().empty());
        }
    }
}
