// The chunks of .kq datasets: written by hand (shuffle, then deflate) they read back the same
// through our reader and through plain HDF5 (as h5py and h5dump read them), last partial
// chunk included, also by several threads at once; small arrays are stored compact;
// datasets with other filter chains or layouts are still read through HDF5.
#include <gtest/gtest.h>
#include <hdf5.h>

#include <thread>

#include "support/Arrays.hpp"
#include "support/TempDir.hpp"
#include "tessal/Bundle.hpp"
#include "vorlap/Console.hpp"

using namespace Tessal;
using namespace quillo::test;
using Gemwold::PhysicalSpace::point;

namespace {

const std::string kFields = "/slices/0/grids/Shots/charts/ScannerCoordinateSystem/fields/";

// More than a million numbers each: several chunks, the last one partly filled.
constexpr std::size_t kTimes = 2'600'000, kPoints = 400'000, kRows = 2'500, kSamples = 1'000;

double timeAt(std::size_t i) {
  return 1.0e5 + double(i) * 1e-6;
}
point pointAt(std::size_t i) {
  return {double(i), -0.5 * double(i), double(i % 977)};
}
std::uint16_t sampleAt(std::size_t k) {
  return std::uint16_t((k * 2654435761u) >> 20);
}

std::string savedBigFile(const TempDir& dir) {
  auto bundle = BundlePtr::make();
  auto rep = (*bundle.create())[0.0]->makeGrid("Shots")->makeCartesianRepresentation(
      3, "ScannerCoordinateSystem", 0);
  auto times = Vorlap::makeStrong<MemArray<1, double>>(kTimes);
  for (std::size_t i = 0; i < kTimes; ++i) times->set(i, timeAt(i));
  auto points = Vorlap::makeStrong<MemArray<1, point>>(kPoints);
  for (std::size_t i = 0; i < kPoints; ++i) points->set(i, pointAt(i));
  auto samples = Vorlap::makeStrong<MemArray<2, std::uint16_t>>(
      MemArray<2, std::uint16_t>::Extents{kSamples, kRows});
  for (std::size_t k = 0; k < kSamples * kRows; ++k) samples->set(k, sampleAt(k));
  storeFragment(*rep, "GPSTime", "Fragment_0", times);
  storeFragment(*rep, "Positions", "Fragment_0", points);
  storeFragment(*rep, "Samples", "Fragment_0", samples);
  const std::string file = dir.file("big.kq");
  EXPECT_EQ(Bundle::save(bundle, file, KqLayout::DatasetPerFragment), "");
  return file;
}

Vorlap::StrongPtr<MemBase> loadedFragment(const BundlePtr& bundle, const std::string& field) {
  double t = 0.0;
  auto f = (*(*(*bundle.get())(t))("Shots"))(field, "");
  return f ? f->getCreator(f->getFragmentIDCollection()->at(0))->create() : nullptr;
}

// FILE loaded again; null when it does not load.
BundlePtr loadedBundle(const std::string& file) {
  auto loaded = BundlePtr::make();
  bool ok = false;
  Bundle::load(ok, LoaderParameters({file}), loaded);
  return ok ? loaded : BundlePtr();
}

// FILE loaded again, and its first fragment of FIELD as doubles (null when it does not load).
Vorlap::StrongPtr<MemArray<1, double>> loadedTimes(const std::string& file,
                                                   const std::string& field) {
  const BundlePtr loaded = loadedBundle(file);
  if (!loaded) return nullptr;
  return dynamicPtrCast<MemArray<1, double>>(loadedFragment(loaded, field));
}

// Values of the big file's fragments that differ from what was saved (all when unread).
std::size_t wrongValues(const BundlePtr& bundle) {
  auto times = dynamicPtrCast<MemArray<1, double>>(loadedFragment(bundle, "GPSTime"));
  auto points = dynamicPtrCast<MemArray<1, point>>(loadedFragment(bundle, "Positions"));
  auto samples = dynamicPtrCast<MemArray<2, std::uint16_t>>(loadedFragment(bundle, "Samples"));
  if (!times || !points || !samples) return kTimes + kPoints + kSamples * kRows;
  std::size_t wrong = 0;
  for (std::size_t i = 0; i < kTimes; ++i) wrong += times->get(i) != timeAt(i);
  for (std::size_t i = 0; i < kPoints; ++i) {
    const point p = points->get(i), q = pointAt(i);
    wrong += p.x != q.x || p.y != q.y || p.z != q.z;
  }
  for (std::size_t k = 0; k < kSamples * kRows; ++k) wrong += samples->get(k) != sampleAt(k);
  return wrong;
}

// The dataset through HDF5's own filters, as any HDF5 reader sees it.
template <class T>
std::vector<T> readThroughHdf5(const std::string& file, const std::string& field,
                               std::size_t numbers) {
  std::vector<T> values(numbers);
  hid_t f = H5Fopen(file.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
  hid_t set = H5Dopen2(f, (kFields + field + "/fragments/Fragment_0").c_str(), H5P_DEFAULT);
  hid_t type = sizeof(T) == 8 ? H5T_NATIVE_DOUBLE : H5T_NATIVE_UINT16;
  EXPECT_GE(H5Dread(set, type, H5S_ALL, H5S_ALL, H5P_DEFAULT, values.data()), 0);
  hid_t create = H5Dget_create_plist(set);
  EXPECT_EQ(H5Pget_nfilters(create), 2);
  unsigned flags = 0, config = 0, cd[4];
  std::size_t n = 4;
  EXPECT_EQ(H5Pget_filter2(create, 0, &flags, &n, cd, 0, nullptr, &config), H5Z_FILTER_SHUFFLE);
  n = 4;
  EXPECT_EQ(H5Pget_filter2(create, 1, &flags, &n, cd, 0, nullptr, &config), H5Z_FILTER_DEFLATE);
  H5Pclose(create), H5Dclose(set), H5Fclose(f);
  return values;
}

// Replaces the GPSTime fragment by `values` written by HDF5 itself with `create`'s layout and
// filters, the first `written` values only (the rest unwritten: fill values, zero).
void rewriteTimes(const std::string& file, const std::vector<double>& values, hid_t create,
                  std::size_t written) {
  const std::string path = kFields + "GPSTime/fragments/Fragment_0";
  hid_t f = H5Fopen(file.c_str(), H5F_ACC_RDWR, H5P_DEFAULT);
  H5Ldelete(f, path.c_str(), H5P_DEFAULT);
  const hsize_t n = values.size(), start = 0, count = written;
  hid_t space = H5Screate_simple(1, &n, nullptr);
  hid_t set =
      H5Dcreate2(f, path.c_str(), H5T_NATIVE_DOUBLE, space, H5P_DEFAULT, create, H5P_DEFAULT);
  hid_t memory = H5Screate_simple(1, &count, nullptr);
  H5Sselect_hyperslab(space, H5S_SELECT_SET, &start, nullptr, &count, nullptr);
  H5Dwrite(set, H5T_NATIVE_DOUBLE, memory, space, H5P_DEFAULT, values.data());
  hid_t text = H5Tcopy(H5T_C_S1);
  H5Tset_size(text, H5T_VARIABLE);
  hid_t scalar = H5Screate(H5S_SCALAR);
  const char* type = "float64";
  hid_t a = H5Acreate2(set, "element_type", text, scalar, H5P_DEFAULT, H5P_DEFAULT);
  H5Awrite(a, text, &type);
  H5Aclose(a);
  const int rank = 1;
  a = H5Acreate2(set, "rank", H5T_NATIVE_INT, scalar, H5P_DEFAULT, H5P_DEFAULT);
  H5Awrite(a, H5T_NATIVE_INT, &rank);
  H5Aclose(a), H5Tclose(text), H5Sclose(scalar), H5Sclose(memory), H5Sclose(space), H5Dclose(set);
  H5Fclose(f);
}

}  // namespace

TEST(KqChunks, ManyChunksReadBackTheSameHereAndThroughPlainHdf5) {
  TempDir dir;
  const std::string file = savedBigFile(dir);
  {
    const BundlePtr bundle = loadedBundle(file);
    ASSERT_TRUE(bundle);
    EXPECT_EQ(wrongValues(bundle), 0u);
  }
  const auto times = readThroughHdf5<double>(file, "GPSTime", kTimes);
  EXPECT_EQ(times.back(), timeAt(kTimes - 1));
  EXPECT_EQ(times[1'234'567], timeAt(1'234'567));
  const auto coordinates = readThroughHdf5<double>(file, "Positions", 3 * kPoints);
  EXPECT_EQ(coordinates[3 * (kPoints - 1) + 1], pointAt(kPoints - 1).y);
  const auto samples = readThroughHdf5<std::uint16_t>(file, "Samples", kSamples * kRows);
  std::size_t wrong = 0;
  for (std::size_t k = 0; k < samples.size(); ++k) wrong += samples[k] != sampleAt(k);
  EXPECT_EQ(wrong, 0u);
}

// Chunks are unpacked with the HDF5 lock released: threads reading one loaded file at once
// (each array produced anew every time) all get what was saved.
TEST(KqChunks, ThreadsReadingOneFileAtOnceGetWhatWasSaved) {
  TempDir dir;
  const std::string file = savedBigFile(dir);
  const BundlePtr bundle = loadedBundle(file);
  ASSERT_TRUE(bundle);
  double t = 0.0;
  auto shots = (*(*bundle.get())(t))("Shots");
  for (const char* field : {"GPSTime", "Positions", "Samples"}) {
    auto f = (*shots)(field, "");
    ASSERT_TRUE(f);
    f->getCreator(f->getFragmentIDCollection()->at(0))->enableCaching(false);
  }
  std::vector<std::size_t> wrong(3, 0);
  std::vector<std::thread> threads;
  for (std::size_t k = 0; k < wrong.size(); ++k)
    threads.emplace_back([&, k] {
      for (int round = 0; round < 2; ++round) wrong[k] += wrongValues(bundle);
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(wrong, std::vector<std::size_t>(3, 0));
}

TEST(KqChunks, OtherFilterChainsAndLayoutsAreReadThroughHdf5) {
  TempDir dir;
  auto bundle = BundlePtr::make();
  auto rep = (*bundle.create())[0.0]->makeGrid("Shots")->makeCartesianRepresentation(
      3, "ScannerCoordinateSystem", 0);
  storeFragment(*rep, "GPSTime", "Fragment_0", makeArray<double>({0.0}));
  const std::string file = dir.file("foreign.kq");
  ASSERT_EQ(Bundle::save(bundle, file, KqLayout::DatasetPerFragment), "");
  std::vector<double> values(25'000);
  for (std::size_t i = 0; i < values.size(); ++i) values[i] = timeAt(i);
  struct Case {
    const char* name;
    void (*filters)(hid_t);
    std::size_t written;
  };
  const Case cases[] = {
      {"deflate alone", [](hid_t p) { H5Pset_deflate(p, 6); }, values.size()},
      {"checksum, shuffle, deflate",
       [](hid_t p) { H5Pset_fletcher32(p), H5Pset_shuffle(p), H5Pset_deflate(p, 9); },
       values.size()},
      {"no filter", [](hid_t) {}, values.size()},
      {"unwritten chunks", [](hid_t p) { H5Pset_shuffle(p), H5Pset_deflate(p, 1); }, 12'345},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    hid_t create = H5Pcreate(H5P_DATASET_CREATE);
    const hsize_t chunk = 4'000;
    H5Pset_chunk(create, 1, &chunk);
    c.filters(create);
    rewriteTimes(file, values, create, c.written);
    H5Pclose(create);
    auto times = loadedTimes(file, "GPSTime");
    ASSERT_TRUE(times);
    ASSERT_EQ(times->size(), values.size());
    std::size_t wrong = 0;
    for (std::size_t i = 0; i < values.size(); ++i)
      wrong += times->get(i) != (i < c.written ? values[i] : 0.0);
    EXPECT_EQ(wrong, 0u);
  }
}

// Arrays of up to 8 KiB are stored compact (no chunk, no filter), larger ones chunked and
// deflated; both read back the same here and through plain HDF5, and small arrays stored
// chunked, as earlier files have them, still read.
TEST(KqChunks, SmallArraysAreCompactLargerOnesChunkedAndBothReadBack) {
  TempDir dir;
  auto bundle = BundlePtr::make();
  auto rep = (*bundle.create())[0.0]->makeGrid("Shots")->makeCartesianRepresentation(
      3, "ScannerCoordinateSystem", 0);
  const std::size_t sizes[] = {1, 1024, 1025};  // 8, 8192 and 8200 bytes
  for (std::size_t n : sizes) {
    auto times = Vorlap::makeStrong<MemArray<1, double>>(n);
    for (std::size_t i = 0; i < n; ++i) times->set(i, timeAt(i));
    storeFragment(*rep, "T" + std::to_string(n), "Fragment_0", times);
  }
  storeFragment(*rep, "GPSTime", "Fragment_0", makeArray<double>({0.0}));
  const std::string file = dir.file("small.kq");
  ASSERT_EQ(Bundle::save(bundle, file, KqLayout::DatasetPerFragment), "");
  auto check = [&](const std::string& field, std::size_t n, H5D_layout_t layout) {
    SCOPED_TRACE(field);
    auto times = loadedTimes(file, field);
    ASSERT_TRUE(times);
    ASSERT_EQ(times->size(), n);
    std::vector<double> plain(n);
    hid_t f = H5Fopen(file.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
    hid_t set = H5Dopen2(f, (kFields + field + "/fragments/Fragment_0").c_str(), H5P_DEFAULT);
    hid_t create = H5Dget_create_plist(set);
    EXPECT_EQ(H5Pget_layout(create), layout);
    EXPECT_EQ(H5Pget_nfilters(create), layout == H5D_CHUNKED ? 2 : 0);
    EXPECT_GE(H5Dread(set, H5T_NATIVE_DOUBLE, H5S_ALL, H5S_ALL, H5P_DEFAULT, plain.data()), 0);
    H5Pclose(create), H5Dclose(set), H5Fclose(f);
    std::size_t wrong = 0;
    for (std::size_t i = 0; i < n; ++i)
      wrong += times->get(i) != timeAt(i) || plain[i] != timeAt(i);
    EXPECT_EQ(wrong, 0u);
  };
  check("T1", 1, H5D_COMPACT);
  check("T1024", 1024, H5D_COMPACT);
  check("T1025", 1025, H5D_CHUNKED);
  // A small array in one deflated chunk, as earlier files store it.
  std::vector<double> values(300);
  for (std::size_t i = 0; i < values.size(); ++i) values[i] = timeAt(i);
  hid_t create = H5Pcreate(H5P_DATASET_CREATE);
  const hsize_t chunk = values.size();
  H5Pset_chunk(create, 1, &chunk);
  H5Pset_shuffle(create), H5Pset_deflate(create, 1);
  rewriteTimes(file, values, create, values.size());
  H5Pclose(create);
  auto times = loadedTimes(file, "GPSTime");
  ASSERT_TRUE(times && times->size() == values.size());
  EXPECT_EQ(times->get(299), timeAt(299));
}
