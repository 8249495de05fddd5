#include "TessarinEngine/TrackModels.h"

#include <gtest/gtest.h>

// The sentences themselves are the code's own table; what is tested here is how they are put
// together: which codes take a score, what unusable audio and short clips say, and the tails.
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
    const Case cases[] = {
        {"ref", synced, 20.0f, "Reference track \u2014 everything else is measured against it"},
        {"linked", synced, 9.25f,
         "Long recorder linked to the reference by content consensus \u00B7 score 9.2"},
        {"A1", synced, 12.34f, "Strong audio match \u00B7 score 12.3"},
        {"A1w", SyncStatus::weak, 5.0f, "Weak audio match \u2014 check by ear \u00B7 score 5.0"},
        {"p1", SyncStatus::failed, 3.0f, "Audio match below the confidence floor \u00B7 score 3.0"},
        {std::nullopt, SyncStatus::pending, std::nullopt,
         "No matching audio nearby \u2014 placed between neighbours"},
        {"interp", SyncStatus::weak, 6.0f,
         "Shorter than 5 s \u2014 not compared, placed between neighbours", 4.9},
        {"A1", synced, 12.0f, "Audio track is silent \u2014 placed by clock or between neighbours",
         60, AudioUsability::silent},
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
