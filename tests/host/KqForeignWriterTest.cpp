// .kq files as other writers (h5py above all) produce them: integer attributes of any width,
// fixed-length strings, scalar attributes, left-out attribute groups; and the messages for
// what still cannot be read, naming the attribute, the type found and the types accepted.
#include <gtest/gtest.h>
#include <hdf5.h>

#include <cstdint>

#include "support/Arrays.hpp"
#include "support/TempDir.hpp"
#include "tessal/Bundle.hpp"
#include "vorlap/Console.hpp"

using namespace Tessal;
using namespace quillo::test;

namespace {

const std::string kGridAttributes = "/slices/0/grids/Shots/attributes";
const std::string kFragment =
    "/slices/0/grids/Shots/charts/ScannerCoordinateSystem/fields/GPSTime/fragments/Fragment_0";

std::string savedFile(const TempDir& dir) {
  auto bundle = BundlePtr::make();
  auto shots = (*bundle.create())[0.0]->makeGrid("Shots");
  shots->attributes().setAttribute("Kept", Vorlap::makeChunk<int>({1}));
  auto rep = shots->makeCartesianRepresentation(3, "ScannerCoordinateSystem", 0);
  storeFragment(*rep, "GPSTime", "Fragment_0", makeArray<double>({1.0, 2.0}));
  const std::string file = dir.file("a.kq");
  EXPECT_EQ(Bundle::save(bundle, file, KqLayout::DatasetPerFragment), "");
  return file;
}

// Opens the file for writing, hands `edit` the object at `path`, closes everything.
template <class Edit>
void editObject(const std::string& file, const std::string& path, Edit edit) {
  hid_t f = H5Fopen(file.c_str(), H5F_ACC_RDWR, H5P_DEFAULT);
  hid_t o = H5Oopen(f, path.c_str(), H5P_DEFAULT);
  edit(o);
  H5Oclose(o), H5Fclose(f);
}

template <class T>
void writeAttribute(hid_t owner, const char* name, hid_t type, std::vector<T> values,
                    bool scalar = false) {
  H5Adelete(owner, name);
  const hsize_t n = values.size();
  hid_t s = scalar ? H5Screate(H5S_SCALAR) : H5Screate_simple(1, &n, nullptr);
  hid_t a = H5Acreate2(owner, name, type, s, H5P_DEFAULT, H5P_DEFAULT);
  H5Awrite(a, type, values.data());
  H5Aclose(a), H5Sclose(s);
}

void writeFixedText(hid_t owner, const char* name, const std::string& padded, H5T_str_t pad) {
  H5Adelete(owner, name);
  hid_t t = H5Tcopy(H5T_C_S1);
  H5Tset_size(t, padded.size());
  H5Tset_strpad(t, pad);
  hid_t s = H5Screate(H5S_SCALAR);
  hid_t a = H5Acreate2(owner, name, t, s, H5P_DEFAULT, H5P_DEFAULT);
  H5Awrite(a, t, padded.data());
  H5Aclose(a), H5Sclose(s), H5Tclose(t);
}

struct Loaded {
  bool ok = false;
  std::string message;
  BundlePtr bundle = BundlePtr::make();
  const Vorlap::Attributes& shotAttributes() {
    double t = 0.0;
    return (*(*(*bundle.get())(t))("Shots")).attributes();
  }
};

Loaded load(const std::string& file, bool deferFragments = false) {
  Loaded l;
  Vorlap::ConsoleCapture capture;
  Bundle::load(l.ok, LoaderParameters({file}).checkFragmentsWhenUsed(deferFragments), l.bundle);
  l.message = capture.joined();
  return l;
}

}  // namespace

TEST(KqForeignWriter, IntegersOfAnyWidthAreReadWhenTheyFit) {
  TempDir dir;
  const std::string file = savedFile(dir);
  editObject(file, kGridAttributes, [](hid_t g) {
    writeAttribute<std::int64_t>(g, "Rate", H5T_NATIVE_INT64, {1000000}, true);
    writeAttribute<std::int64_t>(g, "Negative", H5T_NATIVE_INT64, {-5, 7});
    writeAttribute<std::int64_t>(g, "Large", H5T_NATIVE_INT64, {3000000000});
    writeAttribute<std::uint64_t>(g, "Block", H5T_NATIVE_UINT64, {200});
    writeAttribute<std::uint8_t>(g, "Small", H5T_NATIVE_UINT8, {255});
    writeAttribute<std::int16_t>(g, "Short", H5T_NATIVE_INT16, {-300});
  });
  Loaded l = load(file);
  ASSERT_TRUE(l.ok) << l.message;
  const auto& a = l.shotAttributes();
  EXPECT_EQ(a.getAttributeAs<int>("Rate")->values(), std::vector<int>{1000000});
  EXPECT_EQ(a.getAttributeAs<int>("Negative")->values(), (std::vector<int>{-5, 7}));
  EXPECT_EQ(a.getAttributeAs<unsigned>("Large")->values(), std::vector<unsigned>{3000000000u});
  EXPECT_EQ(a.getAttributeAs<int>("Block")->values(), std::vector<int>{200});
  EXPECT_EQ(a.getAttributeAs<unsigned>("Small")->values(), std::vector<unsigned>{255u});
  EXPECT_EQ(a.getAttributeAs<int>("Short")->values(), std::vector<int>{-300});
  EXPECT_EQ(a.getAttributeAs<int>("Kept")->values(), std::vector<int>{1});
}

TEST(KqForeignWriter, FixedLengthStringsLoseTheirPadding) {
  TempDir dir;
  const std::string file = savedFile(dir);
  editObject(file, kGridAttributes, [](hid_t g) {
    writeFixedText(g, "NullPadded", std::string("line-wise\0\0\0", 12), H5T_STR_NULLPAD);
    writeFixedText(g, "SpacePadded", "radial   ", H5T_STR_SPACEPAD);
  });
  editObject(file, kFragment, [](hid_t set) {
    writeFixedText(set, "element_type", "float64", H5T_STR_NULLTERM);
    writeAttribute<std::int64_t>(set, "rank", H5T_NATIVE_INT64, {1}, true);
  });
  Loaded l = load(file);
  ASSERT_TRUE(l.ok) << l.message;
  EXPECT_EQ((*l.shotAttributes().getAttributeAs<std::string>("NullPadded"))[0], "line-wise");
  EXPECT_EQ((*l.shotAttributes().getAttributeAs<std::string>("SpacePadded"))[0], "radial");
}

TEST(KqForeignWriter, LeftOutAttributeGroupsReadAsEmpty) {
  TempDir dir;
  const std::string file = savedFile(dir);
  hid_t f = H5Fopen(file.c_str(), H5F_ACC_RDWR, H5P_DEFAULT);
  H5Ldelete(f, kGridAttributes.c_str(), H5P_DEFAULT);
  H5Ldelete(f, "/slices/0/grids/Shots/charts/ScannerCoordinateSystem/fields/GPSTime/attributes",
            H5P_DEFAULT);
  H5Fclose(f);
  Loaded l = load(file);
  ASSERT_TRUE(l.ok) << l.message;
  EXPECT_TRUE(l.shotAttributes().empty());
}

struct RefusedCase {
  const char* name;
  std::string path;
  void (*edit)(hid_t);
  const char* message;
};

void PrintTo(const RefusedCase& c, std::ostream* os) {
  *os << c.name;
}

class KqForeignWriterRefused : public ::testing::TestWithParam<RefusedCase> {};

TEST_P(KqForeignWriterRefused, NamesWhatIsWrong) {
  TempDir dir;
  const std::string file = savedFile(dir);
  editObject(file, GetParam().path, GetParam().edit);
  Loaded l = load(file);
  EXPECT_FALSE(l.ok);
  EXPECT_NE(l.message.find(file + ": cannot load " + GetParam().path), std::string::npos)
      << l.message;
  EXPECT_NE(l.message.find(GetParam().message), std::string::npos) << l.message;
}

// A load that leaves the fragments for later refuses a broken one when it is first used,
// with the same words, and still reads the structure around it.
TEST_P(KqForeignWriterRefused, DeferredFragmentsSayWhatIsWrongWhenUsed) {
  TempDir dir;
  const std::string file = savedFile(dir);
  editObject(file, GetParam().path, GetParam().edit);
  Loaded l = load(file, true);
  if (GetParam().path != kFragment) {
    EXPECT_FALSE(l.ok) << "attributes are read at once";
    return;
  }
  ASSERT_TRUE(l.ok) << l.message;
  auto kept = l.shotAttributes().getAttributeAs<int>("Kept");
  ASSERT_TRUE(kept);
  EXPECT_EQ(kept->values(), std::vector<int>{1});
  double t = 0.0;
  auto field = (*(*(*l.bundle.get())(t))("Shots"))("GPSTime", "");
  ASSERT_EQ(field->getNumberOfFragments(), 1u);
  auto creator = field->getCreator(field->getFragmentIDCollection()->at(0));
  Vorlap::ConsoleCapture capture;
  EXPECT_EQ(creator->extents(), std::vector<std::size_t>{0});
  EXPECT_FALSE(creator->create());
  const std::string said = capture.joined();
  EXPECT_NE(said.find(file + ": cannot read " + kFragment + ": " + GetParam().message),
            std::string::npos)
      << said;
  EXPECT_EQ(said.find("cannot read", said.find("cannot read") + 1), std::string::npos)
      << "said once: " << said;
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Cases, KqForeignWriterRefused, ::testing::Values(
    RefusedCase{"IntegerTooWide", kGridAttributes, [](hid_t g) {
                  writeAttribute<std::int64_t>(g, "Rate", H5T_NATIVE_INT64, {5000000000}); },
                "attribute \"Rate\" of type 64-bit signed integer: value 5000000000 does not fit "
                "32 bits (accepted: integers of any width whose values fit 32 bits"},
    RefusedCase{"Compound", kGridAttributes, [](hid_t g) {
                  hid_t t = H5Tcreate(H5T_COMPOUND, 8);
                  H5Tinsert(t, "x", 0, H5T_NATIVE_DOUBLE);
                  writeAttribute<double>(g, "Pair", t, {1.0});
                  H5Tclose(t); },
                "attribute \"Pair\" of type compound: cannot be read (accepted:"},
    RefusedCase{"RankMissing", kFragment, [](hid_t set) { H5Adelete(set, "rank"); },
                "missing attribute \"rank\""},
    RefusedCase{"ElementTypeMissing", kFragment, [](hid_t set) { H5Adelete(set, "element_type"); },
                "missing attribute \"element_type\" (one of int8, uint8"},
    RefusedCase{"RankThree", kFragment, [](hid_t set) {
                  writeAttribute<std::int64_t>(set, "rank", H5T_NATIVE_INT64, {3}, true); },
                "rank must be 1 or 2, is 3"}),
    [](const auto& info) { return std::string(info.param.name); });
// clang-format on

// numpy's int64 for a uint8 field, float32 for float64: converted when every value fits.
TEST(KqForeignWriter, OtherNumberTypesAreConvertedWhenTheyFit) {
  TempDir dir;
  const std::string file = savedFile(dir);
  auto replaceFragment = [&](std::vector<std::int64_t> values, const char* elementType) {
    hid_t f = H5Fopen(file.c_str(), H5F_ACC_RDWR, H5P_DEFAULT);
    H5Ldelete(f, kFragment.c_str(), H5P_DEFAULT);
    const hsize_t n = values.size();
    hid_t s = H5Screate_simple(1, &n, nullptr);
    hid_t set = H5Dcreate2(f, kFragment.c_str(), H5T_NATIVE_INT64, s, H5P_DEFAULT, H5P_DEFAULT,
                           H5P_DEFAULT);
    H5Dwrite(set, H5T_NATIVE_INT64, H5S_ALL, H5S_ALL, H5P_DEFAULT, values.data());
    writeFixedText(set, "element_type", elementType, H5T_STR_NULLTERM);
    writeAttribute<std::int64_t>(set, "rank", H5T_NATIVE_INT64, {1}, true);
    H5Dclose(set), H5Sclose(s), H5Fclose(f);
  };
  auto fragmentData = [](Loaded& l) {
    double t = 0.0;
    auto field = (*(*(*l.bundle.get())(t))("Shots"))("GPSTime", "");
    return field->getCreator(field->getFragmentIDCollection()->at(0))->create();
  };
  // Each load keeps its file open until the bundle goes: one scope per file version.
  replaceFragment({0, 255, 7}, "uint8");
  {
    Loaded fits = load(file);
    ASSERT_TRUE(fits.ok) << fits.message;
    auto bytes = Vorlap::dynamicPtrCast<MemArray<1, std::uint8_t>>(fragmentData(fits));
    ASSERT_TRUE(bytes);
    EXPECT_EQ((std::vector<int>{bytes->get(0), bytes->get(1), bytes->get(2)}),
              (std::vector<int>{0, 255, 7}));
  }
  replaceFragment({-3, 1000000}, "float64");
  {
    Loaded widened = load(file);
    ASSERT_TRUE(widened.ok) << widened.message;
    auto doubles = Vorlap::dynamicPtrCast<MemArray<1, double>>(fragmentData(widened));
    ASSERT_TRUE(doubles);
    EXPECT_EQ(doubles->get(0), -3.0);
    EXPECT_EQ(doubles->get(1), 1000000.0);
  }
  replaceFragment({1, 300}, "uint8");
  Loaded tooLarge = load(file);
  ASSERT_TRUE(tooLarge.ok) << "values are read when asked for";
  Vorlap::ConsoleCapture capture;
  EXPECT_FALSE(fragmentData(tooLarge));
  EXPECT_NE(capture.joined().find(kFragment + ": value 300 (element 1) does not fit uint8"),
            std::string::npos)
      << capture.joined();
}
