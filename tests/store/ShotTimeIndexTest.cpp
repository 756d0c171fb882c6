// The run's shot-time index against an ordered map holding the same insertions: appended,
// interleaved and repeated times, across block boundaries, and the lookups the zone stages use.
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "store/ShotTimeIndex.hpp"

using FullWaveform::ShotTimeIndex;

namespace {

using Batch = std::vector<ShotTimeIndex::value_type>;

void insertBoth(ShotTimeIndex& index, std::map<double, std::uint32_t>& model, const Batch& batch) {
  for (const auto& [time, shot] : batch) model[time] = shot;
  index.insert(batch);
}

void expectSame(const ShotTimeIndex& index, const std::map<double, std::uint32_t>& model) {
  ASSERT_EQ(index.size(), model.size());
  auto it = index.begin();
  for (const auto& entry : model) {
    ASSERT_EQ(*it, ShotTimeIndex::value_type(entry));
    ++it;
  }
  EXPECT_EQ(it, index.end());
}

}  // namespace

TEST(ShotTimeIndex, MatchesAnOrderedMapUnderEveryKindOfBatch) {
  std::mt19937_64 random(3);
  ShotTimeIndex index;
  std::map<double, std::uint32_t> model;
  // Fragments in time order, large enough to cross blocks of 65536 entries.
  for (int fragment = 0; fragment < 3; ++fragment) {
    Batch batch;
    for (std::uint32_t s = 0; s < 50000; ++s) batch.emplace_back(fragment * 1e3 + s * 0.01, s);
    insertBoth(index, model, batch);
  }
  expectSame(index, model);
  // A fragment that goes back in time, repeats times, and lands between the held ones.
  Batch late;
  std::uniform_int_distribution<int> pick(0, 300000);
  for (std::uint32_t s = 0; s < 40000; ++s) late.emplace_back(pick(random) * 0.005, s);
  insertBoth(index, model, late);
  expectSame(index, model);
  // A batch whose first time equals the last one held: it replaces, not appends.
  insertBoth(index, model, {{model.rbegin()->first, 7u}, {1e9, 8u}});
  expectSame(index, model);
  insertBoth(index, model, {});
  expectSame(index, model);
}

TEST(ShotTimeIndex, LookupsAndWalks) {
  ShotTimeIndex index;
  EXPECT_TRUE(index.empty());
  EXPECT_EQ(index.lower_bound(1.0), index.end());
  index.insert({{3.0, 0}, {1.0, 1}, {2.0, 2}, {1.0, 3}});  // the later 1.0 wins
  ASSERT_EQ(index.size(), 3u);
  EXPECT_EQ(index.at(1.0), 3u);
  EXPECT_THROW(index.at(1.5), std::out_of_range);
  EXPECT_EQ(index.find(1.5), index.end());
  EXPECT_EQ(index.lower_bound(1.5)->first, 2.0);
  EXPECT_EQ(index.lower_bound(3.5), index.end());
  EXPECT_EQ(index.find(std::nan("")), index.end());
  auto last = std::prev(index.cend());
  EXPECT_EQ(last->first, 3.0);
  EXPECT_EQ((--last)->first, 2.0);
  EXPECT_EQ(std::next(index.begin(), 2)->second, 0u);
}
