// The run's shot-time index against an ordered map holding the same insertions: appended,
// interleaved and repeated times, across block boundaries and packed blocks, and the lookups
// the zone stages use; and the packed block's exact round trip of awkward times.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <map>
#include <random>

#include "store/PackedShotBlock.hpp"
#include "store/ShotTimeIndex.hpp"
#include "tessal/Scratch.hpp"

using FullWaveform::PackedShotBlock;
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

void expectSameLowerBounds(const ShotTimeIndex& index, const std::map<double, std::uint32_t>& model,
                           const std::vector<double>& probes) {
  auto previous = index.begin();
  for (double t : probes) {
    const auto expected = model.lower_bound(t);
    const auto got = index.lower_bound(t);
    ASSERT_EQ(got == index.end(), expected == model.end()) << t;
    if (got != index.end()) {
      ASSERT_EQ(*got, ShotTimeIndex::value_type(*expected)) << t;
    }
    // From the start, and from the last answer, which may lie before or after t.
    ASSERT_EQ(index.lowerBoundFrom(index.begin(), t), got) << t;
    ASSERT_EQ(index.lowerBoundFrom(previous, t), got) << t;
    previous = got;
  }
}

// Random times over the held span, and held times with their lower neighbours.
std::vector<double> probesOf(const std::map<double, std::uint32_t>& model, std::mt19937_64& random,
                             std::size_t count) {
  std::vector<double> held, probes;
  for (const auto& entry : model) held.push_back(entry.first);
  std::uniform_real_distribution<double> anywhere(held.front() - 0.01, held.back() + 0.01);
  std::uniform_int_distribution<std::size_t> pick(0, held.size() - 1);
  while (probes.size() < count) {
    probes.push_back(anywhere(random));
    const double t = held[pick(random)];
    probes.push_back(t);
    probes.push_back(std::nextafter(t, 0.0));
  }
  return probes;
}

// Shot times of a steady pulse rate with nanosecond jitter, in a GPS week's range.
Batch steadyShots(std::mt19937_64& random, double start, std::uint32_t count) {
  std::normal_distribution<double> jitter(0.0, 1e-9);
  Batch batch;
  for (std::uint32_t s = 0; s < count; ++s)
    batch.emplace_back(start + s * 1e-6 + jitter(random), s);
  return batch;
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
  EXPECT_EQ(index.find(1.0)->second, 3u);
  EXPECT_EQ(index.find(1.5), index.end());
  EXPECT_EQ(index.lower_bound(1.5)->first, 2.0);
  EXPECT_EQ(index.lower_bound(3.5), index.end());
  EXPECT_EQ(index.find(std::nan("")), index.end());
  auto last = std::prev(index.cend());
  EXPECT_EQ(last->first, 3.0);
  EXPECT_EQ((--last)->first, 2.0);
  EXPECT_EQ(std::next(index.begin(), 2)->second, 0u);
}

TEST(ShotTimeIndex, PacksTheBlocksOfEarlierFragmentsAndStillAnswersExactly) {
  std::mt19937_64 random(11);
  ShotTimeIndex index;
  std::map<double, std::uint32_t> model;
  for (int fragment = 0; fragment < 20; ++fragment)
    insertBoth(index, model, steadyShots(random, 345600.0 + fragment * 0.03, 30000));
  expectSame(index, model);
  // All but the last two blocks are packed, which leaves under half of 16 bytes a shot.
  EXPECT_LT(index.memoryBytes(), model.size() * 8);
  std::vector<double> probes = probesOf(model, random, 3000);
  expectSameLowerBounds(index, model, probes);
  // In time order, as iniMTA searches, the forward search walks across blocks.
  std::vector<double> ordered = probes;
  std::sort(ordered.begin(), ordered.end());
  ordered.push_back(std::nan(""));
  expectSameLowerBounds(index, model, ordered);
  // A late fragment merges into packed blocks; walking back from a shot crosses into them.
  insertBoth(index, model, steadyShots(random, 345600.1000005, 40000));
  expectSame(index, model);
  expectSameLowerBounds(index, model, probes);
  auto it = std::prev(index.end());  // walking back passes through packed and plain blocks
  for (auto expected = model.rbegin(); expected != model.rend(); ++expected) {
    ASSERT_EQ(it->first, expected->first);
    if (it != index.begin()) --it;
  }
}

TEST(ShotTimeIndex, SpillsOldBlocksToScratchOrKeepsThemWhenThereIsNone) {
  for (const bool spillable : {true, false}) {
    const auto saved = Tessal::scratchFolder();
    if (!spillable) Tessal::setScratchFolder("/nonexistent/quillo");
    std::mt19937_64 random(13);
    ShotTimeIndex index(1);  // one packed block in memory
    std::map<double, std::uint32_t> model;
    for (int fragment = 0; fragment < 20; ++fragment)
      insertBoth(index, model, steadyShots(random, 345600.0 + fragment * 0.03, 30000));
    // The last fragments' three plain blocks (3 MB) and one packed block stay in memory; the
    // six older packed blocks go to the scratch file, if there is one.
    if (spillable)
      EXPECT_LT(index.memoryBytes(), 3.4e6);
    else
      EXPECT_GT(index.memoryBytes(), 3.9e6);
    expectSameLowerBounds(index, model, probesOf(model, random, 300));
    // A late fragment merges with spilled blocks; the next fragment spills the result again.
    insertBoth(index, model, steadyShots(random, 345600.1000005, 40000));
    insertBoth(index, model, steadyShots(random, 345600.6, 30000));
    EXPECT_EQ(index.size(), model.size());
    expectSameLowerBounds(index, model, probesOf(model, random, 300));
    EXPECT_EQ(index.failure(), "");
    Tessal::setScratchFolder(saved);
  }
}

namespace {

// Scratch space that takes every write and loses it: each read-back fails.
class LosingScratchFile final : public Tessal::ScratchFile {
 public:
  std::int64_t append(const std::vector<std::uint8_t>& bytes) override {
    const std::int64_t at = end_;
    end_ += std::int64_t(bytes.size());
    return at;
  }
  bool read(std::int64_t, std::size_t, std::vector<std::uint8_t>&,
            std::string& error) const override {
    error = "device gone";
    return false;
  }

 private:
  std::int64_t end_ = 0;
};

}  // namespace

TEST(ShotTimeIndex, ALostScratchReadIsReportedAndSearchesStillEnd) {
  Tessal::setScratchFactory([] { return std::make_unique<LosingScratchFile>(); });
  std::mt19937_64 random(5);
  ShotTimeIndex index(1);
  for (int fragment = 0; fragment < 12; ++fragment)
    index.insert(steadyShots(random, 345600.0 + fragment * 0.03, 30000));
  EXPECT_EQ(index.failure(), "");                  // nothing read back yet
  const auto it = index.lower_bound(345600.0005);  // in the first, spilled block
  EXPECT_NE(index.failure().find("could not read back its scratch data (device gone)"),
            std::string::npos);
  EXPECT_TRUE(it == index.end() || it->first >= 345600.0005);
  // A merge reaching back into lost blocks keeps the failure.
  ShotTimeIndex merged(1);
  for (int fragment = 0; fragment < 12; ++fragment)
    merged.insert(steadyShots(random, 345600.0 + fragment * 0.03, 30000));
  merged.insert(steadyShots(random, 345600.0000005, 1000));
  EXPECT_NE(merged.failure(), "");
  Tessal::setScratchFactory({});
}

TEST(PackedShotBlock, ReturnsAwkwardTimesBitForBit) {
  const double tiny = std::numeric_limits<double>::denorm_min();
  std::vector<double> times = {-1e300, -3.5,   -tiny, 0.0,
                               tiny,   1e-300, 1.0,   1.0 + 1e-15,
                               2.0,    1e15,   1e300, std::numeric_limits<double>::max()};
  std::mt19937_64 random(5);
  std::uniform_real_distribution<double> step(0.0, 2e-6);
  for (double t = 345600.0; times.size() < 200;) times.push_back(t += step(random));
  std::sort(times.begin(), times.end());
  std::vector<PackedShotBlock::Entry> entries;
  std::uniform_int_distribution<std::uint32_t> shot;  // shot indices that jump anywhere
  for (double t : times) entries.emplace_back(t, entries.size() % 3 ? shot(random) : 0u);
  const PackedShotBlock block(entries.data(), entries.size());
  std::vector<PackedShotBlock::Entry> unpacked(entries.size());
  block.unpack(unpacked.data());
  for (std::size_t k = 0; k < entries.size(); ++k) {
    ASSERT_EQ(std::bit_cast<std::uint64_t>(block.at(k).first),
              std::bit_cast<std::uint64_t>(entries[k].first))
        << k;
    ASSERT_EQ(block.at(k).second, entries[k].second) << k;
    ASSERT_EQ(unpacked[k], entries[k]) << k;
  }
  auto expected = [&](double t) {
    return std::size_t(std::lower_bound(times.begin(), times.end(), t) - times.begin());
  };
  for (double t : times)
    for (double probe : {t, std::nextafter(t, -INFINITY), std::nextafter(t, INFINITY)})
      EXPECT_EQ(block.lowerBound(probe), expected(probe)) << probe;
  EXPECT_EQ(block.lowerBound(-0.0), expected(0.0));  // -0 and +0 compare equal
  EXPECT_EQ(block.lowerBound(-INFINITY), 0u);
  std::mt19937_64 steadyRandom(2);
  const Batch steady = steadyShots(steadyRandom, 345600.0, 65536);
  EXPECT_LT(PackedShotBlock(steady.data(), steady.size()).memoryBytes(), steady.size() * 3);
  EXPECT_EQ(block.lowerBound(INFINITY), times.size());
}

// The entries a walk back from a shot reads, in place: the same entries, fewer at the start
// of the index, none where the walk would cross into another or a packed block.
TEST(ShotTimeIndex, PlainEntriesUpToAShotAreThoseAWalkBackReads) {
  std::mt19937_64 random(12);
  ShotTimeIndex index;
  index.insert(steadyShots(random, 345600.0, 140000));  // two full blocks, a third begun
  index.insert(steadyShots(random, 345600.2, 1000));    // the first block is packed now
  const std::size_t blockSize = std::size_t(1) << 16;
  auto walked = [&](std::size_t at, std::size_t count) {
    Batch entries;
    auto it = std::next(index.begin(), std::ptrdiff_t(at));
    for (std::size_t k = 0; k < count; ++k, --it) {
      entries.insert(entries.begin(), *it);
      if (it == index.begin()) break;
    }
    return entries;
  };
  for (std::size_t at : {2 * blockSize + 8, 2 * blockSize + 3000, index.size() - 1}) {
    std::size_t count = 9;
    const auto* entries =
        index.plainEntriesUpTo(std::next(index.begin(), std::ptrdiff_t(at)), count);
    ASSERT_NE(entries, nullptr) << at;
    EXPECT_EQ(Batch(entries, entries + count), walked(at, 9)) << at;
  }
  std::size_t count = 9;
  EXPECT_EQ(
      index.plainEntriesUpTo(std::next(index.begin(), std::ptrdiff_t(2 * blockSize + 3)), count),
      nullptr);  // reaches back into the packed block
  EXPECT_EQ(index.plainEntriesUpTo(std::next(index.begin(), 5), count), nullptr);  // packed
  EXPECT_EQ(index.plainEntriesUpTo(index.end(), count), nullptr);

  ShotTimeIndex fresh;
  fresh.insert(steadyShots(random, 345600.0, 100));
  count = 9;
  const auto* first = fresh.plainEntriesUpTo(std::next(fresh.begin(), 3), count);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(count, 4u);  // the index starts 3 shots back
  EXPECT_EQ(Batch(first, first + count), Batch(fresh.begin(), std::next(fresh.begin(), 4)));
}
