// Reused wave objects: a taken wave is indistinguishable from a new one, waves still held
// elsewhere are not reused, and detection and online evaluation give the same waves with a
// pool that holds another fragment's objects as without one.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "support/Arrays.hpp"
#include "support/SyntheticWaveforms.hpp"
#include "waveform/OnlineEvaluation.hpp"
#include "waveform/PeakDetection.hpp"
#include "waveform/WavePool.hpp"

using namespace FullWaveform;
using namespace quillo::test;

namespace {

using Pool = WavePool<unsigned short>;
using Ptr = Pool::Ptr;

Ptr usedWave(double time, std::size_t echoes) {
  auto w = Vorlap::makeStrong<WavePoints<unsigned short>>();
  w->channel = 3;
  w->waveTime = time;
  w->damping = 0.5f;
  w->amplitude = 7.f;
  w->timeOffset = 1e-6;
  w->amplitudeExempt = true;
  w->maxSample = 900;
  for (std::size_t k = 0; k < echoes; ++k) w->echoes.push_back({});
  return w;
}

void expectSameWaves(const std::vector<Ptr>& a, const std::vector<Ptr>& b) {
  ASSERT_EQ(a.size(), b.size());
  for (std::size_t i = 0; i < a.size(); ++i) {
    const auto &x = *a[i], &y = *b[i];
    EXPECT_EQ(x.channel, y.channel);
    EXPECT_EQ(x.waveTime, y.waveTime);
    EXPECT_EQ(x.damping, y.damping);
    EXPECT_EQ(x.amplitude, y.amplitude);
    EXPECT_EQ(x.timeOffset, y.timeOffset);
    EXPECT_EQ(x.amplitudeExempt, y.amplitudeExempt);
    EXPECT_EQ(x.maxSample, y.maxSample);
    ASSERT_EQ(x.size(), y.size()) << "wave " << i;
    for (std::size_t k = 0; k < x.size(); ++k) {
      const auto &e = x.echoes[k], &f = y.echoes[k];
      EXPECT_EQ(e.amplitude, f.amplitude);
      EXPECT_EQ(e.samplePosition, f.samplePosition);
      EXPECT_EQ(e.time, f.time);
      EXPECT_EQ(e.pointType, f.pointType);
      EXPECT_EQ(e.pulseWidth, f.pulseWidth);
      EXPECT_EQ(e.classification, f.classification);
      EXPECT_EQ(e.reflectance, f.reflectance);
    }
  }
}

}  // namespace

TEST(WavePool, TakesBackOnlyFreeWavesAndHandsThemOutFreshInListOrder) {
  Pool pool;
  Ptr held = usedWave(1.0, 1);
  Ptr keptElsewhere = held;
  std::vector<Ptr> list{usedWave(2.0, 5), Ptr(), held, usedWave(3.0, 2)};
  const auto* first = list[0].get();
  const auto* last = list[3].get();
  pool.giveBack(list);
  EXPECT_TRUE(list.empty());
  EXPECT_EQ(pool.spare(), 2u);  // the held wave stays with its other holder
  EXPECT_EQ(keptElsewhere->waveTime, 1.0);

  const Ptr a = pool.take();
  EXPECT_EQ(a.get(), first);
  EXPECT_EQ(a->channel, 0);
  EXPECT_EQ(a->waveTime, 0.0);
  EXPECT_EQ(a->damping, 0.f);
  EXPECT_EQ(a->amplitude, 0.f);
  EXPECT_EQ(a->timeOffset, 0.0);
  EXPECT_FALSE(a->amplitudeExempt);
  EXPECT_EQ(a->maxSample, 0);
  EXPECT_TRUE(a->echoes.empty());
  EXPECT_GE(a->echoes.capacity(), 5u);  // the room stays
  EXPECT_EQ(pool.take().get(), last);
  EXPECT_EQ(pool.spare(), 0u);
  const Ptr fresh = pool.take();  // none left: a new one
  ASSERT_TRUE(fresh);
  EXPECT_TRUE(fresh->echoes.empty());

  // A single wave given back is reused after the earlier ones; an empty handle is ignored.
  Ptr one = usedWave(4.0, 1), none;
  const auto* oneObject = one.get();
  pool.giveBack(one);
  pool.giveBack(none);
  EXPECT_FALSE(one);
  EXPECT_EQ(pool.spare(), 1u);
  std::vector<Ptr> more{usedWave(5.0, 1)};
  const auto* moreObject = more[0].get();
  pool.giveBack(more);
  EXPECT_EQ(pool.take().get(), oneObject);
  EXPECT_EQ(pool.take().get(), moreObject);
}

TEST(WavePool, DetectionAndOnlineEvaluationGiveTheSameWavesWithReusedObjects) {
  // Two "fragments": the second reuses the first's objects, which had other echo counts.
  const std::vector<SyntheticRow> firstRows{
      {{{20.0, 800.0, 3.0}, {60.0, 300.0, 3.0}}}, {{{40.0, 500.0, 2.5}}}, {{}}};
  const std::vector<SyntheticRow> secondRows{{{{35.0, 400.0, 3.0}}},
                                             {{}},
                                             {{{25.0, 600.0, 3.0}, {70.0, 200.0, 3.0}}},
                                             {{{50.0, 900.0, 2.0}}}};
  ScannerDevice scanner;
  scanner.sampleInterval = 1e-9;
  scanner.lightSpeed = 3.0e8;
  SyntheticSettings settings;
  settings.samples = 100;
  auto detect = [&](const std::vector<SyntheticRow>& rows, Pool* pool) {
    auto samples = renderRows(rows, settings, 1);
    const std::size_t n = rows.size();
    PeakDetectionFamily<unsigned short> d(FWF_FAST_PEAKS, scanner, {}, "test.kq",
                                          std::uint32_t(samples->extent(0)));
    std::vector<double> times;
    for (std::size_t r = 0; r < n; ++r) times.push_back(100.0 + double(r));
    return d.apply(samples,
                   makeArray(std::vector<std::uint16_t>(n, std::uint16_t(settings.samples))),
                   makeArray(times), makeArray(std::vector<double>(n, 1e-6)),
                   makeArray(std::vector<std::uint8_t>(n, 1)), 0, "Fragment_0", pool);
  };
  auto online = [&](Pool* pool) {
    return OnlineEvaluation<unsigned short>(scanner).apply(
        makeArray<double>({1.0, 1.0, 2.0, 3.0}), makeArray<double>({30.0, 15.0, 45.0, 5.0}),
        makeArray<float>({5.f, 9.f, 3.f, 2.f}), makeArray<std::uint8_t>({0, 0, 0, 1}),
        makeArray<float>({-1.f, -2.f, -3.f, -4.f}), pool);
  };

  Pool pool;
  auto first = detect(firstRows, &pool);
  expectSameWaves(first, detect(firstRows, nullptr));
  for (auto& w : first) w->setClassification(Quorvane::DrelmClass::noise);
  pool.giveBack(first);
  const auto second = detect(secondRows, &pool);
  EXPECT_EQ(pool.spare(), 0u);  // three reused, one new
  ASSERT_EQ(second.size(), 4u);
  EXPECT_EQ(second[1]->size(), 0u);  // reuses a wave that had an echo
  EXPECT_EQ(second[2]->size(), 2u);
  expectSameWaves(second, detect(secondRows, nullptr));

  auto waves = online(&pool);
  pool.giveBack(waves);
  expectSameWaves(online(&pool), online(nullptr));
}

// A large fragment's waves take the radix passes, a small one's a comparison sort, and a list
// already in order is left as it is.
class WavePoolOrder : public ::testing::TestWithParam<int> {};

TEST_P(WavePoolOrder, OrdersTheWaitingObjectsByAddressAndKeepsEachOnce) {
  Pool pool;
  std::vector<Ptr> list;
  for (int i = 0; i < GetParam(); ++i) list.push_back(usedWave(double(i), std::size_t(i % 3)));
  std::vector<const void*> given;
  for (const auto& w : list) given.push_back(w.get());
  // Reversed and interleaved, as the previous fragment's order may leave them.
  std::reverse(list.begin(), list.end());
  std::stable_partition(list.begin(), list.end(), [](const Ptr& w) { return w->echoes.empty(); });
  pool.giveBack(list);
  (void)pool.take();  // a taken object is no longer waiting
  pool.orderByAddress();
  EXPECT_EQ(pool.spare(), std::size_t(GetParam() - 1));
  std::vector<const void*> taken;
  std::vector<Ptr> kept;
  while (pool.spare() > 0) {
    kept.push_back(pool.take());
    EXPECT_TRUE(kept.back()->echoes.empty());
    taken.push_back(kept.back().get());
  }
  EXPECT_TRUE(std::is_sorted(taken.begin(), taken.end(), std::less<const void*>()));
  std::sort(given.begin(), given.end(), std::less<const void*>());
  for (const void* p : taken)
    EXPECT_TRUE(std::binary_search(given.begin(), given.end(), p, std::less<const void*>()));
  EXPECT_EQ(std::adjacent_find(taken.begin(), taken.end()), taken.end());
  // Given back in address order, they come out so again.
  pool.giveBack(kept);
  pool.orderByAddress();
  for (const void* p : taken) EXPECT_EQ(pool.take().get(), p);
}

INSTANTIATE_TEST_SUITE_P(SmallAndLargeFragments, WavePoolOrder, ::testing::Values(300, 5000));
