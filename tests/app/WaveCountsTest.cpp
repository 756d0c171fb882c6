// The waves before a fragment, as the progress bar reads them: sums over the fragments the
// module numbers, whatever order or gaps their names come in; other names count only in the
// total.
#include <gtest/gtest.h>

#include "app/WaveCounts.hpp"

using namespace quillo::cli;

namespace {

WaveCounts countsOf(std::map<std::string, std::uint64_t> perFragment) {
  WaveCounts counts;
  for (const auto& [name, waves] : perFragment) counts.total += waves;
  counts.perFragment = std::move(perFragment);
  counts.sumByNumber();
  return counts;
}

TEST(WaveCounts, SumsTheFragmentsNumberedBelow) {
  // Names sort as text ("Fragment_10" before "Fragment_2"); fragment 3 is missing.
  const WaveCounts counts = countsOf({{"Fragment_0", 5},
                                      {"Fragment_1", 7},
                                      {"Fragment_2", 11},
                                      {"Fragment_10", 100},
                                      {"Fragment_4", 13}});
  EXPECT_EQ(counts.before(0), 0u);
  EXPECT_EQ(counts.before(1), 5u);
  EXPECT_EQ(counts.before(3), 23u);
  EXPECT_EQ(counts.before(4), 23u);
  EXPECT_EQ(counts.before(5), 36u);
  EXPECT_EQ(counts.before(10), 36u);
  EXPECT_EQ(counts.before(11), 136u);
  EXPECT_EQ(counts.before(4000000000u), 136u);
}

TEST(WaveCounts, NamesTheModuleDoesNotGiveCountOnlyInTheTotal) {
  const WaveCounts counts = countsOf({{"Fragment_01", 1},
                                      {"Fragment_", 2},
                                      {"Fragment_1x", 4},
                                      {"Fragment_99999999999", 8},
                                      {"Other_0", 16},
                                      {"Fragment_0", 32}});
  EXPECT_EQ(counts.total, 63u);
  EXPECT_EQ(counts.before(1), 32u);
  EXPECT_EQ(counts.before(4000000000u), 32u);
  EXPECT_EQ(WaveCounts{}.before(7), 0u);
}

}  // namespace
