// Keyed entries in a sorted vector: the order an ordered map of lists would give, ties
// included, since the outputs depend on it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "store/KeyedOrder.hpp"

using namespace FullWaveform;

namespace {

std::vector<int> valuesOf(const std::vector<Keyed<int>>& entries) {
  std::vector<int> v;
  for (const auto& e : entries) v.push_back(e.value);
  return v;
}

}  // namespace

TEST(KeyedOrder, EqualKeysKeepTheOrderTheyWereAddedIn) {
  std::vector<Keyed<int>> entries{{3.0, 0}, {1.0, 1}, {3.0, 2}, {-0.0, 3}, {1.0, 4}, {0.0, 5}};
  stableOrderByKey(entries);
  // -0 and 0 are one key, as for a map.
  EXPECT_EQ(valuesOf(entries), (std::vector<int>{3, 5, 1, 4, 0, 2}));
  // Ordered input stays as it is.
  stableOrderByKey(entries);
  EXPECT_EQ(valuesOf(entries), (std::vector<int>{3, 5, 1, 4, 0, 2}));
}

TEST(KeyedOrder, MergePutsTheFirstPartFirstAmongEqualKeys) {
  // Both parts out of order; keys 2 and 5 occur in both.
  std::vector<Keyed<int>> entries{{5.0, 0}, {2.0, 1}, {2.0, 2}, {2.0, 10}, {7.0, 11}, {5.0, 12}};
  stableMergeByKey(entries, 3);
  EXPECT_EQ(valuesOf(entries), (std::vector<int>{1, 2, 10, 0, 12, 11}));
  std::vector<Keyed<int>> secondOnly{{1.0, 0}, {0.5, 1}};
  stableMergeByKey(secondOnly, 0);
  EXPECT_EQ(valuesOf(secondOnly), (std::vector<int>{1, 0}));
}

TEST(KeyedOrder, LooksUpTheEntriesOfOneKeyInOrder) {
  std::vector<Keyed<int>> entries{{1.0, 0}, {2.0, 1}, {1.0, 2}, {4.0, 3}};
  stableOrderByKey(entries);
  const auto ones = entriesWithKey(entries, 1.0);
  ASSERT_EQ(ones.size(), 2u);
  EXPECT_EQ(ones[0].value, 0);
  EXPECT_EQ(ones[1].value, 2);
  EXPECT_TRUE(entriesWithKey(entries, 3.0).empty());
  // NaN equals no key (an ordered search would otherwise match everything).
  EXPECT_TRUE(entriesWithKey(entries, std::nan("")).empty());
  EXPECT_TRUE(entriesWithKey(std::vector<Keyed<int>>{}, 1.0).empty());
}

TEST(KeyedOrder, RunsMergeToTheStableSortsOrder) {
  // Ascending runs (with ties inside and across runs) from one run up to many, where the
  // sort takes over; ties must keep their order like std::stable_sort's.
  std::mt19937 random(7);
  const std::pair<int, int> shapes[] = {{1, 40},  {2, 40},   {3, 40}, {5, 40},
                                        {17, 40}, {400, 40}, {300, 3}};
  for (const auto& [runs, length] : shapes) {
    std::vector<Keyed<int>> entries;
    for (int r = 0; r < runs; ++r) {
      double key = double(random() % 50);
      for (int k = 0; k < length; ++k, key += double(random() % 3))
        entries.push_back({key, int(entries.size())});
    }
    auto expected = entries;
    std::stable_sort(expected.begin(), expected.end(), keyedLess<int>);
    stableOrderByKey(entries);
    EXPECT_EQ(valuesOf(entries), valuesOf(expected)) << runs << " runs";
  }
}

TEST(KeyedOrder, EntriesAFewPlacesOutAndRunsPastTheInsertionsBudgetGiveTheStableSortsOrder) {
  std::mt19937 random(9);
  for (int trial = 0; trial < 40; ++trial) {
    // Shot times in order with ties, some entries a few shots late (as zone changes give),
    // then, every other trial, a second long run that insertion alone would take too long on.
    std::vector<Keyed<int>> entries;
    for (int k = 0; k < 3000; ++k) {
      double key = double(k / 2);
      if (random() % 20 == 0) key -= double(1 + random() % 20);
      entries.push_back({key, int(entries.size())});
    }
    for (int k = 0; trial % 2 && k < 3000; ++k) entries.push_back({double(k), int(entries.size())});
    auto expected = entries;
    std::stable_sort(expected.begin(), expected.end(), keyedLess<int>);
    stableOrderByKey(entries);
    ASSERT_EQ(valuesOf(entries), valuesOf(expected)) << "trial " << trial;
  }
}
