// The row shortcuts against the expressions they replace: std::lround at and around halves,
// std::log of counts bit for bit, the integer limit against the threshold.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "waveform/RowScan.hpp"

using namespace FullWaveform;

namespace {

bool sameBits(double a, double b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

}  // namespace

TEST(RowScanTest, RoundHalfAwayIsLround) {
  std::vector<double> xs = {0.0,
                            -0.0,
                            0.5,
                            -0.5,
                            1.5,
                            -1.5,
                            2.5,
                            -2.5,
                            63.5,
                            1e15,
                            -1e15,
                            4503599627370495.5,
                            9007199254740993.0,
                            1e300};
  for (double h = 0.5; h < 100.0; h += 1.0)
    for (double x : {h, -h}) {
      xs.push_back(x);
      xs.push_back(std::nextafter(x, 0.0));
      xs.push_back(std::nextafter(x, 1e9 * x));
    }
  std::mt19937_64 random(7);
  std::uniform_real_distribution<double> any(-1e6, 1e6);
  for (int i = 0; i < 10000; ++i) xs.push_back(any(random));
  for (double x : xs) EXPECT_EQ(roundHalfAway(x), std::lround(x)) << x;
}

TEST(RowScanTest, CountLogsAreLibraryLogs) {
  const CountLogs logs;
  for (std::size_t i = 1; i < 5000; ++i) {
    const double x = double(i);
    EXPECT_TRUE(sameBits(logs(x), std::log(x))) << x;
    EXPECT_TRUE(sameBits(logs(x + 0.25), std::log(x + 0.25))) << x;
  }
  EXPECT_TRUE(sameBits(logs(0.5), std::log(0.5)));
  EXPECT_TRUE(std::isinf(logs(0.0)));
}

TEST(RowScanTest, IntegerLimitKeepsTheComparison) {
  std::int32_t limit = 0;
  EXPECT_FALSE(integerLimit(std::numeric_limits<double>::quiet_NaN(), limit));
  EXPECT_FALSE(integerLimit(-1e10, limit));
  ASSERT_TRUE(integerLimit(1e10, limit));
  EXPECT_EQ(limit, std::numeric_limits<std::int32_t>::max());
  for (double above : {-3.5, -3.0, 0.0, 0.25, 1599.999, 1600.0, 1600.0001}) {
    ASSERT_TRUE(integerLimit(above, limit));
    for (std::int32_t v = -10; v < 1700; ++v)
      EXPECT_EQ(v <= above, v <= limit) << above << " " << v;
  }
}
