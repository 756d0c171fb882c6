// On a simulated survey, the candidate travel times of every waveform wave hold its true
// travel time at the column of its true zone.
#include <gtest/gtest.h>

#include <cmath>

#include "sim/FragmentSimulation.hpp"
#include "sim/SurveyBundle.hpp"
#include "store/WaveExtraction.hpp"

using namespace FullWaveform;

TEST(SimulatedTruth, CandidateAtTheTrueZoneIsTheTrueTravelTime) {
  quillo::sim::SurveyConfig config;
  ASSERT_TRUE(quillo::sim::presetConfig("tiny", config));
  auto bundle = quillo::sim::surveyBundle(config);
  Input input;
  input.fwfModus = FWF_FAST_PEAKS;  // the detector's accuracy has tests of its own
  FatBoy<unsigned short> fb(bundle, input);
  ASSERT_TRUE(fb());
  ASSERT_TRUE(fb.ini(0));
  ASSERT_EQ(iniWavePoints(fb), "");
  ASSERT_TRUE(fb.iniMTA());
  ASSERT_TRUE(fb.ini(1));  // the second fragment: its first waves reach back into the first
  ASSERT_EQ(iniWavePoints(fb), "");
  ASSERT_TRUE(fb.iniMTA());
  const auto truth = quillo::sim::simulateFragment(quillo::sim::Survey(config), 1);
  std::size_t checked = 0, matched = 0;
  for (std::uint32_t i = 0; i < fb.nWaves; ++i) {
    const std::int32_t row = fb.fwfIndex[i];
    if (row < 0 || !fb.wavePoints[i] || fb.wavePoints[i]->size() == 0) continue;
    double c[8];
    std::fill(std::begin(c), std::end(c), NO_LENGTH);
    fb.getLengthAccordingMTA(i, 0, 8, fb.maxTravelTime, c, 0.0);
    const int zone = truth.rowZone[std::size_t(row)];
    const double expected = truth.rowRange[std::size_t(row)] / config.lightSpeed;
    ++checked;
    matched += std::fabs(c[zone] - expected) < 0.5e-9;
  }
  EXPECT_GT(checked, 10000u);
  EXPECT_GT(double(matched) / double(checked), 0.99) << matched << " of " << checked;
}
