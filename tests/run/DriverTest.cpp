// The driver: fragment range, progress reports, broken fragments and stage errors.
#include <gtest/gtest.h>

#include "run/Quillo.hpp"
#include "support/InputBundles.hpp"
#include "vorlap/Console.hpp"
#include "vorlap/ProgressSink.hpp"

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

std::vector<std::string> run(Tessal::BundlePtr bundle, Input& input,
                             std::string* result = nullptr) {
  auto recorder = Vorlap::makeStrong<Recorder>();
  input.progress = Vorlap::WeakPtr<Vorlap::ProgressSink>(recorder);
  std::string r = Quillo<unsigned short>(bundle, {}, {}, input);
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
