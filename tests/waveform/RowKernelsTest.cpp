// The row passes against plain sample-by-sample loops: extremes, the sample of a rank, the
// smoothing and its marks with the scan to them, the excess sums, over row lengths around
// the vector widths (vector code and plain loops) and values across the 16-bit range.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <vector>

#include "waveform/RowKernels.hpp"

using namespace FullWaveform;

namespace {

const std::size_t kLengths[] = {1, 2, 3, 7, 8, 9, 15, 16, 17, 32, 63, 64, 65, 96, 128, 200, 256};

std::vector<std::int32_t> randomRow(std::mt19937_64& random, std::size_t n, int low, int high) {
  std::uniform_int_distribution<int> value(low, high);
  std::vector<std::int32_t> y(n);
  for (auto& v : y) v = value(random);
  return y;
}

}  // namespace

TEST(RowKernelsTest, WidenedRowAndItsExtremes) {
  std::mt19937_64 random(11);
  for (const std::size_t n : kLengths)
    for (int trial = 0; trial < 50; ++trial) {
      const auto values = randomRow(random, n, 0, 65535);
      const std::vector<std::uint16_t> in(values.begin(), values.end());
      std::vector<std::int32_t> out(n, -1);
      const SampleRange r = widenRow(in.data(), n, out.data());
      ASSERT_EQ(out, values);
      EXPECT_EQ(r.lowest, *std::min_element(values.begin(), values.end()));
      EXPECT_EQ(r.highest, *std::max_element(values.begin(), values.end()));
    }
}

TEST(RowKernelsTest, RankWithinStepsIsTheSortedSample) {
  std::mt19937_64 random(5);
  for (const std::size_t n : kLengths)
    for (const int spread : {0, 3, 15, 16, 40, 60000}) {
      for (int trial = 0; trial < 50; ++trial) {
        const auto y = randomRow(random, n, 400, 400 + spread);
        auto sorted = y;
        std::sort(sorted.begin(), sorted.end());
        for (const std::size_t rank : {std::size_t(0), n / 2, n - 1}) {
          std::int32_t value = -1;
          const bool found = rankWithinSteps(y.data(), n, sorted[0], rank, 16, value);
          // Found exactly when the sample lies within the 16 values from the lowest up (in
          // rows it takes).
          ASSERT_EQ(found, n <= kRankRowMax && sorted[rank] - sorted[0] < 16)
              << n << " " << spread << " " << rank;
          if (found) {
            EXPECT_EQ(value, sorted[rank]);
          }
        }
      }
    }
}

TEST(RowKernelsTest, SmoothingMarksAndScan) {
  std::mt19937_64 random(3);
  for (const std::size_t n : kLengths) {
    if (n < 3) continue;
    for (int trial = 0; trial < 100; ++trial) {
      const auto y = randomRow(random, n, 0, 100);
      const std::int32_t limit = 4 * (40 + trial % 60);
      std::vector<std::int32_t> smooth(n);
      std::vector<std::uint64_t> marks(markWords(n), ~std::uint64_t(0));
      smoothAndMark(y.data(), n, limit, smooth.data(), marks.data());
      for (std::size_t i = 0; i < marks.size() * 64; ++i) {
        const bool marked = (marks[i / 64] >> (i % 64)) & 1;
        if (i >= n) {
          ASSERT_FALSE(marked) << n << " " << i;
          continue;
        }
        const std::int32_t left = y[i == 0 ? 0 : i - 1], right = y[i + 1 == n ? i : i + 1];
        ASSERT_EQ(smooth[i], left + 2 * y[i] + right) << n << " " << i;
        ASSERT_EQ(marked, smooth[i] > limit) << n << " " << i;
      }
      for (std::size_t from = 0; from <= n; ++from)
        for (const std::size_t end : {n, n - 1}) {
          if (from > end) continue;
          std::size_t expected = from;
          while (expected < end && smooth[expected] <= limit) ++expected;
          ASSERT_EQ(nextMarked(marks.data(), from, end), expected) << n << " " << from;
        }
    }
  }
}

TEST(RowKernelsTest, ExcessSumsOnEitherSide) {
  std::mt19937_64 random(9);
  for (const std::size_t n : kLengths)
    for (int trial = 0; trial < 50; ++trial) {
      const auto y = randomRow(random, n, 0, trial % 2 ? 65535 : 6);
      const std::int32_t background = y[std::size_t(trial) % n];
      for (std::size_t split = 0; split <= n; split += 1 + n / 5) {
        std::int64_t before = 0, after = 0;
        for (std::size_t i = 0; i < n; ++i)
          (i < split ? before : after) += std::max(0, y[i] - background);
        const ExcessSums sums = excessOverBackground(y.data(), n, background, split);
        ASSERT_EQ(sums.before, before);
        ASSERT_EQ(sums.after, after);
      }
    }
}

// When taken, the noise sums are those of 64-bit loops; limits past the lanes' range are not
// taken.
TEST(RowKernelsTest, NoiseSumsWhenTaken) {
  std::mt19937_64 random(13);
  for (const std::size_t n : kLengths)
    for (const int spread : {6, 300, 65535}) {
      const auto y = randomRow(random, n, 0, spread);
      const std::int32_t background = y[n / 2];
      std::uint64_t absSum = 0, plainAbs = 0;
      for (std::int32_t v : y) plainAbs += std::uint64_t(std::abs(v - background));
      if (shortAbsoluteDeviation(y.data(), n, background, absSum)) {
        ASSERT_EQ(absSum, plainAbs) << n << " " << spread;
      }
      for (const std::int64_t limit : {std::int64_t(0), std::int64_t(3), std::int64_t(200),
                                       kNearLimitMax, kNearLimitMax + 1}) {
        std::int64_t squares = -1, count = -1, plainSquares = 0, plainCount = 0;
        for (std::int32_t v : y)
          if (std::abs(v - background) <= limit)
            plainSquares += std::int64_t(v - background) * (v - background), ++plainCount;
        if (!shortNearDeviation(y.data(), n, background, limit, squares, count)) continue;
        ASSERT_LE(limit, kNearLimitMax);
        ASSERT_EQ(squares, plainSquares) << n << " " << spread << " " << limit;
        ASSERT_EQ(count, plainCount);
      }
    }
}
