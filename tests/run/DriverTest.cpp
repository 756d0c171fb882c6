// The driver: fragment range, progress reports, broken fragments, the choice between fixed
// and resolved zones, and stage errors.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "run/Quillo.hpp"
#include "support/Arrays.hpp"
#include "support/InputBundles.hpp"
#include "vorlap/Console.hpp"
#include "vorlap/ProgressSink.hpp"
#include "waveform/ScannerDevice.hpp"

using namespace FullWaveform;
using namespace quillo::test;

namespace {

struct Recorder : Vorlap::ProgressSink {
  void report(const std::string& text, unsigned current, unsigned end) override {
    calls.push_back(text + std::to_string(current) + "/" + std::to_string(end));
  }
  std::vector<std::string> calls;
};

Tessal::BundlePtr fragments(int n) {
  std::vector<ShotFragment> frags;
  for (int f = 0; f < n; ++f) frags.push_back({{f * 1.0, f + 0.25, f + 0.5}});
  return makeShotsBundle(frags);
}

std::vector<std::string> run(Tessal::BundlePtr bundle, Input& input, std::string* result = nullptr,
                             const Vorlap::StrongPtr<Tessal::Grid>& first = {},
                             const Vorlap::StrongPtr<Tessal::Grid>& second = {}) {
  auto recorder = Vorlap::makeStrong<Recorder>();
  input.progress = Vorlap::WeakPtr<Vorlap::ProgressSink>(recorder);
  std::string r = Quillo<unsigned short>(bundle, first, second, input);
  if (result) *result = r;
  return recorder->calls;
}

}  // namespace

TEST(Driver, FragmentRangeAndProgress) {
  Input input;
  input.fragBegin = -3;
  input.fragEnd = 2;
  EXPECT_EQ(run(fragments(5), input), (std::vector<std::string>{"Frag# 0/2", "Frag# 1/2"}));

  input.fragBegin = 3;
  input.fragEnd = ~0u;
  EXPECT_EQ(run(fragments(5), input), (std::vector<std::string>{"Frag# 3/5", "Frag# 4/5"}));

  input.fragBegin = 5;
  std::string result = "unset";
  EXPECT_TRUE(run(fragments(5), input, &result).empty());
  EXPECT_EQ(result, "");
}

TEST(Driver, UnusableStoreEndsTheRun) {
  Input input;
  Tessal::BundlePtr none;
  Vorlap::ConsoleCapture capture;
  EXPECT_EQ(Quillo<unsigned short>(none, {}, {}, input), "Quillo: Could not create Fatboy");
}

TEST(Driver, BrokenFragmentIsSkippedWithAWarning) {
  auto bundle = fragments(3);
  addOnlineFragment(bundle, 0, {{0.0, 0.25, 0.5}, {}, {}, {}});
  addOnlineFragment(bundle, 2, {{2.0, 2.25, 2.5}, {}, {}, {}});
  Input input;
  Vorlap::ConsoleCapture capture;
  std::string result = "unset";
  auto calls = run(bundle, input, &result);
  EXPECT_EQ(result, "");
  EXPECT_EQ(calls.size(), 3u);
  EXPECT_EQ(capture.messages(),
            (std::vector<std::string>{"Warning! Broken Fragment for FragNr 1. Skipping..."}));
}

TEST(Driver, DetectorErrorEndsTheRun) {
  auto bundle = fragments(3);
  for (std::uint32_t f = 0; f < 3; ++f) addWaveformFragment(bundle, f, {{f * 1.0, f + 0.25}});
  Input input;
  input.fwfModus = static_cast<FWFModus>(42);
  std::string result;
  auto calls = run(bundle, input, &result);
  EXPECT_FALSE(result.empty());
  EXPECT_EQ(calls.size(), 1u);  // no later fragment was started
}

namespace {

// Shots 1 us apart with a +-3 % jitter (so that only the true zone is smooth) and online
// echoes of flat ground 2.4 us after their emission: every echo belongs two shots back.
struct GroundEchoes {
  ShotFragment shots;
  OnlineFragment echoes;
};

GroundEchoes groundEchoes(double start, int nShots) {
  const double lightSpeed = ScannerDevice().lightSpeed;
  GroundEchoes g;
  for (int k = 0; k < nShots; ++k)
    g.shots.times.push_back(start + k * 1e-6 + 0.03e-6 * std::sin(k * 2.7));
  const auto& t = g.shots.times;
  for (std::size_t e = 0; e + 3 < t.size(); ++e) {
    const double arrival = t[e] + 2.4e-6;
    std::size_t r = e;
    while (r + 1 < t.size() && t[r + 1] <= arrival) ++r;
    g.echoes.times.push_back(t[r]);
    g.echoes.ranges.push_back((arrival - t[r]) * lightSpeed * 0.5);
  }
  return g;
}

Tessal::BundlePtr bundleOf(const std::vector<GroundEchoes>& fragments) {
  std::vector<ShotFragment> shots;
  for (const auto& f : fragments) shots.push_back(f.shots);
  auto bundle = makeShotsBundle(shots);
  for (std::uint32_t f = 0; f < fragments.size(); ++f)
    addOnlineFragment(bundle, f, fragments[f].echoes);
  // Blocks of eight waves: in a single block the scan line that ends at the fragment's last
  // wave would leave every wave unresolved.
  auto grid = (*(*bundle.create())[0.0])("Shots");
  grid->attributes().setAttribute(ScannerAttribute::BlockSize, Vorlap::makeChunk<int>({8}));
  return bundle;
}

using Grid = Vorlap::StrongPtr<Tessal::Grid>;

// The "MTA" values of fragment 0 of both outputs.
std::vector<int> zonesOfRun(Input& input) {
  auto bundle = bundleOf({groundEchoes(10.0, 40)});
  Grid first = Vorlap::makeStrong<Tessal::Grid>("FWF"),
       second = Vorlap::makeStrong<Tessal::Grid>("FWF");
  input.inputFileName = "survey_210315_093000.kq";
  EXPECT_EQ(Quillo<unsigned short>(bundle, first, second, input), "");
  std::vector<int> zones;
  for (const Grid& g : {first, second})
    if (auto mta = storedFragment<Tessal::MemArray<1, std::uint8_t>>(g, "MTA"))
      for (std::size_t k = 0; k < mta->size(); ++k) zones.push_back(mta->get(k));
  return zones;
}

}  // namespace

TEST(Driver, AFixedZoneReplacesTheResolution) {
  Input resolving;
  const std::vector<int> resolved = zonesOfRun(resolving);
  ASSERT_GT(resolved.size(), 20u);
  EXPECT_GT(std::count(resolved.begin(), resolved.end(), 2), std::ptrdiff_t(resolved.size() / 2));

  Input fixed;
  fixed.MTA = 1;
  const std::vector<int> zones = zonesOfRun(fixed);
  EXPECT_EQ(zones.size(), resolved.size());
  EXPECT_EQ(std::count(zones.begin(), zones.end(), 1), std::ptrdiff_t(zones.size()));
}

namespace {

// Five fragments whose first shot holds three online echoes, in fragment 3 `crowd` of them,
// all taken as zone 0. A fragment's first wave opens a scan line for the first output; only
// its last wave goes to the second.
std::string runWithCrowdedShot(std::size_t crowd, Grid first, Grid second,
                               std::vector<std::string>& progress) {
  std::vector<GroundEchoes> fragments;
  for (int f = 0; f < 5; ++f) {
    auto g = groundEchoes(10.0 + f * 1e-3, 12);
    const std::size_t n = f == 3 ? crowd : 3;
    for (std::size_t k = 0; k < n; ++k) {
      g.echoes.times.insert(g.echoes.times.begin(), g.shots.times.front());
      g.echoes.ranges.insert(g.echoes.ranges.begin(), 450.0 + 0.5 * double(k));
    }
    fragments.push_back(g);
  }
  Input input;
  input.MTA = 0;
  input.inputFileName = "survey_210315_093000.kq";
  std::string result = "unset";
  progress = run(bundleOf(fragments), input, &result, first, second);
  return result;
}

bool holdsFragment(const Grid& grid, int fragment) {
  return bool(storedFragment<Tessal::MemArray<1, double>>(grid, "GPSTime",
                                                          "Fragment_" + std::to_string(fragment)));
}

}  // namespace

TEST(Driver, APointCloudErrorEndsTheRunWithoutAttributes) {
  std::vector<std::string> progress;
  Grid first = Vorlap::makeStrong<Tessal::Grid>("FWF"),
       second = Vorlap::makeStrong<Tessal::Grid>("FWF");
  ASSERT_EQ(runWithCrowdedShot(255, first, second, progress), "");
  EXPECT_EQ(progress.size(), 5u);
  EXPECT_TRUE(holdsFragment(first, 4) && holdsFragment(second, 4));
  EXPECT_TRUE(first->attributes().getAttribute("InputParameter"));
  EXPECT_TRUE(second->attributes().getAttribute("InputParameter"));

  first = Vorlap::makeStrong<Tessal::Grid>("FWF");
  second = Vorlap::makeStrong<Tessal::Grid>("FWF");
  EXPECT_EQ(runWithCrowdedShot(256, first, second, progress),
            "Error: ReturnNumber exceed uint8_t max (255)");
  EXPECT_EQ(progress.size(), 4u);  // fragment 4 was not started
  for (const Grid& g : {first, second}) {
    EXPECT_TRUE(holdsFragment(g, 2));   // what earlier fragments stored stays
    EXPECT_FALSE(holdsFragment(g, 3));  // the first failed, the second was not written
    EXPECT_FALSE(holdsFragment(g, 4));
    EXPECT_TRUE(g->attributes().getAttribute("InputParameter").isEmpty());
    EXPECT_TRUE(g->attributes().getAttribute("Year").isEmpty());
  }
}
