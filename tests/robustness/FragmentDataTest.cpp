// Damaged fields of the "Shots", "Waveforms" and "OPP" fragments: each case damages
// fragment 1 of a healthy three-fragment survey and states what the run makes of it. Every
// case must also keep fragments 0 and 2 as they were and put no point off the ground or in a
// wrong zone that the healthy survey did not already have.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "robustness/Survey.hpp"
#include "support/Arrays.hpp"

using namespace quillo::test;

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

enum class Fragment1 { Skipped, Written, Same };

struct Case {
  const char* name;
  std::function<void(FragmentData&)> damage;
  Fragment1 fragment1;
  std::vector<std::string> console;  // texts the console must show
  // Damage the module lets through on purpose (the waves go on as they are): how many more
  // points than the healthy survey's may end off the ground or in a wrong zone.
  std::size_t misplacedAllowed = 0;
};

void PrintTo(const Case& c, std::ostream* os) {
  *os << c.name;
}

template <class T>
void setEvery(std::vector<T>& v, std::size_t from, std::size_t count, T value) {
  for (std::size_t k = from; k < from + count && k < v.size(); ++k) v[k] = value;
}

Samples filledRows(std::size_t samples, std::size_t rows, std::uint16_t value) {
  auto a = Vorlap::makeStrong<Tessal::MemArray<2, std::uint16_t>>(
      Tessal::MemArray<2, std::uint16_t>::Extents{samples, rows});
  for (std::size_t k = 0; k < a->size(); ++k) a->set(k, value);
  return a;
}

const std::string kBroken = "Warning! Broken Fragment for FragNr 1. Skipping...";
const std::string kPlace = "FatBoy::ini survey_210315_093000.kq, Fragment_1: ";

const Outcome& healthy() {
  static const Outcome o = runModule(makeBundle(healthySurvey()));
  return o;
}

class DamagedFragment : public ::testing::TestWithParam<Case> {};

}  // namespace

TEST_P(DamagedFragment, IsReportedAndSpoilsNothingElse) {
  const Case& c = GetParam();
  Survey survey = healthySurvey();
  c.damage(survey.fragments[1]);
  const Outcome o = runModule(makeBundle(survey));
  EXPECT_EQ(o.result, "");
  for (const auto& text : c.console) EXPECT_NE(o.console.find(text), std::string::npos) << text;
  if (c.console.empty()) {
    EXPECT_EQ(o.console, "");
  }
  EXPECT_EQ(o.count("Fragment_0"), healthy().count("Fragment_0"));
  // After a skipped fragment the first waves of the next one lack their emitting shots.
  EXPECT_NEAR(double(o.count("Fragment_2")), double(healthy().count("Fragment_2")),
              2.0 * kTrueZone);
  // The zone stage leaves waves no block decides at their initial zone 0: the last wave of a
  // fragment, and after a skipped fragment the next one's first waves (up to a zone's worth).
  const std::size_t allowed =
      (c.fragment1 == Fragment1::Skipped ? kTrueZone : 0) + c.misplacedAllowed;
  EXPECT_LE(o.misplaced(), healthy().misplaced() + allowed)
      << "a point off the ground or in a wrong zone";
  switch (c.fragment1) {
    case Fragment1::Skipped:
      EXPECT_EQ(o.points.count("Fragment_1"), 0u);
      break;
    case Fragment1::Written:
      EXPECT_GT(o.count("Fragment_1"), 0u);
      break;
    case Fragment1::Same:
      EXPECT_EQ(o.count("Fragment_1"), healthy().count("Fragment_1"));
      break;
  }
}

TEST(HealthySurvey, EveryPointLiesOnTheGroundInItsZone) {
  EXPECT_EQ(healthy().result, "");
  EXPECT_EQ(healthy().console, "");
  EXPECT_GT(healthy().count("Fragment_1"), 200u);
  EXPECT_LE(healthy().misplaced(), 3u);  // at most the last wave of each fragment (zone 0)
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Shots, DamagedFragment, ::testing::Values(
    Case{"ShotTimesShorterThanPositions", [](FragmentData& d) { d.shotTimes.pop_back(); },
         Fragment1::Skipped,
         {kPlace + "grid \"Shots\": field \"Positions\" holds 240 values, \"GPSTime\" 239", kBroken}},
    Case{"DirectionsMissing", [](FragmentData& d) { d.omitted.insert("Shots/Waveforms.DirectionDelta"); },
         Fragment1::Skipped,
         {kPlace + "grid \"Shots\": field \"Waveforms.DirectionDelta\" has no Fragment_1", kBroken}},
    Case{"ShotTimesOfWrongType", [](FragmentData& d) {
           d.replaced["Shots/GPSTime"] = makeArray(std::vector<float>(240, 1.0f)); },
         Fragment1::Skipped,
         {kPlace + "grid \"Shots\": field \"GPSTime\" holds float32, not float64", kBroken}},
    Case{"EmptyFragment", [](FragmentData& d) {
           d = FragmentData{};
           d.samples = filledRows(128, 0, 0); },
         Fragment1::Skipped, {}},
    Case{"ShotTimesNaN", [](FragmentData& d) { setEvery(d.shotTimes, 100, 10, kNaN); },
         Fragment1::Written,
         {"Fragment_1: field \"GPSTime\" of grid \"Shots\": 10 time(s) not a number (shots skipped)",
          "wave(s) whose \"GPSTime\" matches no shot time get no zone"},
         kTrueZone},
    Case{"ShotTimesInfinite", [](FragmentData& d) { setEvery(d.shotTimes, 100, 4, kInf); },
         Fragment1::Written, {"0 time(s) not a number (shots skipped), 4 infinite"}, kTrueZone},
    Case{"ShotTimesGoBackwards", [](FragmentData& d) { std::swap(d.shotTimes[50], d.shotTimes[51]); },
         Fragment1::Written, {"0 repeated (the later shot kept), 1 going backwards;"}},
    Case{"ShotTimeRepeats", [](FragmentData& d) { d.shotTimes[51] = d.shotTimes[50]; },
         Fragment1::Written, {"1 repeated (the later shot kept), 0 going backwards;"}, kTrueZone},
    Case{"DirectionsZero", [](FragmentData& d) { setEvery(d.directions, 100, 5, vector{}); },
         Fragment1::Written, {}, 10},
    Case{"DirectionsNaN", [](FragmentData& d) { setEvery(d.directions, 100, 5, vector{kNaN, 0, -1}); },
         Fragment1::Written, {}, 10},
    Case{"PositionsInfinite", [](FragmentData& d) { setEvery(d.positions, 100, 5, point{0, kInf, 0}); },
         Fragment1::Written, {}, 10}),
    [](const auto& info) { return std::string(info.param.name); });

INSTANTIATE_TEST_SUITE_P(Waveforms, DamagedFragment, ::testing::Values(
    Case{"RowTimesShorterThanRows", [](FragmentData& d) { d.rowTimes.pop_back(); },
         Fragment1::Skipped,
         {kPlace + "grid \"Waveforms\": field \"GPSTime\" holds 239 values, \"Waveforms\" 240 rows",
          kBroken}},
    Case{"FirstSampleTimesMissing", [](FragmentData& d) { d.omitted.insert("Waveforms/SBL_Time"); },
         Fragment1::Skipped,
         {kPlace + "grid \"Waveforms\": field \"SBL_Time\" has no Fragment_1", kBroken}},
    Case{"SamplesNotInRows", [](FragmentData& d) {
           d.replaced["Waveforms/Waveforms"] = makeArray(std::vector<std::uint16_t>(240, 1)); },
         Fragment1::Skipped,
         {kPlace + "grid \"Waveforms\": field \"Waveforms\" holds uint16, not uint16 rows", kBroken}},
    Case{"RowsOfNoSamples", [](FragmentData& d) { d.samples = filledRows(0, 240, 0); },
         Fragment1::Skipped,
         {kPlace + "grid \"Waveforms\": field \"Waveforms\" holds rows of 0 samples", kBroken}},
    Case{"ChannelOfWrongType", [](FragmentData& d) {
           d.replaced["Waveforms/Channel"] = makeArray(std::vector<std::uint16_t>(240, 1)); },
         Fragment1::Skipped,
         {kPlace + "grid \"Waveforms\": field \"Channel\" holds uint16, not uint8", kBroken}},
    Case{"LengthBeyondTheRow", [](FragmentData& d) { setEvery<std::uint16_t>(d.lengths, 0, 240, 60000); },
         Fragment1::Same, {}},
    Case{"LengthZero", [](FragmentData& d) { setEvery<std::uint16_t>(d.lengths, 0, 240, 0); },
         Fragment1::Written, {}},
    Case{"FirstSampleNegative", [](FragmentData& d) { setEvery(d.sblTimes, 100, 10, -1.0e-6); },
         Fragment1::Written, {}, 10},
    Case{"FirstSampleHuge", [](FragmentData& d) { setEvery(d.sblTimes, 100, 10, 1.0e9); },
         Fragment1::Written, {}},
    Case{"FirstSampleNaN", [](FragmentData& d) { setEvery(d.sblTimes, 100, 3, kNaN); },
         Fragment1::Written, {}, 3},
    Case{"RowTimesNaN", [](FragmentData& d) { setEvery(d.rowTimes, 100, 3, kNaN); },
         Fragment1::Written, {"3 wave(s) whose \"GPSTime\" matches no shot time get no zone"}},
    Case{"RowTimesMatchNoShot", [](FragmentData& d) {
           for (std::size_t k = 100; k < 110; ++k) d.rowTimes[k] += 1.0e-9; },
         Fragment1::Written, {"10 wave(s) whose \"GPSTime\" matches no shot time get no zone"}},
    Case{"AllRowsSaturated", [](FragmentData& d) { d.samples = filledRows(128, 240, 65535); },
         Fragment1::Written, {}},
    Case{"AllRowsZero", [](FragmentData& d) { d.samples = filledRows(128, 240, 0); },
         Fragment1::Written, {}},
    Case{"UnknownChannel", [](FragmentData& d) { setEvery<std::uint8_t>(d.rowChannels, 0, 240, 7); },
         Fragment1::Same, {}}),
    [](const auto& info) { return std::string(info.param.name); });

INSTANTIATE_TEST_SUITE_P(OPP, DamagedFragment, ::testing::Values(
    Case{"RangesShorterThanTimes", [](FragmentData& d) { d.ranges.pop_back(); },
         Fragment1::Skipped,
         {kPlace + "grid \"OPP\": field \"Range\" holds 239 values, \"GPSTime\" 240", kBroken}},
    Case{"AmplitudeOfWrongType", [](FragmentData& d) {
           d.replaced["OPP/Amplitude"] = makeArray(std::vector<double>(240, 1.0)); },
         Fragment1::Skipped,
         {kPlace + "grid \"OPP\": field \"Amplitude\" holds float64, not float32", kBroken}},
    Case{"ChannelMissing", [](FragmentData& d) { d.omitted.insert("OPP/Channel"); },
         Fragment1::Skipped, {kPlace + "grid \"OPP\": field \"Channel\" has no Fragment_1", kBroken}},
    Case{"ReflectanceMissing", [](FragmentData& d) { d.omitted.insert("OPP/Reflectance"); },
         Fragment1::Same, {}},
    Case{"ReflectanceShorter", [](FragmentData& d) { d.reflectances.resize(100); },
         Fragment1::Same,
         {kPlace + "grid \"OPP\": field \"Reflectance\" holds 100 values, \"GPSTime\" 240; zeros "
                   "stand in"}},
    Case{"ReflectanceNaN", [](FragmentData& d) { setEvery(d.reflectances, 0, 240, float(kNaN)); },
         Fragment1::Same, {}},
    Case{"TimesNaN", [](FragmentData& d) { setEvery(d.echoTimes, 100, 10, kNaN); },
         Fragment1::Written, {}},
    Case{"RangesNegativeOrNaN", [](FragmentData& d) {
           setEvery(d.ranges, 100, 5, -10.0);
           setEvery(d.ranges, 105, 5, kNaN); },
         Fragment1::Written, {}},
    Case{"RangesInfinite", [](FragmentData& d) { setEvery(d.ranges, 100, 5, kInf); },
         Fragment1::Written, {}},
    Case{"UnknownChannel", [](FragmentData& d) { setEvery<std::uint8_t>(d.echoChannels, 0, 240, 9); },
         Fragment1::Written, {}}),
    [](const auto& info) { return std::string(info.param.name); });
// clang-format on

// The store counts the fragments "Positions" holds and visits the numbers below that count:
// a lost number is reported as broken and the fragments numbered beyond the count are not
// reached (quillo run warns about them before it starts).
TEST(FragmentNumbers, AGapIsReportedAsBroken) {
  Survey survey = healthySurvey();
  survey.numbers = {0, 1, 3};  // Fragment_2 was lost
  const Outcome o = runModule(makeBundle(survey));
  EXPECT_EQ(o.result, "");
  EXPECT_NE(o.console.find("Warning! Broken Fragment for FragNr 2. Skipping..."),
            std::string::npos);
  EXPECT_EQ(o.count("Fragment_3"), 0u);
  EXPECT_EQ(o.count("Fragment_1"), healthy().count("Fragment_1"));
}

TEST(FragmentNumbers, APositionsFragmentMissingIsNamed) {
  Survey survey = healthySurvey();
  survey.fragments[1].omitted.insert("Shots/Positions");
  const Outcome o = runModule(makeBundle(survey));
  EXPECT_EQ(o.result, "");
  EXPECT_NE(o.console.find(kPlace + "grid \"Shots\": field \"Positions\" has no Fragment_1"),
            std::string::npos)
      << o.console;
  EXPECT_GT(o.count("Fragment_0"), 0u);
}

TEST(FragmentNumbers, NamesFarBeyondTheCountAreNotWalkedTo) {
  Survey survey = healthySurvey();
  survey.numbers = {0, 1, 4000000000u};
  const Outcome o = runModule(makeBundle(survey));  // must not walk four billion numbers
  EXPECT_EQ(o.result, "");
  EXPECT_NE(o.console.find("Warning! Broken Fragment for FragNr 2. Skipping..."), std::string::npos)
      << o.console;
  EXPECT_GT(o.count("Fragment_1"), 0u);
}
