#include "TessarinEngine/TrackModels.h"

#include <gtest/gtest.h>

namespace {

ClipItem clipWith(std::optional<std::string> code, SyncStatus status, std::optional<float> score,
                  double duration = 30.0) {
    ClipItem c;
    c.placementPass = std::move(code);
    c.syncStatus = status;
    c.matchScore = score;
    c.duration = duration;
    return c;
}

} // namespace

TEST(TrackModels, ExplanationSentencesPerCode) {
    struct Case {
        std::optional<std::string> code;
        SyncStatus status;
        std::optional<float> score;
        double duration;
        std::string expected;
    };
    const Case cases[] = {
        {"ref", SyncStatus::synced, 20.0f, 60,
         "Reference track \u2014 everything else is measured against it"},
        {"linked", SyncStatus::synced, 9.25f, 60,
         "Long recorder linked to the reference by content consensus \u00B7 score 9.2"},
        {"unlinked", SyncStatus::weak, 3.0f, 60,
         "Long recorder with no audio in common with the reference \u2014 placed after it"},
        {"sibling-ch", SyncStatus::synced, 8.0f, 60,
         "Channel of the same recorder \u2014 follows its lead track"},
        {"clock", SyncStatus::weak, 2.0f, 60,
         "No audio match nearby \u2014 placed by the device clock"},
        {"stack-alone", SyncStatus::weak, std::nullopt, 60,
         "No other take shares this audio \u2014 placed in shooting order"},
        {"stack", SyncStatus::synced, 7.5f, 60,
         "Stacked with takes sharing the same audio \u00B7 score 7.5"},
        {"sibling", SyncStatus::synced, std::nullopt, 60,
         "Placed alongside a matched clip from the same camera"},
        {"A3cam", SyncStatus::synced, 11.0f, 60,
         "Matched a sibling camera \u2014 no external recorder nearby \u00B7 score 11.0"},
        {"A3cluster", SyncStatus::synced, std::nullopt, 60,
         "Synced only against other cameras \u2014 no external recorder nearby"},
        {"A3b-broll", SyncStatus::weak, 5.0f, 60,
         "Long take placed via nearby B-roll \u00B7 score 5.0"},
        {"A1", SyncStatus::synced, 12.34f, 60, "Strong audio match \u00B7 score 12.3"},
        {"A1w", SyncStatus::weak, 5.0f, 60,
         "Weak audio match \u2014 check by ear \u00B7 score 5.0"},
        {"p1", SyncStatus::failed, 3.0f, 60,
         "Audio match below the confidence floor \u00B7 score 3.0"},
        {"A4", SyncStatus::pending, std::nullopt, 60, "Not placed yet"},
        // No code reads as placed between neighbours, even while pending, and takes a score.
        {std::nullopt, SyncStatus::pending, std::nullopt, 60,
         "No matching audio nearby \u2014 placed between neighbours"},
        {std::nullopt, SyncStatus::weak, 4.0f, 60,
         "No matching audio nearby \u2014 placed between neighbours \u00B7 score 4.0"},
        {"interp", SyncStatus::weak, 6.0f, 4.9,
         "Shorter than 5 s \u2014 not compared, placed between neighbours"},
        {"interp", SyncStatus::weak, std::nullopt, 5.0,
         "No matching audio nearby \u2014 placed between neighbours"},
        {"interp-noaudio", SyncStatus::weak, std::nullopt, 1.0,
         "Shorter than 5 s \u2014 not compared, placed between neighbours"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.code.value_or("<none>"));
        EXPECT_EQ(clipWith(c.code, c.status, c.score, c.duration).placementExplanation(),
                  c.expected);
    }
}

TEST(TrackModels, ExplanationAppendsScoreNoteAndTimecodeInOrder) {
    auto clip = clipWith("clock", SyncStatus::weak, 9.0f);
    clip.placementNote = "between A001 and A003";
    clip.tcDisagrees = true;
    EXPECT_EQ(clip.placementExplanation(),
              "No audio match nearby \u2014 placed by the device clock \u00B7 between A001 and A003"
              " \u00B7 timecode disagrees with the audio position");

    auto scored = clipWith("A3", SyncStatus::synced, 7.04f);
    scored.placementNote = "note";
    scored.tcDisagrees = true;
    EXPECT_EQ(scored.placementExplanation(), "Strong audio match \u00B7 score 7.0 \u00B7 note"
                                             " \u00B7 timecode disagrees with the audio position");

    auto emptyNote = clipWith("A3", SyncStatus::synced, std::nullopt);
    emptyNote.placementNote = "";
    EXPECT_EQ(emptyNote.placementExplanation(), "Strong audio match");
}

TEST(TrackModels, UnusableAudioSentenceStandsAlone) {
    const std::pair<AudioUsability, std::string> cases[] = {
        {AudioUsability::none,
         "No audio track in this file \u2014 placed by clock or between neighbours"},
        {AudioUsability::silent,
         "Audio track is silent \u2014 placed by clock or between neighbours"},
        {AudioUsability::undecodable,
         "Format not decodable on this machine \u2014 placed by clock or between neighbours"},
    };
    for (const auto& [usability, expected] : cases) {
        auto clip = clipWith("A1", SyncStatus::synced, 12.0f);
        clip.audioUsability = usability;
        clip.placementNote = "a note";
        clip.tcDisagrees = true;
        EXPECT_EQ(clip.placementExplanation(), expected);
    }
}

TEST(TrackModels, CodesWithoutScoreAreExactlySix) {
    for (const char* code :
         {"ref", "interp", "interp-noaudio", "clock", "unlinked", "sibling-ch"}) {
        EXPECT_TRUE(isCodeWithoutScore(code)) << code;
    }
    for (const char* code : {"", "linked", "stack", "A1", "p1", "REF", "sibling"}) {
        EXPECT_FALSE(isCodeWithoutScore(code)) << code;
    }
}

TEST(TrackModels, ErrorTextsAndCaseForms) {
    using K = TessarinError::Kind;
    EXPECT_EQ(TessarinError(K::noAudioTrack, "C0001.MP4").errorDescription(),
              "No audio track in \"C0001.MP4\"");
    EXPECT_EQ(TessarinError(K::noAudioTrack, "C0001.MP4").caseText(),
              "noAudioTrack(\"C0001.MP4\")");
    EXPECT_EQ(TessarinError(K::silentAudio, "a.wav").errorDescription(),
              "Audio track in \"a.wav\" is silent (muted)");
    EXPECT_EQ(TessarinError(K::readFailed, "resampler").caseText(), "readFailed(\"resampler\")");
    EXPECT_EQ(TessarinError(K::readerStartFailed, "x").errorDescription(), "Reader failed: x");
    EXPECT_EQ(TessarinError(K::notEnoughTracks).caseText(), "notEnoughTracks");
    EXPECT_EQ(TessarinError(K::notEnoughTracks).errorDescription(), "Need at least 2 tracks");
}

TEST(TrackModels, ClockQualityOrderAndRawValues) {
    EXPECT_GT(ClockQuality::filename, ClockQuality::asset);
    EXPECT_GT(ClockQuality::asset, ClockQuality::filesystem);
    EXPECT_EQ(clockQualityFromRaw(4), ClockQuality::embedded);
    EXPECT_FALSE(clockQualityFromRaw(5).has_value());
    EXPECT_EQ(toString(ClockQuality::filename), "filename");
}

TEST(TrackModels, CopiesShareFeatureDataAndClipsCompareById) {
    SpectralBands::Feature f(SpectralBands::Feature::Bands(8, std::vector<float>(100, 1.0f)), 100);
    ClipItem a;
    a.bandFeature = f;
    ClipItem b = a;
    EXPECT_EQ(a.bandFeature->bands.get(), b.bandFeature->bands.get());
    EXPECT_EQ(a, b);
    b.duration = 10;
    EXPECT_EQ(a, b);
    EXPECT_NE(a, ClipItem());
}
