// .kq files whose HDF5 content is damaged: huge declared shapes, shapes that do not fit
// their rank, attributes of types the data model has not. The file is refused whole, with a
// message naming the file and the object, before anything is allocated for it.
#include <gtest/gtest.h>
#include <hdf5.h>

#include <algorithm>
#include <array>

#include "robustness/Survey.hpp"
#include "support/TempDir.hpp"
#include "vorlap/Console.hpp"

using namespace quillo::test;

namespace {

const std::string kShotTimes =
    "/slices/0/grids/Shots/charts/ScannerCoordinateSystem/fields/GPSTime/fragments/Fragment_1";
const std::string kPositions =
    "/slices/0/grids/Shots/charts/ScannerCoordinateSystem/fields/Positions/fragments/Fragment_1";
const std::string kSamples =
    "/slices/0/grids/Waveforms/charts/ScannerCoordinateSystem/fields/Waveforms/fragments/"
    "Fragment_1";

void writeTextAttribute(hid_t owner, const char* name, const char* value) {
  hid_t t = H5Tcopy(H5T_C_S1);
  H5Tset_size(t, H5T_VARIABLE);
  hid_t s = H5Screate_simple(1, std::array<hsize_t, 1>{1}.data(), nullptr);
  hid_t a = H5Acreate2(owner, name, t, s, H5P_DEFAULT, H5P_DEFAULT);
  H5Awrite(a, t, &value);
  H5Aclose(a), H5Sclose(s), H5Tclose(t);
}

void writeIntAttribute(hid_t owner, const char* name, int value) {
  hid_t s = H5Screate(H5S_SCALAR);
  hid_t a = H5Acreate2(owner, name, H5T_NATIVE_INT, s, H5P_DEFAULT, H5P_DEFAULT);
  H5Awrite(a, H5T_NATIVE_INT, &value);
  H5Aclose(a), H5Sclose(s);
}

// Replaces the dataset at `path` by an unwritten chunked one of the given shape.
struct Declared {
  std::string path;
  const char* elementType;
  int rank;
  std::vector<hsize_t> dims;
  hid_t storedType;
};

void declare(const std::string& file, const Declared& d) {
  hid_t f = H5Fopen(file.c_str(), H5F_ACC_RDWR, H5P_DEFAULT);
  H5Ldelete(f, d.path.c_str(), H5P_DEFAULT);
  std::vector<hsize_t> chunk(d.dims.size(), 1);
  chunk[0] = std::min<hsize_t>(1024, d.dims[0]);
  hid_t p = H5Pcreate(H5P_DATASET_CREATE);
  H5Pset_chunk(p, int(chunk.size()), chunk.data());
  hid_t s = H5Screate_simple(int(d.dims.size()), d.dims.data(), nullptr);
  hid_t set = H5Dcreate2(f, d.path.c_str(), d.storedType, s, H5P_DEFAULT, p, H5P_DEFAULT);
  writeTextAttribute(set, "element_type", d.elementType);
  writeIntAttribute(set, "rank", d.rank);
  H5Dclose(set), H5Sclose(s), H5Pclose(p), H5Fclose(f);
}

std::string savedSurvey(const TempDir& dir) {
  const std::string file = dir.file("survey_210315_093000.kq");
  EXPECT_EQ(
      Tessal::Bundle::save(makeBundle(healthySurvey()), file, Tessal::KqLayout::DatasetPerFragment),
      "");
  return file;
}

// The console message of a load, empty when the file loaded.
std::string loadMessage(const std::string& file) {
  Vorlap::ConsoleCapture capture;
  auto bundle = Tessal::BundlePtr::make();
  bool ok = false;
  Tessal::Bundle::load(ok, Tessal::LoaderParameters({file}), bundle);
  EXPECT_EQ(ok, capture.messages().empty()) << capture.joined();
  EXPECT_EQ(ok, !(*bundle.get()).slices().empty()) << "a refused file adds nothing";
  return capture.joined();
}

struct DamageCase {
  const char* name;
  Declared declared;
  const char* problem;
};

void PrintTo(const DamageCase& c, std::ostream* os) {
  *os << c.name;
}

class DamagedFile : public ::testing::TestWithParam<DamageCase> {};

}  // namespace

TEST_P(DamagedFile, IsRefusedWholeWithFileAndObjectNamed) {
  TempDir dir;
  const std::string file = savedSurvey(dir);
  declare(file, GetParam().declared);
  const std::string message = loadMessage(file);
  EXPECT_NE(
      message.find(file + ": cannot load " + GetParam().declared.path + ": " + GetParam().problem),
      std::string::npos)
      << message;
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Cases, DamagedFile, ::testing::Values(
    DamageCase{"BillionsOfShotTimes", {kShotTimes, "float64", 1, {hsize_t(1) << 40}, H5T_NATIVE_DOUBLE},
               "declares an absurd number of elements"},
    DamageCase{"RowsTimesSamplesTooMany", {kSamples, "uint16", 2, {hsize_t(1) << 20, 1u << 12}, H5T_NATIVE_UINT16},
               "declares an absurd number of elements"},
    DamageCase{"DeclaredButNeverWritten", {kShotTimes, "float64", 1, {hsize_t(1) << 30}, H5T_NATIVE_DOUBLE},
               "declares 1073741824 elements but stores only 0 bytes"},
    DamageCase{"RankThree", {kShotTimes, "float64", 3, {240}, H5T_NATIVE_DOUBLE},
               "rank must be 1 or 2"},
    DamageCase{"RankNotMatchingShape", {kShotTimes, "float64", 1, {240, 2}, H5T_NATIVE_DOUBLE},
               "shape does not match its rank"},
    DamageCase{"PointsOfTwoComponents", {kPositions, "point3", 1, {240, 2}, H5T_NATIVE_DOUBLE},
               "points and vectors need 3 components"},
    DamageCase{"UnknownElementType", {kShotTimes, "float128", 1, {240}, H5T_NATIVE_DOUBLE},
               "unknown element type"},
    DamageCase{"StoredAsText", {kShotTimes, "float64", 1, {240}, H5T_C_S1},
               "stored values are not of type float64 but fixed-length string"}),
    [](const auto& info) { return std::string(info.param.name); });
// clang-format on

TEST(DamagedFile, AttributeOfAnUnreadableTypeIsNamed) {
  TempDir dir;
  const std::string file = savedSurvey(dir);
  hid_t f = H5Fopen(file.c_str(), H5F_ACC_RDWR, H5P_DEFAULT);
  hid_t g = H5Gopen2(f, "/slices/0/grids/Shots/attributes", H5P_DEFAULT);
  hid_t s = H5Screate(H5S_SCALAR);
  const long long rate = 5000000000;  // wider integers are read when they fit 32 bits
  hid_t a = H5Acreate2(g, "PulseRepetitionRate64", H5T_NATIVE_LLONG, s, H5P_DEFAULT, H5P_DEFAULT);
  H5Awrite(a, H5T_NATIVE_LLONG, &rate);
  H5Aclose(a), H5Sclose(s), H5Gclose(g), H5Fclose(f);
  EXPECT_NE(
      loadMessage(file).find("attribute \"PulseRepetitionRate64\" of type 64-bit signed integer: "
                             "value 5000000000 does not fit 32 bits"),
      std::string::npos);
}

TEST(DamagedFile, AnUndamagedFileRunsLikeTheBundle) {
  TempDir dir;
  const std::string file = savedSurvey(dir);
  EXPECT_EQ(loadMessage(file), "");
  auto bundle = Tessal::BundlePtr::make();
  bool ok = false;
  Tessal::Bundle::load(ok, Tessal::LoaderParameters({file}), bundle);
  const Outcome fromFile = runModule(bundle);
  const Outcome inMemory = runModule(makeBundle(healthySurvey()));
  EXPECT_EQ(fromFile.result, "");
  EXPECT_EQ(fromFile.total(), inMemory.total());
}
