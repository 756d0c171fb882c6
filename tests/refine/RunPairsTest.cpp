// The along-line pair count, two pairs at a time, against the plain count of every pair: odd
// and even numbers of echoes (the last pair of lanes half used), echoes of one shot (no
// pair), ranges that are NaN, and counts that reach the needed pairs on the last pair.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>

#include "refine/Refiner.hpp"

namespace FullWaveform::surface_fit {
namespace {

// Every pair of two shots, counted one by one.
int pairsContinued(double shot, double range, const RunOthers& o, double tolerance) {
  int pairs = 0;
  for (int a = 0; a < o.count; ++a)
    for (int b = a + 1; b < o.count; ++b) {
      if (o.shot[a] == o.shot[b]) continue;
      const double at = (shot - o.shot[a]) / (o.shot[b] - o.shot[a]);
      pairs += std::abs(range - (o.range[a] + (o.range[b] - o.range[a]) * at)) < tolerance;
    }
  return pairs;
}

TEST(RunPairs, CountsAsEveryPairOneByOne) {
  std::mt19937_64 random(7);
  std::uniform_real_distribution<double> jitter(-0.3, 0.3);
  std::uniform_int_distribution<int> shotStep(0, 2), count(0, kRunSamples), pick(0, 19);
  int reached = 0, missed = 0;
  for (int trial = 0; trial < 20000; ++trial) {
    const double self = 1000.0, slope = 0.05 * jitter(random);
    RunOthers o;
    o.count = count(random);
    double shot = self - 4.0;
    for (int k = 0; k < o.count; ++k) {
      shot += shotStep(random);  // 0: another echo of the same shot
      o.shot[k] = shot;
      o.range[k] = 700.0 + slope * (shot - self) + jitter(random) * (pick(random) < 10 ? 0.2 : 5.0);
      if (pick(random) == 0) o.range[k] = NAN;
    }
    // The spare lane holds what it may: the test must not count it.
    o.shot[o.count] = pick(random) < 10 ? self : NAN, o.range[o.count] = 700.0;
    const double range = 700.0 + jitter(random) * 0.1;
    const int pairs = pairsContinued(self, range, o, 0.15);
    for (int needed = 1; needed <= 30; ++needed) {
      ASSERT_EQ(continuesPairs(self, range, o, 0.15, needed), pairs >= needed)
          << "trial " << trial << ", " << o.count << " echoes, " << needed << " pairs needed";
      (pairs >= needed ? reached : missed) += 1;
    }
  }
  // Both answers were asked for often.
  EXPECT_GT(reached, 10000);
  EXPECT_GT(missed, 10000);
}

TEST(RunPairs, EchoesOfOneShotMakeNoPair) {
  RunOthers o;
  o.count = 4;
  for (int k = 0; k < 4; ++k) o.shot[k] = 10.0, o.range[k] = 500.0;
  o.shot[4] = 11.0, o.range[4] = 500.0;  // a spare lane that would fit
  EXPECT_FALSE(continuesPairs(12.0, 500.0, o, 0.15, 1));
  o.shot[3] = 11.0;  // now three pairs of two shots, all on the line
  EXPECT_TRUE(continuesPairs(12.0, 500.0, o, 0.15, 3));
  EXPECT_FALSE(continuesPairs(12.0, 500.0, o, 0.15, 4));
}

}  // namespace
}  // namespace FullWaveform::surface_fit
