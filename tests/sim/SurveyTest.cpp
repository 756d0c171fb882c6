// The survey simulator: physics of recording, determinism, fragment independence, and a
// whole tiny survey through the module scored against its truth.
#include <gtest/gtest.h>

#include <algorithm>

#include "run/Quillo.hpp"
#include "sim/FragmentSimulation.hpp"
#include "sim/Scoring.hpp"
#include "sim/SurveyBundle.hpp"
#include "support/SimPresets.hpp"
#include "support/TempDir.hpp"

using namespace quillo::sim;

TEST(Survey, ShotTimingAndRecordingShots) {
  Survey s(quillo::test::presetSurvey());
  const double nominal = 1.0e-6;
  for (std::uint64_t k = 1; k < 2000; ++k) {
    const double dt = s.shotTime(k) - s.shotTime(k - 1);
    ASSERT_GT(dt, nominal * (1 - 2 * 0.03));
    ASSERT_LT(dt, nominal * (1 + 2 * 0.03));
  }
  // An echo arriving just after shot k + 3 is recorded after k + 3: zone 3.
  const double arrival = s.shotTime(103) + 1e-9;
  EXPECT_EQ(s.recordingShot(100, arrival), 103u);
  EXPECT_EQ(s.recordingShot(100, s.shotTime(103) - 1e-9), 102u);
  for (std::uint64_t k : {0u, 777u, 5000u})
    for (const auto& r : s.returns(k)) EXPECT_GT(r.range, 0.0);
}

TEST(Survey, DeterministicAndFragmentsIndependent) {
  SurveyConfig config = quillo::test::presetSurvey();
  config.scanGapShare = 0.0;  // fragment 0 ends in view
  Survey a(config), b(config);
  const FragmentData f1 = simulateFragment(a, 1), again = simulateFragment(b, 1);
  EXPECT_EQ(f1.samples, again.samples);
  EXPECT_EQ(f1.rowZone, again.rowZone);
  SurveyConfig other = config;
  other.seed = 2;
  EXPECT_NE(simulateFragment(Survey(other), 1).samples, f1.samples);
  // Echoes recorded in fragment 1 include ones emitted at the end of fragment 0.
  bool fromEarlier = false;
  for (std::uint32_t e : f1.rowEmitter)
    fromEarlier |= e < quillo::test::presetSurvey().fragmentShots;
  EXPECT_TRUE(fromEarlier);
  for (std::size_t i = 0; i < f1.rowEmitter.size(); ++i) {
    const std::uint64_t recorder = f1.rowEmitter[i] + f1.rowZone[i];
    ASSERT_GE(recorder, quillo::test::presetSurvey().fragmentShots);
    ASSERT_EQ(f1.rowTime[i], a.shotTime(recorder));
    if (isOffSurface(Target(f1.rowTarget[i]))) continue;  // birds and dust: nearer
    ASSERT_GE(f1.rowZone[i], 2);
    ASSERT_LE(f1.rowZone[i], 5);
  }
}

TEST(Survey, TinySurveyResolvesAgainstTheTruth) {
  quillo::test::TempDir dir;
  const std::string input = dir.file("tiny_210315_093000.kq");
  ASSERT_EQ(writeSurvey(quillo::test::presetSurvey(), input), "");
  auto bundle = Tessal::BundlePtr::make();
  bool ok = false;
  Tessal::Bundle::load(ok, Tessal::LoaderParameters({input}), bundle);
  ASSERT_TRUE(ok);
  FullWaveform::Input in;
  in.inputFileName = input;
  std::vector<std::string> outputs;
  std::vector<Tessal::BundlePtr> bundles;
  std::vector<Vorlap::StrongPtr<Tessal::Grid>> grids;
  for (int i = 0; i < 2; ++i) {
    bundles.push_back(Tessal::BundlePtr::make());
    grids.push_back((*bundles.back().create())[0.0]->makeGrid("FWF"));
  }
  ASSERT_EQ((FullWaveform::Quillo<unsigned short>(bundle, grids[0], grids[1], in)), "");
  for (int i = 0; i < 2; ++i) {
    outputs.push_back(dir.file("out" + std::to_string(i) + ".kq"));
    ASSERT_EQ(Tessal::Bundle::save(bundles[std::size_t(i)], outputs.back()), "");
  }
  // PointIDs number the points of the whole run: fragment by fragment, first output first.
  std::vector<std::uint32_t> ids;
  for (const auto& grid : grids) {
    auto field = (*grid)("PointID", "");
    ASSERT_TRUE(field);
    ASSERT_EQ(field->getNumberOfFragments(), 3u);
    for (std::size_t f = 0; f < 3; ++f) {
      auto data = Vorlap::dynamicPtrCast<Tessal::MemArray<1, std::uint32_t>>(
          field->getCreator(field->getFragmentIDCollection()->at(f))->heldData());
      for (std::size_t k = 0; k < data->size(); ++k) ids.push_back(data->get(k));
    }
  }
  std::sort(ids.begin(), ids.end());
  for (std::size_t k = 0; k < ids.size(); ++k) ASSERT_EQ(ids[k], k);
  const ZoneScoreReport r = scoreOutputs(outputs, input);
  std::printf("%s", reportAsText(r).c_str());
  EXPECT_GT(r.points, 10000u);
  EXPECT_GT(r.zoneAccuracy(), 0.95);
  EXPECT_EQ(r.correct + r.wrongZone + r.noZone + r.untraceable, r.points);
  EXPECT_LE(r.correct, r.lenientCorrect);
  EXPECT_GT(r.reachedShare(), 0.95);    // nearly every real echo gets a correctly zoned point
  EXPECT_LT(r.rangeErrorMedian, 0.05);  // metres: zone right means range right
  std::uint64_t confused = 0;
  for (const auto& row : r.confusion)
    for (auto v : row) confused += v;
  EXPECT_EQ(confused, r.correct + r.wrongZone);
}
