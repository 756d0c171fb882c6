// Reflectance prediction with the built-in table and with a caller's table.
#include <gtest/gtest.h>

#include <cmath>

#include "output/Reflectance.hpp"

using namespace FullWaveform;

TEST(BuiltInReflectance, FallsToItsMinimumThenRisesLikeTheRangeLoss) {
  for (int i = 0; i < 131; ++i) EXPECT_GE(rangeCorrectionTable[i], rangeCorrectionTable[i + 1]);
  for (int i = 131; i < 1983; ++i) EXPECT_LE(rangeCorrectionTable[i], rangeCorrectionTable[i + 1]);
  // Far range: about 6.02 more per doubling of the range.
  EXPECT_NEAR(rangeCorrectionTable[1000] - rangeCorrectionTable[500], 6.02, 0.01);
}

TEST(BuiltInReflectance, Interpolation) {
  EXPECT_EQ(predictReflectance_calibrated(10.0f, 0.0), 0.0);
  EXPECT_EQ(predictReflectance_calibrated(10.0f, -5.0), 0.0);
  EXPECT_NEAR(predictReflectance_calibrated(10.0f, 100 / 7.280826222782827), -45.26, 1e-5);
  EXPECT_DOUBLE_EQ(predictReflectance_calibrated(3.0f, 500.0), 3.0 + rangeCorrectionTable[1983]);
  EXPECT_NEAR(predictReflectance_calibrated(5.0f, 1.0), -41.07, 0.01);
  EXPECT_TRUE(std::isnan(predictReflectance_calibrated(5.0f, std::nan(""))));
}

TEST(TableReflectance, CellsEndsAndLimits) {
  const std::vector<float> t{-10, -20, -30};
  auto r = [&](double range) {
    return predictReflectance_calibrated_from_attribute(0.0f, range, t, 1.0);
  };
  EXPECT_DOUBLE_EQ(r(1.25), -22.5);
  EXPECT_DOUBLE_EQ(r(1.5), -25.0);
  EXPECT_DOUBLE_EQ(r(2.0), -20.0);  // the last cell, fraction 0
  EXPECT_DOUBLE_EQ(r(2.5), -25.0);
  EXPECT_DOUBLE_EQ(r(10.25), -22.5);
  EXPECT_EQ(r(1.0), 0.0);
  EXPECT_EQ(r(3000.5), 0.0);
  EXPECT_NE(r(3000.0), 0.0);
  EXPECT_EQ(predictReflectance_calibrated_from_attribute(1.0f, 5.0, {}, 1.0), 0.0);
  EXPECT_TRUE(std::isnan(predictReflectance_calibrated_from_attribute(1.0f, 5.0, t, 0.0)));
  EXPECT_DOUBLE_EQ(predictReflectance_calibrated_from_attribute(1.0f, 5.0, {-7.0f}, 1.0), -6.0);
}
