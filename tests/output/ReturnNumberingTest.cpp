// Return numbering on lists in the orders a run gives them (shot times with a few steps back,
// a shot's echoes in any range order, repeated ranges) and in orders no run gives: the same
// order and numbers as a plain stable sort by time, then range.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "output/PointGeometry.hpp"

using namespace FullWaveform;

namespace {

using Bytes = Tessal::MemArray<1, std::uint8_t>;

struct Numbered {
  ShotReturns order;
  std::vector<std::uint8_t> returnNumber, numberOfReturns;
  bool ok = false;
};

bool earlier(const ShotReturn& a, const ShotReturn& b) {
  return a.time < b.time || (a.time == b.time && a.range < b.range);
}

// `reference`: ordered first the plain way (a stable sort unless already in order).
Numbered numbered(ShotReturns returns, bool reference) {
  if (reference && !std::is_sorted(returns.begin(), returns.end(), earlier))
    std::stable_sort(returns.begin(), returns.end(), earlier);
  Bytes number(returns.size()), count(returns.size());
  Numbered n;
  n.ok = numberReturns(returns, number, count);
  n.order = returns;
  for (std::size_t k = 0; k < returns.size(); ++k) {
    n.returnNumber.push_back(number.get(k));
    n.numberOfReturns.push_back(count.get(k));
  }
  return n;
}

// Shots 1 us apart; `back` of them recorded a few shots late, `shuffled` the share of shots
// whose echoes come in no range order.
ShotReturns runLike(std::mt19937_64& random, std::size_t shots, double back, double shuffled) {
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  ShotReturns returns;
  for (std::size_t s = 0; s < shots; ++s) {
    double time = 10.0 + double(s) * 1e-6;
    if (unit(random) < back) time -= double(1 + random() % 20) * 1e-6;
    const std::size_t echoes = 1 + random() % 4;
    std::vector<double> ranges;
    for (std::size_t e = 0; e < echoes; ++e) ranges.push_back(100.0 + double(random() % 6));
    if (unit(random) >= shuffled) std::sort(ranges.begin(), ranges.end());
    for (double range : ranges) returns.push_back({time, range, std::uint32_t(returns.size())});
  }
  return returns;
}

// With NaN only the order is compared: the numbering sorts a list again when NaN leaves it
// out of order, so numbering the reference's order is no reference.
void expectSameAsStableSort(const ShotReturns& returns, const char* what, bool numbers = true) {
  const Numbered expected = numbered(returns, true), got = numbered(returns, false);
  ASSERT_EQ(got.order.size(), expected.order.size()) << what;
  for (std::size_t k = 0; k < got.order.size(); ++k)
    ASSERT_EQ(got.order[k].point, expected.order[k].point) << what << ", place " << k;
  if (!numbers) return;
  ASSERT_EQ(got.ok, expected.ok) << what;
  EXPECT_EQ(got.returnNumber, expected.returnNumber) << what;
  EXPECT_EQ(got.numberOfReturns, expected.numberOfReturns) << what;
}

}  // namespace

TEST(ReturnNumbering, OrdersOfARunGiveTheStableSortsNumbers) {
  std::mt19937_64 random(3);
  for (int trial = 0; trial < 200; ++trial) {
    const ShotReturns returns = runLike(random, 1 + random() % 400, 0.02 * (trial % 4), 0.3);
    expectSameAsStableSort(returns, "run-like");
  }
}

TEST(ReturnNumbering, ListsFarFromSortedGiveTheStableSortsNumbers) {
  std::mt19937_64 random(4);
  for (int trial = 0; trial < 50; ++trial) {
    ShotReturns returns = runLike(random, 2000, 0.0, 0.0);
    if (trial % 2)
      std::reverse(returns.begin(), returns.end());  // every point far from its place
    else
      std::shuffle(returns.begin(), returns.end(), random);
    expectSameAsStableSort(returns, trial % 2 ? "reversed" : "shuffled");
  }
}

TEST(ReturnNumbering, InfiniteAndNotANumberValuesKeepTheStableSortsOrder) {
  std::mt19937_64 random(6);
  for (int trial = 0; trial < 100; ++trial) {
    ShotReturns returns = runLike(random, 50, 0.1, 0.5);
    for (auto& r : returns) {
      const auto pick = random() % 30;
      if (pick == 0) r.range = INFINITY;
      if (pick == 1) r.range = -INFINITY;
      if (pick == 2 && trial % 2) r.range = std::nan("");
      if (pick == 3 && trial % 3 == 0) r.time = std::nan("");
    }
    expectSameAsStableSort(returns, "special values", trial % 2 == 0 && trial % 3 != 0);
  }
}

TEST(ReturnNumbering, RepeatedRangesCountOnceAndTheLastOfThemIsNumbered) {
  const ShotReturns returns{{1.0, 5.0, 0}, {1.0, 3.0, 1}, {1.0, 5.0, 2}, {0.5, 9.0, 3}};
  const Numbered n = numbered(returns, false);
  ASSERT_TRUE(n.ok);
  EXPECT_EQ(n.returnNumber, (std::vector<std::uint8_t>{0, 1, 2, 1}));
  EXPECT_EQ(n.numberOfReturns, (std::vector<std::uint8_t>{0, 2, 2, 1}));
}
