#include "TessarinEngineCLI/Events.h"

#include <gtest/gtest.h>
#include <limits>

TEST(Events, ResultFieldsInOrderWithOptionalFieldsLeftOut) {
    const std::string text = "Strong audio match \u00B7 score 12.3";
    const auto no = std::nullopt;
    const ResultEvent bare("/shoot/A001.mov", "/shoot", "A", "video", 12.5, 30, "synced", no, no,
                           "ok", text, 2, no, no, no, no, no, no, no, no, no);
    const ResultEvent full("/shoot/A001.mov", "/shoot", "A", "video", 12.5, 30, "synced", 12.34f,
                           "A1", "ok", text, 2, 23.976f, 1920, 1080, "/shoot/A001.R3D", 29.488,
                           24.0f, 23.976f, -0.0125, 41.5);
    const std::string head =
        R"({"type":"result","path":"\/shoot\/A001.mov","session":"\/shoot","track":"A",)"
        R"("mediaType":"video","startOffset":12.5,"duration":30,"syncStatus":"synced",)";
    EXPECT_EQ(*Events::encode(bare),
              head + R"("audioUsability":"ok","explanation":"Strong audio match · score 12.3",)"
                     R"("channelCount":2})");
    EXPECT_EQ(*Events::encode(full),
              head + R"("matchScore":12.34,"placement":"A1","audioUsability":"ok",)"
                     R"("explanation":"Strong audio match · score 12.3","channelCount":2,)"
                     R"("frameRate":23.97599983215332,"pixelWidth":1920,"pixelHeight":1080,)"
                     R"("picturePath":"\/shoot\/A001.R3D","pictureDuration":29.488,)"
                     R"("recordFrameRate":24,"conformFrameRate":23.97599983215332,)"
                     R"("refinedBy":-0.0125,"driftPpm":41.5})");
}

TEST(Events, OtherKindsAndEscapes) {
    EXPECT_EQ(*Events::encode(ProgressEvent{"metadata", 0.25, std::nullopt}),
              R"({"type":"progress","phase":"metadata","fraction":0.25})");
    EXPECT_EQ(*Events::encode(ProgressEvent{"sync", 1.0 / 3.0, "A001"}),
              R"({"type":"progress","phase":"sync","fraction":0.3333333333333333,"path":"A001"})");
    EXPECT_EQ(*Events::encode(
                  ErrorEvent{"/a/b \"q\"\\\n.wav", "Extraction failed: noAudioTrack(\"b.wav\")"}),
              R"({"type":"error","path":"\/a\/b \"q\"\\\n.wav",)"
              R"x("message":"Extraction failed: noAudioTrack(\"b.wav\")"})x");
    EXPECT_EQ(*Events::encode(DoneEvent{3, 42, 3600.04}),
              R"({"type":"done","trackCount":3,"clipCount":42,"timelineDuration":3600.04})");
    EXPECT_EQ(*Events::encode(ErrorEvent{std::nullopt, std::string("tab\there\x01")}),
              R"({"type":"error","message":"tab\there\u0001"})");
}

TEST(Events, NonFiniteNumbersAndBadTextDropTheEvent) {
    EXPECT_FALSE(Events::encode(DoneEvent{1, 1, std::numeric_limits<double>::infinity()}));
    ResultEvent r;
    r.frameRate = std::numeric_limits<float>::infinity();
    EXPECT_FALSE(Events::encode(r));
    r.frameRate.reset();
    EXPECT_TRUE(Events::encode(r));
    r.path = "/a/\xff\xfe.wav";
    EXPECT_FALSE(Events::encode(r));
}
