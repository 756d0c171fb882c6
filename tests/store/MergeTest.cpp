// Wave extraction: the single-source lists, the noise threshold handed to peak detection,
// and the merge of waveform and online waves into one list ordered by wave time.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <utility>

#include "store/WaveExtraction.hpp"
#include "support/InputBundles.hpp"
#include "support/Waves.hpp"

using namespace FullWaveform;
using namespace quillo::test;

namespace {

struct MergeFixture : ::testing::Test {
  Tessal::BundlePtr bundle = makeShotsBundle({{{1, 2, 3}}});
  Input input;
  FatBoy<unsigned short> fb{bundle, input};
};

WavePtr wave(double time, std::uint8_t channel = 1, unsigned short maxSample = 100) {
  return makeWave({time, 1e-6, 100.f, channel, false, maxSample});
}

}  // namespace

TEST_F(MergeFixture, OrdersByTimeWaveformsFirstAndKeepsInsertionOrder) {
  WaveList fromWaveforms = {wave(3.0), wave(1.0), WavePtr(), wave(2.0)};
  WaveList online = {wave(2.0, 5), wave(0.5), wave(2.0, 6)};
  mergeWavePoints(fb, online, fromWaveforms);
  ASSERT_EQ(fb.wavePoints.size(), 6u);
  EXPECT_EQ(fb.wavePoints[0], online[1]);
  EXPECT_EQ(fb.wavePoints[1], fromWaveforms[1]);
  EXPECT_EQ(fb.wavePoints[2], fromWaveforms[3]);  // same time: waveform wave first
  EXPECT_EQ(fb.wavePoints[3], online[0]);         // then the online ones in their order
  EXPECT_EQ(fb.wavePoints[4], online[2]);
  EXPECT_EQ(fb.wavePoints[5], fromWaveforms[0]);
  EXPECT_EQ(fb.fwfIndex, (std::vector<std::int32_t>{-1, 1, 3, -1, -1, 0}));
}

TEST_F(MergeFixture, DropsSaturatedHighGainWavesOnly) {
  WaveList fromWaveforms = {wave(1.0, 0, 1800), wave(2.0, 0, 1801), wave(3.0, 1, 60000)};
  mergeWavePoints(fb, {}, fromWaveforms);
  ASSERT_EQ(fb.wavePoints.size(), 2u);
  EXPECT_EQ(fb.wavePoints[0], fromWaveforms[0]);
  EXPECT_EQ(fb.wavePoints[1], fromWaveforms[2]);
  EXPECT_EQ(fb.fwfIndex, (std::vector<std::int32_t>{0, 2}));
}

TEST_F(MergeFixture, NaNTimesGoLastInsteadOfBreakingTheOrder) {
  WaveList fromWaveforms = {wave(std::nan("")), wave(1.0)};
  mergeWavePoints(fb, {wave(0.5)}, fromWaveforms);
  ASSERT_EQ(fb.wavePoints.size(), 3u);
  EXPECT_EQ(fb.wavePoints[2], fromWaveforms[0]);
  EXPECT_EQ(fb.fwfIndex[2], 0);
}

// Rows whose first-sample time lies before the shot, far beyond reach or nowhere keep their
// place in the merged list: later stages decide about them, and every other wave keeps its
// index and its neighbours.
TEST(WaveExtraction, RowsOutOfReachKeepTheirPlaceInTheMerge) {
  auto extract = [](std::vector<double> sblTimes) {
    auto bundle = makeShotsBundle({{{1, 2, 3, 4}}});
    WaveformFragment rows{{1, 2, 3, 4}};
    rows.sblTimes = std::move(sblTimes);
    addWaveformFragment(bundle, 0, rows);
    addOnlineFragment(bundle, 0, {{2.5}, {100.0}, {10.f}, {1}});
    Input in;
    in.skipFWF = in.skipOnline = false;
    FatBoy<unsigned short> fb(bundle, in);
    EXPECT_TRUE(fb() && fb.ini(0));
    EXPECT_EQ(iniWavePoints(fb), "");
    return fb.fwfIndex;
  };
  const auto healthy = extract({1e-6, 1e-6, 1e-6, 1e-6});
  EXPECT_EQ(extract({-1e-6, 1e9, std::nan(""), 1e-6}), healthy);
  EXPECT_EQ(healthy.size(), 5u);
}

namespace {

// A store over one fragment whose waveform rows (sixteen samples, recorded at `rowTimes`)
// hold a small pulse 2, 3, 2 counts high on a background of 0, and whose online records (if
// any) are at `echoTimes`.
struct Extraction {
  Extraction(std::vector<double> rowTimes, std::vector<double> echoTimes) {
    if (!rowTimes.empty()) addWaveformFragment(bundle, 0, {rowTimes, 16});
    if (!echoTimes.empty()) addOnlineFragment(bundle, 0, {echoTimes, {}, {}, {}});
    input.fwfModus = FWF_FAST_PEAKS;
    fb = std::make_unique<FatBoy<unsigned short>>(bundle, input);
    EXPECT_TRUE(fb->ini(0));
    if (!fb->FWF) return;
    auto& samples = *fb->FWF->arrays.Waveforms;
    const std::pair<std::size_t, std::uint16_t> pulse[] = {{7, 2}, {8, 3}, {9, 2}};
    for (std::size_t r = 0; r < rowTimes.size(); ++r)
      for (auto [k, v] : pulse) samples.set(r * 16 + k, v);
  }
  Tessal::BundlePtr bundle = makeShotsBundle({{{1.0, 1.000001, 1.000002, 1.000003}}});
  Input input;
  std::unique_ptr<FatBoy<unsigned short>> fb;
};

}  // namespace

TEST(WaveExtraction, ASingleSourceKeepsItsOrderAndNamesItsRows) {
  // Waveform rows keep their row order even when their times are not ascending.
  Extraction waveforms({1.000002, 1.0, 1.000001}, {});
  ASSERT_EQ(iniWavePoints(*waveforms.fb), "");
  ASSERT_EQ(waveforms.fb->wavePoints.size(), 3u);
  EXPECT_EQ(waveforms.fb->wavePoints[0]->waveTime, 1.000002);
  EXPECT_EQ(waveforms.fb->wavePoints[1]->waveTime, 1.0);
  EXPECT_EQ(waveforms.fb->fwfIndex, (std::vector<std::int32_t>{0, 1, 2}));

  Extraction online({}, {1.000001, 1.0});
  ASSERT_EQ(iniWavePoints(*online.fb), "");
  ASSERT_EQ(online.fb->wavePoints.size(), 2u);
  EXPECT_EQ(online.fb->wavePoints[0]->waveTime, 1.000001);
  EXPECT_EQ(online.fb->fwfIndex, (std::vector<std::int32_t>{-1, -1}));
}

TEST(WaveExtraction, TheNoiseLevelIsCutToAWholeThresholdTowardZero) {
  // The pulse stands 2.5 counts above the background after smoothing: a threshold of 2
  // finds it; 3, like the estimated threshold (never below 3 counts), does not.
  auto echoes = [](double noiseLevel) {
    Extraction e({1.0, 1.000001, 1.000002}, {});
    e.input.noiseLevel = noiseLevel;
    EXPECT_EQ(iniWavePoints(*e.fb), "");
    return e.fb->wavePoints.at(0)->size();
  };
  EXPECT_EQ(echoes(2.9), 1u);
  EXPECT_EQ(echoes(3.0), 0u);
  EXPECT_EQ(echoes(-2.9), 0u);
  EXPECT_EQ(echoes(0.0), 0u);
}

// The detector is built for every fragment with waveform data, rows or none, so that a
// setting it refuses ends the run at the first such fragment.
TEST(WaveExtraction, AnEmptyFragmentStillMeetsTheDetectorsRefusal) {
  auto bundle = makeShotsBundle({{{1, 2, 3}}});
  addWaveformFragment(bundle, 0, {{}, 16});
  Input in;
  in.skipFWF = false;
  in.fwfModus = static_cast<FWFModus>(7);
  FatBoy<unsigned short> fb(bundle, in);
  ASSERT_TRUE(fb() && fb.ini(0));
  EXPECT_NE(iniWavePoints(fb).find("PeakDetection: unknown mode 7"), std::string::npos);
}
