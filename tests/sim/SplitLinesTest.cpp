// A survey of one flight line (a file per line) flies that line where the whole survey flies
// it: same place, direction and times, and as many shots as the line has.
#include <gtest/gtest.h>

#include <cmath>

#include "sim/Survey.hpp"
#include "support/SimPresets.hpp"

using namespace quillo::sim;

TEST(SplitLines, ALineAloneIsFlownWhereTheWholeSurveyFliesIt) {
  SurveyConfig whole = quillo::test::presetSurvey();
  whole.shots = 10001, whole.lines = 3;  // the last line is one shot short
  const Survey all(whole);
  const double nominal = 1.0 / whole.pulseRate;
  for (std::uint32_t line = 0; line < whole.lines; ++line) {
    SurveyConfig one = whole;
    one.onlyLine = std::int32_t(line);
    const Survey alone(one);
    EXPECT_EQ(alone.config().shots, line < 2 ? 3334u : 3333u) << line;
    for (std::uint64_t k : {std::uint64_t(0), std::uint64_t(1234), alone.config().shots - 1}) {
      const Shot a = alone.shot(k), b = all.shot(line * all.shotsPerLine() + k);
      // The shots' jitter is drawn per index, so times agree to the modulation's spread.
      EXPECT_NEAR(a.time, b.time, 2.0 * whole.ppmSpread * nominal) << line << " " << k;
      EXPECT_NEAR(a.origin.x, b.origin.x, 1e-3) << line << " " << k;
      EXPECT_NEAR(a.origin.y, b.origin.y, 1e-3) << line << " " << k;
      EXPECT_NEAR(a.origin.z, b.origin.z, 1e-9) << line << " " << k;
      EXPECT_NEAR(a.direction.x, b.direction.x, 1e-3) << line << " " << k;
    }
  }
}
