// How a run on several threads cuts the fragments: contiguous ranges covering them all, the
// first shorter by the writer's share, no cut after a fragment too small to carry the
// module's state, and the writer's share growing with the number of fragments.
#include <gtest/gtest.h>

#include <numeric>

#include "app/ParallelSplit.hpp"

using namespace quillo::cli;

namespace {

std::uint64_t wavesIn(const std::vector<std::uint64_t>& waves, FragmentRange r) {
  return std::accumulate(waves.begin() + r.begin, waves.begin() + r.end, std::uint64_t(0));
}

void expectContiguous(const std::vector<FragmentRange>& ranges, FragmentRange all) {
  ASSERT_FALSE(ranges.empty());
  EXPECT_EQ(ranges.front().begin, all.begin);
  EXPECT_EQ(ranges.back().end, all.end);
  for (std::size_t r = 0; r < ranges.size(); ++r) {
    EXPECT_LT(ranges[r].begin, ranges[r].end);
    if (r) {
      EXPECT_EQ(ranges[r].begin, ranges[r - 1].end);
    }
  }
}

}  // namespace

TEST(ParallelSplit, FirstRangeShorterByTheWritersShare) {
  const std::vector<std::uint64_t> waves(5000, 400);
  const FragmentRange all{0, 5000};
  for (double writer : {0.0, 0.2, 0.4}) {
    const auto ranges = splitFragments(all, 2, waves, writer);
    expectContiguous(ranges, all);
    ASSERT_EQ(ranges.size(), 2u);
    // Both end together: the first range's waves are (1 - w) times the second's.
    const double first = double(wavesIn(waves, ranges[0])),
                 second = double(wavesIn(waves, ranges[1]));
    EXPECT_NEAR(first / second, 1.0 - writer, 0.01) << writer;
  }
  // More threads: the first range shortest, the others alike.
  const auto four = splitFragments(all, 4, waves, 0.3);
  expectContiguous(four, all);
  ASSERT_EQ(four.size(), 4u);
  EXPECT_LT(wavesIn(waves, four[0]), wavesIn(waves, four[1]));
  EXPECT_NEAR(double(wavesIn(waves, four[1])), double(wavesIn(waves, four[3])), 400.0);
}

TEST(ParallelSplit, CutsOnlyAfterFragmentsThatCarryState) {
  // Fragments 3 to 6 hold fewer than three waves: no range may start after one of them.
  std::vector<std::uint64_t> waves(12, 1000);
  for (int f = 3; f <= 6; ++f) waves[f] = 2;
  const FragmentRange all{0, 12};
  const auto ranges = splitFragments(all, 3, waves, 0.2);
  expectContiguous(ranges, all);
  for (std::size_t r = 1; r < ranges.size(); ++r) EXPECT_GE(waves[ranges[r].begin - 1], 3u);
  // Too few fragments: one range, whatever the threads.
  expectContiguous(splitFragments({4, 5}, 2, waves, 0.2), {4, 5});
  const std::vector<std::uint64_t> tiny{1, 1, 1};
  EXPECT_EQ(splitFragments({0, 3}, 2, tiny, 0.2).size(), 1u);
  // A sub-range of the fragments keeps its bounds.
  expectContiguous(splitFragments({2, 10}, 2, waves, 0.2), {2, 10});
}

TEST(ParallelSplit, WritersShareGrowsWithFragments) {
  using FullWaveform::FWF_GAUSSIAN_DECOMPOSITION;
  const auto fast = FullWaveform::FWF_FAST_PEAKS;
  const double few = writerShare(fast, 20, 1900000, true);
  const double many = writerShare(fast, 5000, 1900000, true);
  EXPECT_GT(many, few + 0.1);
  EXPECT_LT(writerShare(FWF_GAUSSIAN_DECOMPOSITION, 20, 1900000, true), few);
  EXPECT_LE(writerShare(fast, 1000000, 1000000, true), 0.9);  // never the whole run
  EXPECT_LT(writerShare(fast, 20, 1900000, false), few);      // refined runs: as before
  EXPECT_GE(writerShare(fast, 5, 0, true), 0.0);              // no waves
}
