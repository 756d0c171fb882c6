// Store construction and per-fragment loading.
#include <gtest/gtest.h>

#include <stdexcept>

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

// Reads of the waveform samples, and those made while the array read before was still held.
struct ReadCount {
  int reads = 0, whileLastHeld = 0;
  Vorlap::WeakPtr<Tessal::MemBase> last;
};

// Produces a new copy of a fragment's waveform samples at every read, as a file's creator
// does, and counts the reads in `count`.
class FreshCopies final : public Tessal::CreativeArrayBase {
 public:
  using Samples = Tessal::MemArray<2, std::uint16_t>;
  FreshCopies(Vorlap::StrongPtr<Samples> source, std::shared_ptr<ReadCount> count)
      : source_(std::move(source)), count_(std::move(count)) {}
  Tessal::ElementType elementType() const override { return source_->elementType(); }
  std::vector<std::size_t> extents() const override {
    return {source_->extent(0), source_->extent(1)};
  }

 protected:
  Vorlap::StrongPtr<Tessal::MemBase> produce() override {
    ++count_->reads;
    count_->whileLastHeld += bool(count_->last.lock());
    auto copy = Vorlap::makeStrong<Samples>(source_->extents());
    source_->copyOut(copy->contiguousData());
    count_->last = Vorlap::WeakPtr<Tessal::MemBase>(Vorlap::StrongPtr<Tessal::MemBase>(copy));
    return copy;
  }

 private:
  Vorlap::StrongPtr<Samples> source_;
  std::shared_ptr<ReadCount> count_;
};

// Two fragments of waveform samples whose every read makes a fresh copy, counted in `count`.
Tessal::BundlePtr twoFragmentsReadFresh(const std::shared_ptr<ReadCount>& count) {
  auto bundle = makeShotsBundle({{{1, 2, 3}}, {{4, 5, 6}}});
  addWaveformFragment(bundle, 0, {{1, 2}});
  addWaveformFragment(bundle, 1, {{4, 5, 6}});
  auto samples = gridRepresentation(bundle, "Waveforms")->findFieldByName("Waveforms");
  for (const char* name : {"Fragment_0", "Fragment_1"}) {
    auto id = samples->getFragmentIDCollection()->findFragmentIDByName(name);
    auto held = Vorlap::dynamicPtrCast<FreshCopies::Samples>(samples->getCreator(id)->create());
    if (!held) throw std::runtime_error("waveform samples of an unexpected type");
    samples->setCreator(id, Vorlap::makeStrong<FreshCopies>(held, count));
  }
  return bundle;
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

// A fragment's arrays go before the next fragment's are read: the store never holds two
// fragments' waveform samples at once, and holds the new fragment's afterwards.
TEST(FragmentLoading, TheLastFragmentsArraysGoBeforeTheNextAreRead) {
  auto count = std::make_shared<ReadCount>();
  auto bundle = twoFragmentsReadFresh(count);
  Input in = defaultInput();
  FatBoy<unsigned short> fb(bundle, in);
  ASSERT_TRUE(fb());
  ASSERT_TRUE(fb.ini(0));
  ASSERT_TRUE(fb.ini(1));
  EXPECT_EQ(count->reads, 2);
  EXPECT_EQ(count->whileLastHeld, 0);
  ASSERT_TRUE(fb.FWF->arrays.Waveforms);
  EXPECT_EQ(fb.FWF->arrays.Waveforms->extent(1), 3u);
}

// A plain run lets the waveform samples go once a fragment's points are made; the Shots
// arrays stay (the output's attributes are taken from them) and the next fragment loads.
TEST(FragmentLoading, DroppedWaveArraysAreFreedAndTheShotsStay) {
  auto count = std::make_shared<ReadCount>();
  auto bundle = twoFragmentsReadFresh(count);
  Input in = defaultInput();
  FatBoy<unsigned short> fb(bundle, in);
  ASSERT_TRUE(fb());
  ASSERT_TRUE(fb.ini(0));
  fb.dropWaveArrays();
  EXPECT_FALSE(fb.FWF->arrays.Waveforms);
  EXPECT_FALSE(count->last.lock());
  ASSERT_TRUE(fb.SHOT->arrays.GPSTime);
  EXPECT_EQ(fb.SHOT->arrays.GPSTime->size(), 3u);
  ASSERT_TRUE(fb.ini(1));
  ASSERT_TRUE(fb.FWF->arrays.Waveforms);
  EXPECT_EQ(fb.FWF->arrays.Waveforms->extent(1), 3u);
}
