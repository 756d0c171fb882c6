// Row statistics: the counted median and noise against direct computation, over rows whose
// spread makes the counting shortcut apply or not; clipping detection.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "waveform/RowStatistics.hpp"

using namespace FullWaveform;

namespace {

struct Row {
  std::vector<std::int32_t> y;
  std::int32_t lowest() const { return *std::min_element(y.begin(), y.end()); }
  std::int32_t highest() const { return *std::max_element(y.begin(), y.end()); }
};

// Noise around `background` with `echoes` tall pulses of `height` counts; spread > 0 adds a
// uniform scatter that pushes half the row beyond the counted range.
Row makeRow(std::mt19937_64& random, std::size_t n, double sigma, int echoes, int height,
            int spread) {
  std::normal_distribution<double> noise(400.0, sigma);
  std::uniform_int_distribution<int> scatter(0, std::max(spread, 1));
  Row row;
  for (std::size_t i = 0; i < n; ++i)
    row.y.push_back(std::max(0, int(std::lround(noise(random))) + (spread ? scatter(random) : 0)));
  for (int e = 0; e < echoes; ++e) {
    const std::size_t at = std::size_t(random() % n);
    for (std::size_t i = at; i < std::min(n, at + 3); ++i) row.y[i] += height;
  }
  return row;
}

std::int32_t directMedian(std::vector<std::int32_t> y) {
  std::nth_element(y.begin(), y.begin() + std::ptrdiff_t(y.size() / 2), y.end());
  return y[y.size() / 2];
}

// The noise sigma summed plainly in 64 bits, to check the 32-bit blocks against.
double plainNoiseSigma(const std::vector<std::int32_t>& y, std::int32_t background) {
  std::int64_t absSum = 0;
  for (std::int32_t v : y) absSum += std::abs(std::int64_t(v) - background);
  double sigma = 1.2533 * double(absSum) / double(y.size());
  for (int pass = 0; pass < 2; ++pass) {
    const auto limit = std::int64_t(std::floor(3.5 * std::max(sigma, 0.5)));
    std::int64_t squares = 0, count = 0;
    for (std::int32_t v : y)
      if (std::abs(std::int64_t(v) - background) <= limit)
        squares += (std::int64_t(v) - background) * (std::int64_t(v) - background), ++count;
    if (count) sigma = std::sqrt(double(squares) / double(count));
  }
  return sigma;
}

}  // namespace

// Deviations up to the full 16 bits, short rows with a partial last vector, rows long enough
// for several 32-bit blocks, limits beyond 65535: the same bits as plain 64-bit sums.
TEST(RowStatistics, NoiseSigmaEqualsPlainSums) {
  std::mt19937_64 random(7);
  for (const std::size_t n : {1, 3, 37, 64, 200, 256, 70000})
    for (const int spread : {3, 300, 65535}) {
      std::uniform_int_distribution<int> sample(0, spread);
      std::vector<std::int32_t> y(n);
      for (auto& v : y) v = sample(random);
      for (const std::int32_t background : {0, spread / 2, spread, 65535}) {
        SCOPED_TRACE(testing::Message()
                     << "n " << n << " spread " << spread << " background " << background);
        ASSERT_EQ(noiseSigmaAround(y.data(), n, background), plainNoiseSigma(y, background));
      }
    }
}

TEST(RowStatistics, CountedResultsEqualDirectOnes) {
  std::mt19937_64 random(42);
  RowStatistics statistics(16);  // smaller than the rows: the exact selection must grow
  const PeakSettings settings;
  struct Case {
    std::size_t n;
    double sigma;
    int echoes, height, spread;
  };
  for (const Case c : {Case{64, 2.0, 1, 200, 0}, Case{3, 2.0, 0, 0, 0}, Case{65, 0.0, 0, 0, 0},
                       Case{200, 30.0, 4, 3000, 0}, Case{64, 2.0, 0, 0, 20000},
                       Case{512, 60.0, 10, 60000, 0}, Case{64, 90.0, 0, 0, 0}}) {
    for (int trial = 0; trial < 200; ++trial) {
      const Row row = makeRow(random, c.n, c.sigma, c.echoes, c.height, c.spread);
      const RowStats s =
          statistics.compute(row.y.data(), row.y.size(), row.lowest(), row.highest(), 0, settings);
      SCOPED_TRACE(testing::Message() << "n " << c.n << " sigma " << c.sigma << " trial " << trial);
      ASSERT_EQ(s.background, directMedian(row.y));
      ASSERT_DOUBLE_EQ(s.noiseSigma, noiseSigmaAround(row.y.data(), row.y.size(), s.background));
    }
  }
}

TEST(RowStatistics, NoiseSigmaAndThreshold) {
  std::mt19937_64 random(7);
  RowStatistics statistics(4096);
  PeakSettings settings;
  const Row row = makeRow(random, 4096, 3.0, 20, 500, 0);
  const RowStats s =
      statistics.compute(row.y.data(), row.y.size(), row.lowest(), row.highest(), 0, settings);
  EXPECT_NEAR(s.noiseSigma, 3.0, 0.15);  // the echoes are clipped away
  EXPECT_DOUBLE_EQ(s.threshold, settings.thresholdSigmas * s.noiseSigma);
  EXPECT_EQ(
      statistics.compute(row.y.data(), row.y.size(), row.lowest(), row.highest(), 25, settings)
          .threshold,
      25.0);
  const std::vector<std::int32_t> flat(64, 100);
  const RowStats f = statistics.compute(flat.data(), flat.size(), 100, 100, 0, settings);
  EXPECT_EQ(f.noiseSigma, 0.0);
  EXPECT_EQ(f.threshold, settings.minimumThreshold);
}

TEST(RowStatistics, ClippingNeedsNeighboursAtTheMaximumFarAboveTheNoise) {
  RowStatistics statistics(64);
  PeakSettings settings;
  std::vector<std::int32_t> y(64, 100);
  for (std::size_t i = 0; i < y.size(); i += 2) y[i] = 102;  // noise sigma about 1
  y[30] = y[31] = 4095;
  EXPECT_TRUE(statistics.compute(y.data(), y.size(), 100, 4095, 0, settings).clipped);
  y[31] = 4000;  // the maximum once: a sharp echo, not a flat top
  EXPECT_FALSE(statistics.compute(y.data(), y.size(), 100, 4095, 0, settings).clipped);
  y[31] = 4095;
  y[30] = y[31] = 108;  // side by side at the maximum, but only noise high
  EXPECT_FALSE(statistics.compute(y.data(), y.size(), 100, 108, 0, settings).clipped);
  settings.saturationLevel = 100;  // a configured level clips by value alone
  const RowStats s = statistics.compute(y.data(), y.size(), 100, 108, 0, settings);
  EXPECT_TRUE(s.clipped);
  EXPECT_EQ(s.clipLevel, 100.0);
}
