#include "TessarinEngine/TrackModels.h"

#include <gtest/gtest.h>

TEST(TrackModels, Placeholder) {
    EXPECT_LT(ClockQuality::asset, ClockQuality::filename);
}
