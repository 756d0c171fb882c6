// .kq files: round trips through the HDF5 container, on-demand reading and bad files.
#include <gtest/gtest.h>
#include <hdf5.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "support/Arrays.hpp"
#include "support/TempDir.hpp"
#include "tessal/Bundle.hpp"
#include "vorlap/Console.hpp"

using namespace Tessal;
using namespace quillo::test;
using Gemwold::PhysicalSpace::point;

namespace {

BundlePtr sampleBundle() {
  auto bundle = BundlePtr::make();
  auto slice = (*bundle.create())[0.0];
  auto shots = slice->makeGrid("Shots");
  auto& a = shots->attributes();
  a.setAttribute("Rate", Vorlap::makeChunk<double>({1.0e6}));
  a.setAttribute("Count", Vorlap::makeChunk<unsigned>({7u, 8u}));
  a.setAttribute("Segment", Vorlap::makeChunk<int>({-1}));
  a.setAttribute("Table", Vorlap::makeChunk<float>({-1.5f, 2.5f}));
  a.setAttribute("Model", Vorlap::makeChunk<std::string>({"Q-1", "two words/slash"}));
  a.setAttribute("Empty", Vorlap::makeChunk<int>({}));
  auto rep = shots->makeCartesianRepresentation(3, "ScannerCoordinateSystem", 0);
  storeFragment(*rep, "GPSTime", "Fragment_0", makeArray<double>({1.0, 2.0, 3.0}));
  storeFragment(*rep, "GPSTime", "Fragment_1", makeArray<double>({}));
  storeFragment(*rep, "GPSTime", "Fragment_2", makeStridedArray<double>({4.0, 5.0}, 1, 3));
  storeFragment(*rep, "Positions", "Fragment_0", makeArray<point>({{1, 2, 3}, {4, 5, 6}}));
  storeFragment(*rep, "Channel", "Fragment_0", makeArray<std::uint8_t>({0, 1, 255}));
  auto wave =
      Vorlap::makeStrong<MemArray<2, std::uint16_t>>(MemArray<2, std::uint16_t>::Extents{4, 2});
  for (std::size_t k = 0; k < 8; ++k) wave->set(k, std::uint16_t(100 + k));
  auto fwf = slice->makeGrid("Waveforms/odd.name")->makeCartesianRepresentation(3, "Chart", 0);
  storeFragment(*fwf, "Waveforms", "Fragment_0", wave);
  (*rep).findFieldByName("Channel")->attributes().setAttribute(
      "Unit", Vorlap::makeChunk<std::string>({"id"}));
  return bundle;
}

template <class T>
Vorlap::StrongPtr<MemArray<1, T>> fragment(const Vorlap::StrongPtr<Field>& f,
                                           const std::string& name) {
  auto creator = f->getCreator(f->getFragmentIDCollection()->findFragmentIDByName(name));
  return creator ? Vorlap::dynamicPtrCast<MemArray<1, T>>(creator->create()) : nullptr;
}

BundlePtr load(const std::string& file, bool& ok) {
  BundlePtr b = BundlePtr::make();
  Bundle::load(ok, LoaderParameters({file}), b);
  return b;
}

}  // namespace

TEST(KqFile, RoundTripKeepsStructureValuesAndTypes) {
  TempDir dir;
  const std::string file = dir.file("a.kq");
  ASSERT_EQ(Bundle::save(sampleBundle(), file), "");
  bool ok = false;
  BundlePtr back = load(file, ok);
  ASSERT_TRUE(ok);
  auto slice = (*back.get())[0.0];
  ASSERT_EQ(slice->grids().size(), 2u);
  auto shots = (*slice)("Shots");
  ASSERT_TRUE(shots);
  const auto& a = shots->attributes();
  EXPECT_EQ((*a.getAttributeAs<double>("Rate"))[0], 1.0e6);
  EXPECT_EQ(a.getAttributeAs<unsigned>("Count")->values(), (std::vector<unsigned>{7u, 8u}));
  EXPECT_EQ((*a.getAttributeAs<int>("Segment"))[0], -1);
  EXPECT_EQ(a.getAttributeAs<float>("Table")->values(), (std::vector<float>{-1.5f, 2.5f}));
  EXPECT_EQ(a.getAttributeAs<std::string>("Model")->values(),
            (std::vector<std::string>{"Q-1", "two words/slash"}));
  ASSERT_TRUE(a.getAttributeAs<int>("Empty"));
  EXPECT_EQ(a.getAttributeAs<int>("Empty")->size(), 0u);

  auto times = (*shots)("GPSTime", "ScannerCoordinateSystem");
  ASSERT_TRUE(times);
  ASSERT_EQ(times->getNumberOfFragments(), 3u);
  EXPECT_EQ(times->getFragmentIDCollection()->at(2)->getName(), "Fragment_2");
  EXPECT_EQ(fragment<double>(times, "Fragment_0")->get(2), 3.0);
  EXPECT_EQ(fragment<double>(times, "Fragment_1")->size(), 0u);
  EXPECT_EQ(fragment<double>(times, "Fragment_2")->get(1), 5.0);
  EXPECT_EQ(fragment<point>((*shots)("Positions", ""), "Fragment_0")->get(1), (point{4, 5, 6}));
  auto channel = (*shots)("Channel", "");
  EXPECT_EQ(fragment<std::uint8_t>(channel, "Fragment_0")->get(2), 255);
  EXPECT_EQ((*channel->attributes().getAttributeAs<std::string>("Unit"))[0], "id");

  auto odd = (*slice)("Waveforms/odd.name");
  ASSERT_TRUE(odd);
  auto wf = (*odd)("Waveforms", "Chart");
  auto creator = wf->getCreator(wf->getFragmentIDCollection()->at(0));
  auto samples = Vorlap::dynamicPtrCast<MemArray<2, std::uint16_t>>(creator->create());
  ASSERT_TRUE(samples);
  EXPECT_EQ(samples->extent(0), 4u);
  EXPECT_EQ(samples->get(3, 1), 107);

  // A loaded bundle saves again (its fragments come from the first file on demand).
  ASSERT_EQ(Bundle::save(back, dir.file("b.kq")), "");
  bool ok2 = false;
  BundlePtr again = load(dir.file("b.kq"), ok2);
  ASSERT_TRUE(ok2);
  auto againTimes = (*(*(*again.get())[0.0])("Shots"))("GPSTime", "");
  EXPECT_EQ((fragment<double>(againTimes, "Fragment_2")->get(0)), 4.0);
}

TEST(KqFile, FragmentsAreReadOnlyWhenAskedFor) {
  TempDir dir;
  ASSERT_EQ(Bundle::save(sampleBundle(), dir.file("a.kq")), "");
  bool ok = false;
  BundlePtr back = load(dir.file("a.kq"), ok);
  ASSERT_TRUE(ok);
  auto times = (*(*back.get())[0.0])("Shots")->operator()("GPSTime", "");
  auto creator = times->getCreator(times->getFragmentIDCollection()->at(0));
  EXPECT_TRUE(creator->heldData().isEmpty());
  EXPECT_EQ(creator->elementType(), ElementType::Double);
  EXPECT_EQ(creator->extents(), (std::vector<std::size_t>{3}));
  creator->enableCaching(false);
  auto data = creator->create();
  ASSERT_TRUE(data);
  EXPECT_TRUE(creator->heldData().isEmpty());  // not kept once caching is off
  back.reset();
  auto again = Vorlap::dynamicPtrCast<MemArray<1, double>>(creator->create());
  ASSERT_TRUE(again);
  EXPECT_EQ(again->get(0), 1.0);
}

TEST(KqFile, BadFilesAreRefusedWithTheirName) {
  TempDir dir;
  auto expectRefused = [&](const std::string& file, const std::string& words) {
    Vorlap::ConsoleCapture capture;
    bool ok = true;
    BundlePtr b = load(file, ok);
    EXPECT_FALSE(ok) << file;
    ASSERT_FALSE(capture.messages().empty()) << file;
    EXPECT_NE(capture.messages().front().find(file), std::string::npos);
    EXPECT_NE(capture.messages().front().find(words), std::string::npos) << capture.joined();
    EXPECT_TRUE((*b.get()).slices().empty()) << "nothing of a refused file is added";
  };
  expectRefused(dir.file("missing.kq"), "no such file");
  std::ofstream(dir.file("empty.kq")).close();
  expectRefused(dir.file("empty.kq"), "not an HDF5 file");
  std::ofstream(dir.file("text.kq")) << "plain text\n";
  expectRefused(dir.file("text.kq"), "not an HDF5 file");

  ASSERT_EQ(Bundle::save(sampleBundle(), dir.file("whole.kq")), "");
  const auto size = std::filesystem::file_size(dir.file("whole.kq"));
  std::filesystem::copy_file(dir.file("whole.kq"), dir.file("cut.kq"));
  std::filesystem::resize_file(dir.file("cut.kq"), size / 2);
  expectRefused(dir.file("cut.kq"), "cannot");

  // A dataset whose declared element type differs from the type of its stored values.
  std::filesystem::copy_file(dir.file("whole.kq"), dir.file("retyped.kq"));
  {
    hid_t f = H5Fopen(dir.file("retyped.kq").c_str(), H5F_ACC_RDWR, H5P_DEFAULT);
    hid_t d =
        H5Dopen2(f, "/slices/0/grids/Shots/charts/ScannerCoordinateSystem/fields/Channel/values",
                 H5P_DEFAULT);
    H5Adelete(d, "element_type");
    hid_t t = H5Tcopy(H5T_C_S1);
    H5Tset_size(t, H5T_VARIABLE);
    hid_t s = H5Screate_simple(1, std::array<hsize_t, 1>{1}.data(), nullptr);
    hid_t a = H5Acreate2(d, "element_type", t, s, H5P_DEFAULT, H5P_DEFAULT);
    const char* name = "float64";
    H5Awrite(a, t, &name);
    H5Aclose(a), H5Sclose(s), H5Tclose(t), H5Dclose(d), H5Fclose(f);
  }
  // Other number types are converted when read: the uint8 channels come back as doubles.
  bool ok = false;
  BundlePtr retyped = load(dir.file("retyped.kq"), ok);
  ASSERT_TRUE(ok);
  double t = 0.0;
  auto channel =
      fragment<double>((*(*retyped.get())(t))("Shots")->operator()("Channel", ""), "Fragment_0");
  ASSERT_TRUE(channel);
  EXPECT_EQ(channel->get(2), 255.0);
}

TEST(KqFile, SaveNeverLeavesPartialFiles) {
  TempDir dir;
  const std::string bad = (dir.path() / "no-such-folder" / "x.kq").string();
  const std::string error = Bundle::save(sampleBundle(), bad);
  EXPECT_NE(error.find(bad), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(bad));
  ASSERT_EQ(Bundle::save(sampleBundle(), dir.file("ok.kq")), "");
  std::size_t files = 0;
  for (const auto& e : std::filesystem::directory_iterator(dir.path()))
    files += e.is_regular_file();
  EXPECT_EQ(files, 1u);  // no temporary file stays behind
}

TEST(KqFile, AFileReplacedSinceItWasFoundSoundIsCheckedAgain) {
  TempDir dir;
  const std::string file = dir.file("replaced.kq");
  ASSERT_EQ(Bundle::save(sampleBundle(), file), "");  // written here: known sound
  bool ok = false;
  load(file, ok);
  ASSERT_TRUE(ok);
  // The same name now holds a file whose global heap would hang HDF5.
  std::filesystem::copy_file(
      std::string(QUILLO_SOURCE_DIR) +
          "/tests/regressions/kq_run/hdf5-global-heap-empty-free-object-a.kq",
      file, std::filesystem::copy_options::overwrite_existing);
  Vorlap::ConsoleCapture capture;
  load(file, ok);
  EXPECT_FALSE(ok);
  EXPECT_NE(capture.joined().find("damaged global heap collection"), std::string::npos)
      << capture.joined();
}

TEST(KqFile, StreamingSaveWritesFragmentsAsTheyComeAndLetsThemGo) {
  TempDir dir;
  const std::string file = dir.file("s.kq");
  auto bundle = BundlePtr::make();
  auto grid = (*bundle.create())[0.0]->makeGrid("FWF");
  auto rep = grid->makeCartesianRepresentation(3, "ScannerCoordinateSystem", 0);
  storeFragment(*rep, "GPSTime", "Fragment_0", makeArray<double>({1.0, 2.0, 3.0}));
  StreamingSave save(bundle, file);
  ASSERT_EQ(save.write(), "");
  auto times = (*grid)("GPSTime", "");
  auto first = times->getCreator(times->getFragmentIDCollection()->at(0));
  EXPECT_FALSE(first->heldData()) << "a written fragment is let go";
  EXPECT_EQ(first->extents(), (std::vector<std::size_t>{3}));
  EXPECT_FALSE(std::filesystem::exists(file)) << "nothing under the final name before finish";
  // A later fragment, a field that appears only now, and attributes set at the end.
  storeFragment(*rep, "GPSTime", "Fragment_1", makeArray<double>({4.0}));
  storeFragment(*rep, "Channel", "Fragment_1", makeArray<std::uint8_t>({7}));
  grid->attributes().setAttribute("Done", Vorlap::makeChunk<int>({1}));
  ASSERT_EQ(save.write(), "");
  ASSERT_EQ(save.finish(), "");
  bool ok = false;
  BundlePtr back = load(file, ok);
  ASSERT_TRUE(ok);
  auto fwf = (*(*back.get())[0.0])("FWF");
  EXPECT_EQ((*fwf->attributes().getAttributeAs<int>("Done"))[0], 1);
  EXPECT_EQ(fragment<double>((*fwf)("GPSTime", ""), "Fragment_0")->get(2), 3.0);
  EXPECT_EQ(fragment<double>((*fwf)("GPSTime", ""), "Fragment_1")->get(0), 4.0);
  EXPECT_EQ(fragment<std::uint8_t>((*fwf)("Channel", ""), "Fragment_1")->get(0), 7);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);
}

TEST(KqFile, UnfinishedOrUnwritableStreamingSavesLeaveNothing) {
  TempDir dir;
  {
    StreamingSave save(sampleBundle(), dir.file("never.kq"));
    ASSERT_EQ(save.write(), "");
  }
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 0);
  const std::string bad = dir.file("missing/x.kq");
  StreamingSave save(sampleBundle(), bad);
  EXPECT_NE(save.write().find(bad), std::string::npos);
  EXPECT_NE(save.finish().find(bad), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(bad));
}

namespace {

// A field whose fragments were made in the reverse of their name order, `count` of them.
BundlePtr reverseNamedFragments(int count) {
  auto bundle = BundlePtr::make();
  auto rep = (*bundle.create())[0.0]->makeGrid("Shots")->makeCartesianRepresentation(3, "C", 0);
  for (int k = count - 1; k >= 0; --k)
    storeFragment(*rep, "GPSTime", "F" + std::to_string(100 + k), makeArray<double>({double(k)}));
  return bundle;
}

std::vector<std::string> fragmentNames(const BundlePtr& bundle) {
  auto field = (*(*(*bundle.get())[0.0])("Shots"))("GPSTime", "");
  std::vector<std::string> names;
  for (std::size_t f = 0; field && f < field->getNumberOfFragments(); ++f)
    names.push_back(field->getFragmentIDCollection()->at(f)->getName());
  return names;
}

// Moves every link of `path` into a new group of that name whose creation order is indexed,
// in their creation order: the fragments groups of files written by earlier builds.
void indexCreationOrder(const std::string& file, const std::string& path) {
  hid_t f = H5Fopen(file.c_str(), H5F_ACC_RDWR, H5P_DEFAULT);
  H5Lmove(f, path.c_str(), f, (path + "_old").c_str(), H5P_DEFAULT, H5P_DEFAULT);
  hid_t props = H5Pcreate(H5P_GROUP_CREATE);
  H5Pset_link_creation_order(props, H5P_CRT_ORDER_TRACKED | H5P_CRT_ORDER_INDEXED);
  hid_t old = H5Gopen2(f, (path + "_old").c_str(), H5P_DEFAULT);
  hid_t fresh = H5Gcreate2(f, path.c_str(), H5P_DEFAULT, props, H5P_DEFAULT);
  H5G_info_t info;
  H5Gget_info(old, &info);
  for (hsize_t i = 0; i < info.nlinks; ++i) {
    char name[64];
    H5Lget_name_by_idx(old, ".", H5_INDEX_CRT_ORDER, H5_ITER_INC, 0, name, sizeof name,
                       H5P_DEFAULT);
    H5Lmove(old, name, fresh, name, H5P_DEFAULT, H5P_DEFAULT);
  }
  H5Gclose(fresh), H5Gclose(old), H5Pclose(props);
  H5Ldelete(f, (path + "_old").c_str(), H5P_DEFAULT);
  H5Fclose(f);
}

}  // namespace

// Files of the older layout: fragments groups keep their creation order without indexing it (a
// group of few links is stored compact, of many dense); files whose groups index it, as earlier
// builds wrote them, load in the same order.
TEST(KqFile, FragmentsLoadInTheOrderTheyWereMade) {
  TempDir dir;
  const std::string fragments = "/slices/0/grids/Shots/charts/C/fields/GPSTime/fragments";
  for (int count : {3, 40}) {
    const std::string file = dir.file("f" + std::to_string(count) + ".kq");
    const auto made = reverseNamedFragments(count);
    ASSERT_EQ(Bundle::save(made, file, KqLayout::DatasetPerFragment), "");
    bool ok = false;
    EXPECT_EQ(fragmentNames(load(file, ok)), fragmentNames(made)) << count;
    EXPECT_TRUE(ok);
    hid_t f = H5Fopen(file.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
    hid_t g = H5Gopen2(f, fragments.c_str(), H5P_DEFAULT);
    hid_t props = H5Gget_create_plist(g);
    unsigned order = 0;
    H5Pget_link_creation_order(props, &order);
    EXPECT_EQ(order, unsigned(H5P_CRT_ORDER_TRACKED)) << count;
    H5Pclose(props), H5Gclose(g), H5Fclose(f);

    indexCreationOrder(file, fragments);
    auto earlier = load(file, ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(fragmentNames(earlier), fragmentNames(made)) << count;
    auto field = (*(*(*earlier.get())[0.0])("Shots"))("GPSTime", "");
    EXPECT_EQ(fragment<double>(field, "F" + std::to_string(100 + count - 1))->get(0), count - 1);
  }
}

// Another thread's copy of a loaded bundle reads the same arrays through readers of its own
// while the first one is in use; a bundle held in memory has none to copy.
TEST(KqFile, ACopyForAnotherThreadReadsTheFileOnItsOwn) {
  TempDir dir;
  ASSERT_EQ(Bundle::save(sampleBundle(), dir.file("a.kq")), "");
  bool ok = false;
  BundlePtr first = load(dir.file("a.kq"), ok);
  ASSERT_TRUE(ok);
  auto times = (*(*first.get())[0.0])("Shots")->operator()("GPSTime", "");
  ASSERT_TRUE(fragment<double>(times, "Fragment_0"));  // held by the first bundle now
  BundlePtr copy = copyForAnotherThread(first);
  ASSERT_TRUE(copy);
  auto shots = (*(*copy.get())[0.0])("Shots");
  EXPECT_EQ((*shots->attributes().getAttributeAs<double>("Rate"))[0], 1.0e6);
  auto copied = (*shots)("GPSTime", "ScannerCoordinateSystem");
  ASSERT_EQ(copied->getNumberOfFragments(), 3u);
  auto creator = copied->getCreator(copied->getFragmentIDCollection()->at(0));
  EXPECT_TRUE(creator->heldData().isEmpty());
  EXPECT_EQ((*(*shots)("Channel", "")->attributes().getAttributeAs<std::string>("Unit"))[0], "id");

  // Not kept: every read goes to the file, the two threads at once.
  for (const auto& field : {times, copied})
    field->getCreator(field->getFragmentIDCollection()->at(2))->enableCaching(false);
  std::thread reader([&] {
    for (int k = 0; k < 200; ++k) fragment<double>(times, "Fragment_2");
  });
  for (int k = 0; k < 200; ++k) EXPECT_EQ(fragment<double>(copied, "Fragment_2")->get(1), 5.0);
  reader.join();
  first.reset();
  EXPECT_EQ(fragment<double>(copied, "Fragment_0")->get(2), 3.0);
  auto wf = (*(*(*copy.get())[0.0])("Waveforms/odd.name"))("Waveforms", "Chart");
  auto samples = Vorlap::dynamicPtrCast<MemArray<2, std::uint16_t>>(
      wf->getCreator(wf->getFragmentIDCollection()->at(0))->create());
  ASSERT_TRUE(samples);
  EXPECT_EQ(samples->get(3, 1), 107);

  EXPECT_FALSE(copyForAnotherThread(sampleBundle()));
}
