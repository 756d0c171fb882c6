// Handles, console, attributes and arrays of the core data model.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <limits>
#include <random>
#include <thread>

#include "support/Arrays.hpp"
#include "tessal/Bundle.hpp"
#include "tessal/Schema.hpp"
#include "vorlap/Console.hpp"

using namespace Vorlap;
using namespace Tessal;

namespace {

struct Probe {
  explicit Probe(int* alive) : alive(alive) { ++*alive; }
  ~Probe() { --*alive; }
  int* alive;
};

struct SelfAware : ReferenceBase<SelfAware> {
  int value = 7;
};
struct DerivedSelfAware : SelfAware {};

// Produces a new array at each call, holding its call number.
class CountingCreator final : public CreativeArrayBase {
 public:
  int produced = 0;
  ElementType elementType() const override { return elementTypeOf<double>(); }
  std::vector<std::size_t> extents() const override { return {1}; }

 protected:
  StrongPtr<MemBase> produce() override {
    return StrongPtr<MemBase>(quillo::test::makeArray<double>({double(++produced)}));
  }
};

struct Watcher {
  // Destroying the watched object must make handles to it test empty.
  WeakPtr<Watcher> self;
  bool* report = nullptr;
  ~Watcher() { *report = self.expired() && self.lock().isEmpty(); }
};

}  // namespace

TEST(StrongPtr, EmptinessAndCounting) {
  StrongPtr<int> none;
  EXPECT_TRUE(none.isEmpty());
  EXPECT_FALSE(static_cast<bool>(none));

  int alive = 0;
  {
    auto a = makeStrong<Probe>(&alive);
    EXPECT_EQ(alive, 1);
    EXPECT_EQ(a.useCount(), 1);
    StrongPtr<Probe> b = a;
    EXPECT_EQ(a.useCount(), 2);
    WeakPtr<Probe> w = a;
    a.reset();
    EXPECT_TRUE(a.isEmpty());
    EXPECT_FALSE(w.expired());
    b.reset();
    EXPECT_EQ(alive, 0);
    EXPECT_TRUE(w.expired());
    EXPECT_TRUE(w.lock().isEmpty());
  }
  StrongPtr<Probe> adopted(new Probe(&alive));
  EXPECT_EQ(alive, 1);
  adopted.reset();
  EXPECT_EQ(alive, 0);
}

TEST(StrongPtr, CastsSelfHandlesAndConcurrentCopies) {
  StrongPtr<ChunkBase> chunk = makeChunk<int>({1, 2});
  EXPECT_TRUE(dynamicPtrCast<Chunk<int>>(chunk));
  EXPECT_TRUE(dynamicPtrCast<Chunk<double>>(chunk).isEmpty());

  auto s = makeStrong<SelfAware>();
  EXPECT_EQ(s->self().get(), s.get());
  auto d = makeStrong<DerivedSelfAware>();
  EXPECT_EQ(d->self().get(), d.get());

  auto shared = makeStrong<int>(5);
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 100000; ++i) StrongPtr<int> copy = shared;
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(shared.useCount(), 1);
}

TEST(StrongPtr, HandlesTestEmptyWhileTheObjectDies) {
  bool sawEmpty = false;
  auto w = makeStrong<Watcher>();
  w->self = w;
  w->report = &sawEmpty;
  w.reset();
  EXPECT_TRUE(sawEmpty);
}

TEST(Console, OneMessagePerObjectAndCapture) {
  ConsoleCapture capture;
  { Console() << "Warning! Broken Fragment for FragNr " << 7u << ". Skipping..."; }
  { Console() << "value " << 2.5 << " big " << 1e6; }
  ASSERT_EQ(capture.messages().size(), 2u);
  EXPECT_EQ(capture.messages()[0], "Warning! Broken Fragment for FragNr 7. Skipping...");
  EXPECT_EQ(capture.messages()[1], "value 2.5 big 1e+06");
}

TEST(Attributes, TypedLookupCopyAndAge) {
  Attributes a;
  a.setAttribute("RDB_Segment", makeChunk<int>({1}));
  a.setAttribute("Model", makeChunk<std::string>({"X"}));
  EXPECT_EQ((*a.getAttributeAs<int>("RDB_Segment"))[0], 1);
  EXPECT_TRUE(a.getAttributeAs<double>("RDB_Segment").isEmpty());
  EXPECT_TRUE(a.getAttribute("missing").isEmpty());

  a.touch();
  Attributes copy = a;
  EXPECT_EQ(copy.age(), a.age());
  EXPECT_EQ(copy.names(), (std::vector<std::string>{"Model", "RDB_Segment"}));
  const auto before = Ageable::GlobalTime.load();
  copy.touch();
  EXPECT_GT(copy.age(), before);
}

TEST(MemArray, OffsetStrideAccessorAndTwoDimensions) {
  auto plain = quillo::test::makeArray<double>({1.0, 2.0, 3.0});
  EXPECT_EQ(plain->get(2), 3.0);
  EXPECT_NE(plain->contiguousData(), nullptr);

  auto strided = quillo::test::makeStridedArray<double>({4.0, 5.0, 6.0}, 2, 3, -1.0);
  EXPECT_EQ(strided->size(), 3u);
  EXPECT_EQ(strided->get(0), 4.0);
  EXPECT_EQ(strided->get(2), 6.0);
  EXPECT_EQ(strided->contiguousData(), nullptr);
  strided->set(1, 9.0);
  EXPECT_EQ(strided->get(1), 9.0);
  std::vector<double> out(3);
  strided->copyOut(out.data());
  EXPECT_EQ(out, (std::vector<double>{4.0, 9.0, 6.0}));

  MemArray<1, float> computed({4}, [](std::size_t k) { return float(k * k); });
  EXPECT_EQ(computed.get(3), 9.0f);

  MemArray<2, unsigned short> wave({3, 2});  // 3 samples per waveform, 2 waveforms
  EXPECT_EQ(wave.size(), 6u);
  wave.set(1 * 3 + 2, 42);
  EXPECT_EQ(wave.get(2, 1), 42);
  EXPECT_EQ(wave.extent(0), 3u);
  EXPECT_EQ(wave.extent(1), 2u);
}

TEST(Grid, RepresentationsFieldsAndFragments) {
  auto bundle = BundlePtr::make();
  auto slice = (*bundle.create())[0.0];
  auto grid = slice->makeGrid("FWF");
  EXPECT_EQ((*slice)("FWF"), grid);
  EXPECT_TRUE((*slice)("Shots").isEmpty());

  auto rep = grid->makeCartesianRepresentation(3, "ScannerCoordinateSystem", 0);
  EXPECT_EQ(grid->makeCartesianRepresentation(3, "ScannerCoordinateSystem", 0), rep);
  quillo::test::storeFragment(*rep, "GPSTime", "Fragment_0",
                              quillo::test::makeArray<double>({1, 2}));
  quillo::test::storeFragment(*rep, "GPSTime", "Fragment_10", quillo::test::makeArray<double>({3}));

  auto field = (*grid)("GPSTime", "");
  ASSERT_TRUE(field);
  EXPECT_EQ(field->getNumberOfFragments(), 2u);
  auto id = field->getFragmentIDCollection()->findFragmentIDByName("Fragment_10");
  ASSERT_TRUE(id);
  EXPECT_TRUE(field->getFragmentIDCollection()->findFragmentIDByName("Fragment_1").isEmpty());
  auto creator = field->getCreator(id);
  ASSERT_TRUE(creator);
  auto data = dynamicPtrCast<MemArray<1, double>>(creator->heldData());
  ASSERT_TRUE(data);
  EXPECT_EQ(data->get(0), 3.0);

  auto chart = grid->findCartesianChart("ScannerCoordinateSystem");
  auto skel = grid->getSkeletonMap().findVertices(-1);
  EXPECT_EQ(grid->getField(chart, "GPSTime", skel), field);
  EXPECT_TRUE(grid->getField(chart, "Positions", skel).isEmpty());
  EXPECT_TRUE(rep->findField(rep->findFieldID("nope")).isEmpty());

  auto range = getFragmentRange(*creator, false, false, {});
  ASSERT_TRUE(range);
  EXPECT_EQ(range->min[0], 3.0);
  auto box = getBoundingBox(field);
  ASSERT_TRUE(box);
  EXPECT_EQ(box->min[0], 1.0);
  EXPECT_EQ(box->max[0], 3.0);
}

// Ranges per component, NaNs left out, through strided views and computed arrays alike.
TEST(Field, FragmentRangesSkipNaNsPerComponent) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  using Gemwold::PhysicalSpace::point;
  auto points = makeStrong<MemArray<1, point>>(MemArray<1, point>::Extents{3});
  points->set(0, {1.0, nan, -2.0});
  points->set(1, {-4.0, nan, 5.0});
  points->set(2, {nan, nan, 0.5});
  Field field("Positions");
  const auto id = field.makeFragmentID("Fragment_1");
  field.setPersistentData(StrongPtr<MemBase>(points), id, Cache::MemCache(), "");
  const auto range = getFragmentRange(*field.getCreator(id), false, false, {});
  ASSERT_TRUE(range);
  EXPECT_EQ(range->min, (std::vector<double>{-4.0, INFINITY, -2.0}));
  EXPECT_EQ(range->max, (std::vector<double>{1.0, -INFINITY, 5.0}));

  // Every second value of a block, and values computed on demand.
  auto block = makeStrong<DataBlock<float>>();
  block->values = {9.0f, -1.0f, 3.0f, 7.0f, float(nan), -5.0f};
  const MemArray<1, float> strided({3}, block, 0, 2);
  std::vector<double> lo{INFINITY}, hi{-INFINITY};
  strided.widenRange(lo.data(), hi.data());
  EXPECT_EQ(lo[0], 3.0);
  EXPECT_EQ(hi[0], 9.0);
  const MemArray<1, std::int16_t> computed({4}, [](std::size_t k) { return std::int16_t(k * 10); });
  computed.widenRange(lo.data(), hi.data());
  EXPECT_EQ(lo[0], 0.0);
  EXPECT_EQ(hi[0], 30.0);
}

// Contiguous arrays take a loop of four lanes: it must give the one-by-one loop's range to the
// bit, including which zero ends a range that holds both signs and where NaNs fall.
TEST(Field, ContiguousRangesMatchTheOneByOneLoop) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  using Gemwold::PhysicalSpace::point;
  auto oneByOne = [](const std::vector<point>& values, unsigned c, double lo, double hi) {
    for (const point& p : values) {
      const double v = Tessal::componentOf(p, c);
      if (std::isnan(v)) continue;
      lo = std::min(lo, v), hi = std::max(hi, v);
    }
    return std::pair{lo, hi};
  };
  std::mt19937 random(7);
  const std::vector<double> pool{0.0, -0.0, 1.5, -2.25, nan, 3.0, -0.0, 0.0};
  for (std::size_t n = 0; n < 14; ++n)
    for (int trial = 0; trial < 40; ++trial) {
      std::vector<point> values(n);
      for (point& p : values) p = {pool[random() % 8], pool[random() % 4], pool[random() % 8]};
      const double start = trial % 3 == 0 ? 0.0 : INFINITY;
      std::vector<double> lo(3, start), hi(3, -start);
      Tessal::widenContiguousRange(values.data(), n, lo.data(), hi.data());
      for (unsigned c = 0; c < 3; ++c) {
        const auto [wantLo, wantHi] = oneByOne(values, c, start, -start);
        ASSERT_EQ(lo[c], wantLo) << n << " " << trial << " " << c;
        ASSERT_EQ(std::signbit(lo[c]), std::signbit(wantLo)) << n << " " << trial << " " << c;
        ASSERT_EQ(hi[c], wantHi) << n << " " << trial << " " << c;
        ASSERT_EQ(std::signbit(hi[c]), std::signbit(wantHi)) << n << " " << trial << " " << c;
      }
    }
}

TEST(Field, LookUpsAndChangesStayExactOverThousandsOfFragments) {
  Field field("GPSTime");
  constexpr std::size_t kFragments = 3000;
  for (std::size_t f = 0; f < kFragments; ++f)
    field.setPersistentData(quillo::test::makeArray<double>({double(f)}),
                            field.makeFragmentID("Fragment_" + std::to_string(f)), {}, "");
  auto ids = field.getFragmentIDCollection();
  ASSERT_EQ(ids->size(), kFragments);
  EXPECT_EQ(field.makeFragmentID("Fragment_7"), ids->at(7)) << "a name is made once";
  // Every name is found where it was made, across the table's growths; absent ones are not.
  for (std::size_t f = 0; f < kFragments; ++f)
    ASSERT_EQ(ids->indexOfName("Fragment_" + std::to_string(f)), f);
  EXPECT_EQ(ids->indexOfName("Fragment_" + std::to_string(kFragments)), kFragments);
  EXPECT_EQ(ids->indexOfName(""), kFragments);
  for (std::size_t f : {std::size_t(0), std::size_t(1234), kFragments - 1}) {
    auto id = ids->findFragmentIDByName("Fragment_" + std::to_string(f));
    ASSERT_TRUE(id);
    EXPECT_EQ(ids->indexOf(id.get()), f);
    auto data = dynamicPtrCast<MemArray<1, double>>(field.getCreator(id)->heldData());
    EXPECT_EQ(data->get(0), double(f));
  }
  // Another field's identifier of the same name finds the fragment by its name.
  Field other("Positions");
  auto foreign = other.makeFragmentID("Fragment_2999");
  EXPECT_EQ(ids->indexOf(foreign.get()), kFragments);
  ASSERT_TRUE(field.getCreator(foreign));
  EXPECT_FALSE(field.getCreator(other.makeFragmentID("Fragment_3000")));

  FragmentChangeCursor cursor;
  EXPECT_EQ(cursor.newlyChanged(field).size(), kFragments) << "the first look sees every one";
  EXPECT_TRUE(cursor.newlyChanged(field).empty());
  field.setCreator(ids->at(20), field.getCreator(ids->at(20)));
  field.setCreator(foreign, field.getCreator(ids->at(5)));  // adopted by name: Fragment_2999
  field.setCreator(ids->at(20), field.getCreator(ids->at(20)));
  field.setPersistentData(quillo::test::makeArray<double>({-1.0}), field.makeFragmentID("New"), {},
                          "");
  EXPECT_EQ(cursor.newlyChanged(field), (std::vector<std::size_t>{20, kFragments - 1, kFragments}))
      << "ascending, each once";
  EXPECT_EQ(cursor.newlyChanged(other).size(), 0u) << "each field has its own place";
  other.setPersistentData(quillo::test::makeArray<double>({1.0}), foreign, {}, "");
  EXPECT_EQ(cursor.newlyChanged(other), (std::vector<std::size_t>{0}));
  EXPECT_TRUE(cursor.newlyChanged(field).empty());
}

// Fields that name their fragments alike share the identifier objects (a load, a copy for
// another thread and the fields of one output fragment make hundreds of thousands); a name
// at another place, or out of order, gets an identifier of its own, found as before.
TEST(Field, IdentifiersAreSharedWhereFieldsNameFragmentsAlike) {
  Field a("GPSTime"), b("Positions"), adopted("Range");
  for (std::uint32_t f = 0; f < 100; ++f) {
    auto id = a.makeFragmentID(schema::fragmentName(f));
    EXPECT_EQ(b.makeFragmentID(schema::fragmentName(f)).get(), id.get()) << "same place";
    EXPECT_EQ(adopted.adoptFragmentID(id).get(), id.get());
  }
  const auto ids = a.getFragmentIDCollection();
  EXPECT_EQ(adopted.adoptFragmentID(ids->at(40)).get(), ids->at(40).get()) << "already there";
  EXPECT_EQ(adopted.getNumberOfFragments(), 100u);

  // Names out of order, repeated, and at other places.
  Field shuffled("Amplitude");
  const auto ten = shuffled.makeFragmentID("Fragment_10");
  const auto nine = shuffled.makeFragmentID("Fragment_9");
  EXPECT_NE(nine.get(), ids->at(9).get()) << "Fragment_9 sits at place 1 here";
  EXPECT_EQ(shuffled.makeFragmentID("Fragment_10").get(), ten.get()) << "a name is made once";
  EXPECT_EQ(shuffled.makeFragmentID("Fragment_9").get(), nine.get());
  EXPECT_EQ(shuffled.adoptFragmentID(ids->at(10)).get(), ten.get()) << "found by its name";
  const auto five = shuffled.adoptFragmentID(ids->at(5));
  EXPECT_NE(five.get(), ids->at(5).get()) << "Fragment_5 sits at place 2 here";
  EXPECT_EQ(five->getName(), "Fragment_5");
  const auto shuffledIds = shuffled.getFragmentIDCollection();
  ASSERT_EQ(shuffledIds->size(), 3u);
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(shuffledIds->indexOf(shuffledIds->at(i).get()), i);
    EXPECT_EQ(shuffledIds->indexOfName(shuffledIds->at(i)->getName()), i);
  }
  // A creator set with another field's identifier lands on the fragment of that name.
  shuffled.setPersistentData(quillo::test::makeArray<double>({9.0}), ids->at(9), {}, "");
  auto nineData = dynamicPtrCast<MemArray<1, double>>(shuffled.getCreator(nine)->heldData());
  ASSERT_TRUE(nineData);
  EXPECT_EQ(nineData->get(0), 9.0);
  EXPECT_EQ(shuffledIds->size(), 3u);
  // Identifiers shared by two fields stay where each of them put them.
  EXPECT_EQ(b.getFragmentIDCollection()->indexOf(ids->at(99).get()), 99u);
  EXPECT_EQ(shuffledIds->indexOf(ids->at(9).get()), 3u) << "not this field's identifier";

  // A field given another's identifiers grows on its own; the other keeps its table.
  Field copy("Reflectance");
  ASSERT_TRUE(copy.shareFragmentIDs(*ids));
  EXPECT_FALSE(copy.shareFragmentIDs(*shuffledIds)) << "only a field without fragments";
  for (std::uint32_t f = 100; f < 300; ++f) copy.makeFragmentID(schema::fragmentName(f));
  EXPECT_EQ(ids->size(), 100u);
  EXPECT_EQ(ids->indexOfName("Fragment_150"), 100u);
  EXPECT_EQ(copy.getFragmentIDCollection()->indexOfName("Fragment_150"), 150u);
  EXPECT_EQ(copy.getFragmentIDCollection()->indexOfName("Fragment_42"), 42u);
  EXPECT_EQ(copy.getFragmentIDCollection()->at(42).get(), ids->at(42).get());
  a.makeFragmentID("Fragment_100");
  EXPECT_EQ(ids->indexOfName("Fragment_100"), 100u);
}

// A reader that does not cache lends its array: another reader shares it while it is held,
// never after, and lending and borrowing may happen on different threads.
TEST(Field, LentArraysAreSharedOnlyWhileHeld) {
  auto creator = makeStrong<CountingCreator>();
  creator->enableCaching(false);
  EXPECT_TRUE(creator->sharedData().isEmpty());
  auto first = creator->create();
  creator->lend(first);
  EXPECT_EQ(creator->sharedData().get(), first.get()) << "shared, not produced again";
  EXPECT_TRUE(creator->heldData().isEmpty()) << "the creator caches nothing";
  first.reset();
  EXPECT_TRUE(creator->sharedData().isEmpty()) << "the creator kept nothing alive";
  EXPECT_EQ(creator->produced, 1);
  // A caching creator gives what it holds.
  auto cached = makeStrong<CountingCreator>();
  auto held = cached->create();
  EXPECT_EQ(cached->sharedData().get(), held.get());

  std::atomic<bool> done{false};
  std::thread lender([&] {
    for (int k = 0; k < 20000; ++k) {
      auto data = creator->create();
      creator->lend(data);
    }
    done = true;
  });
  std::size_t wrong = 0;
  while (!done)
    if (auto borrowed = dynamicPtrCast<MemArray<1, double>>(creator->sharedData()))
      wrong += borrowed->size() != 1 || !(borrowed->get(0) >= 2.0);
  lender.join();
  EXPECT_EQ(wrong, 0u);
}

TEST(Bundle, SliceLookupTakesNearestTime) {
  Bundle b;
  double t = 0.0;
  EXPECT_TRUE(b(t).isEmpty());
  auto s = b[2.0];
  t = 0.0;
  EXPECT_EQ(b(t), s);
  EXPECT_EQ(t, 2.0);
}

TEST(Schema, FragmentNamesAreThePrefixAndTheNumberInDecimal) {
  for (std::uint32_t n : {0u, 7u, 9u, 10u, 99u, 100u, 4999u, 65535u, 1000000000u, 4294967295u})
    EXPECT_EQ(Tessal::schema::fragmentName(n), "Fragment_" + std::to_string(n));
}
