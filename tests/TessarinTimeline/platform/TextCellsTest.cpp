#include "TessarinTimeline/platform/TextCells.h"

#include <gtest/gtest.h>

TEST(TextCells, WidthsAndFits) {
    EXPECT_EQ(TextCells::width("A001.MOV"), 8);
    EXPECT_EQ(TextCells::width("\u30AB\u30E1\u30E9"), 6); // wide: two cells each
    EXPECT_EQ(TextCells::width("Cafe\u0301"), 4);         // a combining accent takes none
    EXPECT_EQ(TextCells::width("\xff"
                               "a"),
              2); // a bad byte counts one

    const struct {
        const char* text;
        int cells;
        const char* fitted;
    } cases[] = {
        {"CAMERA_B_ROLL_take_0042.MP4", 10, "CAMERA\u2026MP4"},
        {"CAMERA_B_ROLL_take_0042.MP4", 0, ""},
        // A wide character that would straddle the limit is left out, never cut.
        {"\u30AB\u30E1\u30E9\u6771_001.MOV", 8, "\u30AB\u30E1\u2026MOV"},
        {"\u30AB\u30E1\u30E9\u6771_001.MOV", 7, "\u30AB\u30E1\u2026OV"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.text) + " in " + std::to_string(c.cells));
        const auto fitted = TextCells::fit(c.text, c.cells);
        EXPECT_EQ(fitted, c.fitted);
        EXPECT_LE(TextCells::width(fitted), c.cells);
    }
}
