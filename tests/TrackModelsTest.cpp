#include "TessarinEngine/TrackModels.h"

#include <gtest/gtest.h>

TEST(TrackModels, ExplanationSentences) {
    struct Case {
        std::optional<std::string> code;
        SyncStatus status;
        std::optional<float> score;
        std::string expected;
        double duration = 60;
        AudioUsability usability = AudioUsability::ok;
    };
    const auto synced = SyncStatus::synced;
    const auto weak = SyncStatus::weak;
    const Case cases[] = {
        // Codes that carry no score leave it out even when one is set.
        {"ref", synced, 20.0f, "Reference track \u2014 everything else is measured against it"},
        {"linked", synced, 9.25f,
         "Long recorder linked to the reference by content consensus \u00B7 score 9.2"},
        {"unlinked", weak, 3.0f,
         "Long recorder with no audio in common with the reference \u2014 placed after it"},
        {"sibling-ch", synced, 8.0f, "Channel of the same recorder \u2014 follows its lead track"},
        {"clock", weak, 2.0f, "No audio match nearby \u2014 placed by the device clock"},
        {"stack-alone", weak, std::nullopt,
         "No other take shares this audio \u2014 placed in shooting order"},
        {"stack", synced, 7.5f, "Stacked with takes sharing the same audio \u00B7 score 7.5"},
        {"sibling", synced, std::nullopt, "Placed alongside a matched clip from the same camera"},
        {"A3cam", synced, 11.0f,
         "Matched a sibling camera \u2014 no external recorder nearby \u00B7 score 11.0"},
        {"A3cluster", synced, std::nullopt,
         "Synced only against other cameras \u2014 no external recorder nearby"},
        {"A3b-broll", weak, 5.0f, "Long take placed via nearby B-roll \u00B7 score 5.0"},
        {"A1", synced, 12.34f, "Strong audio match \u00B7 score 12.3"},
        {"A1w", weak, 5.0f, "Weak audio match \u2014 check by ear \u00B7 score 5.0"},
        {"p1", SyncStatus::failed, 3.0f, "Audio match below the confidence floor \u00B7 score 3.0"},
        {"A4", SyncStatus::pending, std::nullopt, "Not placed yet"},
        // No code reads as placed between neighbours, even while pending.
        {std::nullopt, SyncStatus::pending, std::nullopt,
         "No matching audio nearby \u2014 placed between neighbours"},
        {"interp", weak, 6.0f, "Shorter than 5 s \u2014 not compared, placed between neighbours",
         4.9},
        // Unusable audio says so and nothing else.
        {"A1", synced, 12.0f,
         "No audio track in this file \u2014 placed by clock or between neighbours", 60,
         AudioUsability::none},
        {"A1", synced, 12.0f, "Audio track is silent \u2014 placed by clock or between neighbours",
         60, AudioUsability::silent},
        {"A1", synced, 12.0f,
         "Format not decodable on this machine \u2014 placed by clock or between neighbours", 60,
         AudioUsability::undecodable},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expected);
        ClipItem clip;
        clip.placementPass = c.code;
        clip.syncStatus = c.status;
        clip.matchScore = c.score;
        clip.duration = c.duration;
        clip.audioUsability = c.usability;
        clip.placementNote = "a note";
        clip.tcDisagrees = true;
        const std::string tail = " \u00B7 a note \u00B7 timecode disagrees with the audio position";
        EXPECT_EQ(clip.placementExplanation(),
                  c.usability == AudioUsability::ok ? c.expected + tail : c.expected);
    }
    ClipItem emptyNote;
    emptyNote.placementPass = "A3";
    emptyNote.syncStatus = SyncStatus::synced;
    emptyNote.placementNote = "";
    EXPECT_EQ(emptyNote.placementExplanation(), "Strong audio match");
}

TEST(TrackModels, ErrorTextsAndCaseForms) {
    using K = TessarinError::Kind;
    EXPECT_EQ(TessarinError(K::noAudioTrack, "C0001.MP4").errorDescription(),
              "No audio track in \"C0001.MP4\"");
    EXPECT_EQ(TessarinError(K::silentAudio, "a.wav").errorDescription(),
              "Audio track in \"a.wav\" is silent (muted)");
    EXPECT_EQ(TessarinError(K::readerStartFailed, "x").errorDescription(), "Reader failed: x");
    EXPECT_EQ(TessarinError(K::notEnoughTracks).caseText(), "notEnoughTracks");
    EXPECT_EQ(TessarinError(K::notEnoughTracks).errorDescription(), "Need at least 2 tracks");
}

TEST(TrackModels, ClockQualityRawValuesEndAtEmbedded) {
    EXPECT_EQ(clockQualityFromRaw(4), ClockQuality::embedded);
    EXPECT_FALSE(clockQualityFromRaw(5).has_value());
}
