// Store construction and per-fragment loading.
#include <gtest/gtest.h>

#include "run/Input.hpp"
#include "store/FatBoy.hpp"
#include "support/Arrays.hpp"
#include "support/InputBundles.hpp"
#include "vorlap/Console.hpp"

using namespace FullWaveform;
using namespace quillo::test;

namespace {

Input defaultInput() {
  Input in;
  in.skipFWF = false;
  in.skipOnline = false;
  return in;
}

}  // namespace

TEST(FatBoyConstruction, ReportsWhatIsMissing) {
  Input in = defaultInput();
  Vorlap::ConsoleCapture capture;
  Tessal::BundlePtr none;
  EXPECT_FALSE(FatBoy<unsigned short>(none, in)());
  auto noShots = Tessal::BundlePtr::make();
  (*noShots.create())[0.0]->makeGrid("Waveforms");
  EXPECT_FALSE(FatBoy<unsigned short>(noShots, in)());
  EXPECT_EQ(capture.messages(),
            (std::vector<std::string>{"Brenno: Error Have no BP!", "Brenno: Error Have no BP!"}));

  capture.clear();
  auto noPositions = Tessal::BundlePtr::make();
  (*noPositions.create())[0.0]->makeGrid("Shots");
  FatBoy<unsigned short> withoutPositions(noPositions, in);
  EXPECT_FALSE(withoutPositions());
  EXPECT_EQ(withoutPositions.nFragments, 0u);
  EXPECT_TRUE(capture.messages().empty());

  auto noRate = makeShotsBundle({{{1, 2, 3}}, {{4, 5, 6}}}, 0.0);
  FatBoy<unsigned short> withoutScanner(noRate, in);
  EXPECT_FALSE(withoutScanner());
  EXPECT_EQ(withoutScanner.nFragments, 2u);
  ASSERT_FALSE(capture.messages().empty());
  EXPECT_EQ(capture.messages().back(), "FatBoy::FatBoy Cannot ini scannerDevice.");
}

TEST(FatBoyConstruction, AttachesOptionalGridsUnlessSkipped) {
  auto bundle = makeShotsBundle({{{1, 2, 3}}});
  Input in = defaultInput();
  FatBoy<unsigned short> shotsOnly(bundle, in);
  EXPECT_TRUE(shotsOnly());
  EXPECT_TRUE(shotsOnly.FWF.isEmpty());
  EXPECT_TRUE(shotsOnly.OPP.isEmpty());

  addWaveformFragment(bundle, 0, {{1, 2}});
  addOnlineFragment(bundle, 0, {{1, 2}, {}, {}, {}});
  FatBoy<unsigned short> all(bundle, in);
  EXPECT_TRUE(all.FWF && all.OPP);
  in.skipFWF = in.skipOnline = true;
  FatBoy<unsigned short> skipped(bundle, in);
  EXPECT_TRUE(skipped());
  EXPECT_TRUE(skipped.FWF.isEmpty() && skipped.OPP.isEmpty());
}

TEST(FragmentLoading, NamesWithoutPaddingAndMissingData) {
  std::vector<ShotFragment> frags(11, ShotFragment{{1, 2, 3}});
  for (std::size_t f = 0; f < frags.size(); ++f)
    frags[f].times = {f * 10.0, f * 10.0 + 1, f * 10.0 + 2};
  auto bundle = makeShotsBundle(frags);
  Input in = defaultInput();
  FatBoy<unsigned short> fb(bundle, in);
  ASSERT_TRUE(fb());
  EXPECT_EQ(fb.nFragments, 11u);
  ASSERT_TRUE(fb.ini(10));
  EXPECT_EQ(fb.fragmentName, "Fragment_10");
  EXPECT_EQ(fb.SHOT->arrays.GPSTime->get(0), 100.0);
  EXPECT_FALSE(fb.ini(11));  // no such fragment identifier
}

TEST(FragmentLoading, WaveformAndOnlineRequirements) {
  auto bundle = makeShotsBundle({{{1, 2, 3}}, {{4, 5, 6}}});
  addWaveformFragment(bundle, 0, {{1, 2}});
  addOnlineFragment(bundle, 0, {{1, 2}, {}, {}, {}, false});
  addOnlineFragment(bundle, 1, {{4}, {}, {}, {}, true});
  Input in = defaultInput();
  FatBoy<unsigned short> fb(bundle, in);
  ASSERT_TRUE(fb());
  ASSERT_TRUE(fb.ini(0));
  // Online data without reflectance: zeros of the right length stand in.
  ASSERT_TRUE(fb.OPP->arrays.Reflectance);
  EXPECT_EQ(fb.OPP->arrays.Reflectance->size(), 2u);
  EXPECT_EQ(fb.OPP->arrays.Reflectance->get(1), 0.0f);
  // Fragment 1 has no waveform data: refused, and the online container keeps fragment 0.
  EXPECT_FALSE(fb.ini(1));
  EXPECT_EQ(fb.OPP->fragNr, 0u);
}

TEST(FragmentLoading, WrongElementTypeOrLengthCountsAsMissing) {
  auto bundle = makeShotsBundle({{{1, 2, 3}}});
  addOnlineFragment(bundle, 0, {{1, 2}, {}, {}, {}});
  // "Range" stored as float instead of double.
  auto opp = gridRepresentation(bundle, "OPP");
  auto range = opp->findFieldByName("Range");
  auto id = range->getFragmentIDCollection()->findFragmentIDByName("Fragment_0");
  range->setPersistentData(makeArray<float>({1.f, 2.f}), id, {}, "");
  Input in = defaultInput();
  FatBoy<unsigned short> fb(bundle, in);
  EXPECT_FALSE(fb.ini(0));

  auto uneven = makeShotsBundle({{{1, 2, 3}}});
  auto shots = gridRepresentation(uneven, "Shots");
  auto gps = shots->findFieldByName("GPSTime");
  gps->setPersistentData(makeArray<double>({1, 2}),
                         gps->getFragmentIDCollection()->findFragmentIDByName("Fragment_0"), {},
                         "");
  FatBoy<unsigned short> fb2(uneven, in);
  EXPECT_FALSE(fb2.ini(0));
}
