// What the simulated data must hold for zone resolution to be judged by it: shot timing
// within its jitter bounds, flight lines, truth zones that follow from arrival times, rows
// split across a shot's echoes, online-only echoes, fragments that do not depend on the run
// they were written in, and the "RDB_Segment" attribute.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <set>
#include <tuple>

#include "run/Input.hpp"
#include "sim/FragmentSimulation.hpp"
#include "sim/SurveyBundle.hpp"
#include "support/SimPresets.hpp"
#include "support/TempDir.hpp"

using namespace quillo::sim;

namespace {

template <class T>
std::vector<T> storedFragment(Tessal::BundlePtr& bundle, const char* grid, const char* field,
                              std::size_t fragment) {
  auto g = (*(*bundle.create())[0.0])(grid);
  auto f = (*g)(field, "");
  auto data = f->getCreator(f->getFragmentIDCollection()->at(fragment))->create();
  std::vector<T> out(data->nElements());
  data->copyOut(out.data());
  return out;
}

}  // namespace

TEST(Simulation, ShotTimesStayInsideTheirJitterAndLinesAreApart) {
  SurveyConfig c = quillo::test::presetSurvey();
  c.lines = 3;
  const Survey s(c);
  const double nominal = 1.0 / c.pulseRate, spl = double(s.shotsPerLine());
  for (std::uint64_t k = 0; k < c.shots; ++k) {
    const double line = std::floor(double(k) / spl), inLine = double(k) - line * spl;
    const double expected = s.line(std::uint32_t(line)).startTime + inLine * nominal;
    // GPS seconds of week carry about 3e-11 s of rounding.
    ASSERT_LE(std::fabs(s.shotTime(k) - expected), c.ppmSpread * nominal + 1e-10) << k;
  }
  const auto last0 = s.shotsPerLine() - 1;
  EXPECT_NEAR(s.shotTime(last0 + 1) - s.shotTime(last0), c.turnSeconds, 1e-5);
  // An echo of the line's last shot arriving during the turn is recorded after that shot.
  EXPECT_EQ(s.recordingShot(last0 - 3, s.shotTime(last0) + 1.0), last0);
  // Lines are parallel, spaced as asked, flown forth and back, at altitude above the ground.
  const Shot a = s.shot(0), b = s.shot(s.shotsPerLine());
  EXPECT_NEAR(std::fabs(b.origin.x - a.origin.x), c.lineSpacing, 1.0);
  EXPECT_LT(s.line(0).along.y * s.line(1).along.y, 0.0);
  EXPECT_DOUBLE_EQ(a.origin.z, s.groundLevel() + c.altitude);
  c.heading = 90.0;
  const FlightLine east = Survey(c).line(0);
  EXPECT_NEAR(east.along.x, 1.0, 1e-12);
  EXPECT_NEAR(east.across.y, -1.0, 1e-12);
}

TEST(Simulation, TruthZonesFollowFromArrivalTimes) {
  const SurveyConfig c = quillo::test::presetSurvey();
  const Survey s(c);
  const FragmentData d = simulateFragment(s, 1);
  ASSERT_GT(d.rowTime.size(), 1000u);
  for (std::size_t i = 0; i < d.rowTime.size(); ++i) {
    const std::uint64_t emitter = d.rowEmitter[i], recorder = emitter + d.rowZone[i];
    const double arrival = s.shotTime(emitter) + 2.0 * d.rowRange[i] / c.lightSpeed;
    ASSERT_EQ(d.rowTime[i], s.shotTime(recorder));
    ASSERT_LE(s.shotTime(recorder), arrival) << i;
    ASSERT_GT(s.shotTime(recorder + 1), arrival) << i;
    ASSERT_GE(d.sblTime[i], 0.0);
    ASSERT_LE(d.rowTime[i] + d.sblTime[i], arrival);
    ASSERT_LE(d.length[i], c.samplesPerRow);
  }
  for (std::size_t i = 0; i < d.oppTime.size(); ++i) {
    const std::uint64_t recorder = d.oppEmitter[i] + d.oppZone[i];
    const double arrival = s.shotTime(d.oppEmitter[i]) + 2.0 * d.oppTrueRange[i] / c.lightSpeed;
    ASSERT_EQ(d.oppTime[i], s.shotTime(recorder));
    ASSERT_NEAR(d.oppRange[i], 0.5 * c.lightSpeed * (arrival - d.oppTime[i]), 1e-6);
  }
}

TEST(Simulation, ZonesTwoToFiveChangeWithinScanLinesOverCliffAndBuildings) {
  const SurveyConfig c = quillo::test::presetSurvey();
  const Survey s(c);
  const FragmentData d = simulateFragment(s, 0);
  std::map<int, int> zones;
  // Ground x of each echo by emitter, in emission order (emitters of one line are adjacent).
  std::map<std::uint64_t, std::pair<double, int>> hit;
  for (std::size_t i = 0; i < d.rowTime.size(); ++i) {
    if (isOffSurface(Target(d.rowTarget[i])) || d.rowChannel[i] != 0) continue;
    ++zones[d.rowZone[i]];
    const Shot shot = s.shot(d.rowEmitter[i]);
    hit[d.rowEmitter[i]] = {shot.origin.x + shot.direction.x * d.rowRange[i], d.rowZone[i]};
  }
  for (int z = 2; z <= 5; ++z) EXPECT_GT(zones[z], 0) << "zone " << z;
  EXPECT_EQ(zones.begin()->first, 2);
  EXPECT_EQ(zones.rbegin()->first, 5);
  int atCliff = 0, atBuildings = 0;
  for (auto it = hit.begin(); std::next(it) != hit.end(); ++it) {
    const auto& [x0, z0] = it->second;
    const auto& [x1, z1] = std::next(it)->second;
    if (z0 == z1 || std::next(it)->first - it->first > 3 || std::fabs(x1 - x0) > 2.0) continue;
    atCliff += std::min(x0, x1) > 110.0 && std::max(x0, x1) < 130.0;  // the wall at 120 m
    atBuildings += x0 < -240.0 && x0 > -420.0;
  }
  EXPECT_GT(atCliff, 0);
  EXPECT_GT(atBuildings, 0);
}

TEST(Simulation, ShotsWithSeveralRowsAndOnlineOnlyEchoes) {
  const SurveyConfig c = quillo::test::presetSurvey();
  const FragmentData d = simulateFragment(Survey(c), 1);
  std::map<std::tuple<double, int, std::uint32_t>, std::vector<double>> rowsOfShot;
  for (std::size_t i = 0; i < d.rowTime.size(); ++i)
    rowsOfShot[{d.rowTime[i], d.rowChannel[i], d.rowEmitter[i]}].push_back(d.sblTime[i]);
  int multiRow = 0;
  for (const auto& [key, sbl] : rowsOfShot) {
    if (sbl.size() < 2) continue;
    ++multiRow;
    for (std::size_t r = 1; r < sbl.size(); ++r) ASSERT_GT(sbl[r], sbl[r - 1]);
  }
  EXPECT_GT(multiRow, 100);
  std::set<std::pair<std::uint32_t, int>> withRow;
  for (std::size_t i = 0; i < d.rowTime.size(); ++i)
    withRow.insert({d.rowEmitter[i], d.rowZone[i]});
  std::set<int> onlineOnlyChannels;
  for (std::size_t i = 0; i < d.oppTime.size(); ++i)
    if (!withRow.count({d.oppEmitter[i], d.oppZone[i]})) onlineOnlyChannels.insert(d.oppChannel[i]);
  EXPECT_EQ(onlineOnlyChannels, (std::set<int>{0, 1}));
  for (std::size_t i = 1; i < d.rowTime.size(); ++i)
    ASSERT_LE(std::tie(d.rowTime[i - 1], d.rowChannel[i - 1]),
              std::tie(d.rowTime[i], d.rowChannel[i]));
}

TEST(Simulation, OneFragmentAloneEqualsTheSameFragmentOfAWholeRun) {
  quillo::test::TempDir dir;
  SurveyConfig c = quillo::test::presetSurvey();
  c.lines = 2;
  const std::string file = dir.file("t_210315_093000.kq");
  ASSERT_EQ(writeSurvey(c, file), "");
  auto bundle = Tessal::BundlePtr::make();
  bool ok = false;
  Tessal::Bundle::load(ok, Tessal::LoaderParameters({file}), bundle);
  ASSERT_TRUE(ok);
  const FragmentData alone = simulateFragment(Survey(c), 2);
  EXPECT_EQ(storedFragment<std::uint16_t>(bundle, "Waveforms", "Waveforms", 2), alone.samples);
  EXPECT_EQ(storedFragment<double>(bundle, "Waveforms", "SBL_Time", 2), alone.sblTime);
  EXPECT_EQ(storedFragment<double>(bundle, "Shots", "GPSTime", 2), alone.shotTime);
  EXPECT_EQ(storedFragment<double>(bundle, "OPP", "Range", 2), alone.oppRange);
  EXPECT_EQ(storedFragment<std::uint8_t>(bundle, "Truth", TruthField::RowZone, 2), alone.rowZone);
  EXPECT_EQ(storedFragment<std::uint32_t>(bundle, "Truth", TruthField::OnlineEmitter, 2),
            alone.oppEmitter);
}

TEST(Simulation, SegmentAttributeIsWhatTheModuleReads) {
  SurveyConfig c = quillo::test::presetSurvey();
  FullWaveform::Input plain;
  auto without = surveyBundle(c);
  EXPECT_NE(plain.setIsDataFrom_RDBX_File(without), "");
  EXPECT_EQ(plain.RDB_SEGMENT, -1);
  c.rdbSegment = 1;
  auto with = surveyBundle(c);
  FullWaveform::Input segmented;
  EXPECT_EQ(segmented.setIsDataFrom_RDBX_File(with), "");
  EXPECT_EQ(segmented.RDB_SEGMENT, 1);
}
