// The layout with one dataset per field: every element type and rank round trips through a
// whole and a streaming save, with fragments that end inside, just before and just after a
// chunk; fragments are read by their rows in any order and from several threads; files of
// the older layout are still read; broken tables and cut datasets are refused by name.
#include <gtest/gtest.h>
#include <hdf5.h>

#include <thread>

#include "kq/ChunkCodec.hpp"
#include "kq/KqFieldWriter.hpp"
#include "support/Arrays.hpp"
#include "support/BundleCompare.hpp"
#include "support/TempDir.hpp"
#include "tessal/Bundle.hpp"
#include "vorlap/Console.hpp"

using namespace Tessal;
using namespace quillo::test;
using Gemwold::PhysicalSpace::point;
using Gemwold::PhysicalSpace::vector;

namespace {

const std::string kFields = "/slices/0/grids/G/charts/C/fields/";

template <class T>
T valueAt(std::size_t k, int seed) {
  if constexpr (std::is_same_v<T, point> || std::is_same_v<T, vector>)
    return T{double(k), -double(k % 1000), 0.25 * seed};
  else if constexpr (std::is_floating_point_v<T>)
    return T(double(k) * 0.5 + seed);
  else
    return T((k * 37 + std::size_t(seed)) % 251);
}

// `rows` rows of `width` values (rank 1 when width is 0).
template <class T>
Vorlap::StrongPtr<MemBase> filled(std::size_t rows, std::size_t width, int seed) {
  if (width == 0) {
    auto a = Vorlap::makeStrong<MemArray<1, T>>(rows);
    for (std::size_t k = 0; k < rows; ++k) a->set(k, valueAt<T>(k, seed));
    return a;
  }
  auto a = Vorlap::makeStrong<MemArray<2, T>>(typename MemArray<2, T>::Extents{width, rows});
  for (std::size_t k = 0; k < a->size(); ++k) a->set(k, valueAt<T>(k, seed));
  return a;
}

struct FieldCase {
  std::string name;
  std::size_t rowValues;  // numbers per row, for the chunk's rows
  Vorlap::StrongPtr<MemBase> (*make)(std::size_t rows, std::size_t width, int seed);
  std::size_t width = 0;
};

std::vector<FieldCase> fieldCases() {
  return {{"i8", 1, filled<std::int8_t>},
          {"u8", 1, filled<std::uint8_t>},
          {"i16", 1, filled<std::int16_t>},
          {"u16", 1, filled<std::uint16_t>},
          {"i32", 1, filled<std::int32_t>},
          {"u32", 1, filled<std::uint32_t>},
          {"i64", 1, filled<std::int64_t>},
          {"u64", 1, filled<std::uint64_t>},
          {"f32", 1, filled<float>},
          {"f64", 1, filled<double>},
          {"point", 3, filled<point>},
          {"vector", 3, filled<vector>},
          {"wave", 7, filled<std::uint16_t>, 7},
          {"rows", 3, filled<float>, 3}};
}

// Fragment `f` of every field: 0, 1, chunk - 1 and chunk + 1 rows for f = 0 to 3.
void addFragments(Representation& rep, int f) {
  for (const auto& c : fieldCases()) {
    const std::size_t chunk = kq::kFieldChunkValues / c.rowValues;
    const std::size_t rows[4] = {0, 1, chunk - 1, chunk + 1};
    storeFragment(rep, c.name, "F" + std::to_string(f), c.make(rows[f], c.width, f));
  }
}

BundlePtr everyTypeBundle() {
  auto bundle = BundlePtr::make();
  auto rep = (*bundle.create())[0.0]->makeGrid("G")->makeCartesianRepresentation(3, "C", 0);
  for (int f = 0; f < 4; ++f) addFragments(*rep, f);
  return bundle;
}

BundlePtr load(const std::string& file, bool& ok) {
  BundlePtr b = BundlePtr::make();
  Bundle::load(ok, LoaderParameters({file}), b);
  return b;
}

long long rootVersion(const std::string& file) {
  hid_t f = H5Fopen(file.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
  hid_t a = H5Aopen(f, "kq_version", H5P_DEFAULT);
  long long v = 0;
  H5Aread(a, H5T_NATIVE_LLONG, &v);
  H5Aclose(a), H5Fclose(f);
  return v;
}

// A fresh array of `values` at every read, as a file's creator makes them: only the save holds
// it while it appends its rows. Every second element of a twice-as-long block when `strided`.
class FreshEachRead final : public CreativeArrayBase {
 public:
  FreshEachRead(std::vector<double> values, bool strided)
      : values_(std::move(values)), strided_(strided) {}
  ElementType elementType() const override { return ElementTraits<double>::type; }
  std::vector<std::size_t> extents() const override { return {values_.size()}; }

 protected:
  Vorlap::StrongPtr<MemBase> produce() override {
    using Array = MemArray<1, double>;
    const std::size_t stride = strided_ ? 2 : 1;
    auto block = Vorlap::makeStrong<DataBlock<double>>();
    block->values.assign(values_.size() * stride, -1.0);
    for (std::size_t k = 0; k < values_.size(); ++k) block->values[k * stride] = values_[k];
    return Vorlap::makeStrong<Array>(Array::Extents{values_.size()}, block, 0, stride);
  }

 private:
  std::vector<double> values_;
  bool strided_;
};

}  // namespace

TEST(KqFieldLayout, EveryTypeAndRankRoundTripsAcrossChunkEdges) {
  TempDir dir;
  const BundlePtr made = everyTypeBundle();
  ASSERT_EQ(Bundle::save(made, dir.file("whole.kq")), "");
  EXPECT_EQ(rootVersion(dir.file("whole.kq")), 2);
  bool ok = false;
  BundlePtr back = load(dir.file("whole.kq"), ok);
  ASSERT_TRUE(ok);
  EXPECT_EQ(firstDifference(made, back), "");
  // A streaming save, written after each fragment, stores the same values.
  auto streamed = BundlePtr::make();
  {
    StreamingSave save(streamed, dir.file("streamed.kq"));
    auto rep = (*streamed.create())[0.0]->makeGrid("G")->makeCartesianRepresentation(3, "C", 0);
    for (int f = 0; f < 4; ++f) {
      addFragments(*rep, f);
      ASSERT_EQ(save.write(), "");
    }
    ASSERT_EQ(save.finish(), "");
  }
  EXPECT_EQ(firstFileDifference(dir.file("whole.kq"), dir.file("streamed.kq")), "");
  // Fragments read last to first (each from the chunks it overlaps) hold the same values.
  BundlePtr again = load(dir.file("whole.kq"), ok);
  for (const auto& entry : (*(*again.get())[0.0])("G")->representations()[0]->fields()) {
    auto ids = entry.field->getFragmentIDCollection();
    for (std::size_t f = ids->size(); f-- > 0;)
      ASSERT_TRUE(entry.field->getCreator(ids->at(f))->create()) << entry.field->getName();
  }
  EXPECT_EQ(firstDifference(made, again), "");
}

TEST(KqFieldLayout, OneDatasetPerFieldWithItsTable) {
  TempDir dir;
  ASSERT_EQ(Bundle::save(everyTypeBundle(), dir.file("a.kq")), "");
  hid_t f = H5Fopen(dir.file("a.kq").c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
  hid_t rows = H5Dopen2(f, (kFields + "point/fragment_rows").c_str(), H5P_DEFAULT);
  std::vector<unsigned long long> offsets(5);
  EXPECT_GE(H5Dread(rows, H5T_NATIVE_ULLONG, H5S_ALL, H5S_ALL, H5P_DEFAULT, offsets.data()), 0);
  const unsigned long long chunk = kq::kFieldChunkValues / 3;
  EXPECT_EQ(offsets, (std::vector<unsigned long long>{0, 0, 1, chunk, 2 * chunk + 1}));
  hid_t values = H5Dopen2(f, (kFields + "point/values").c_str(), H5P_DEFAULT);
  hid_t space = H5Dget_space(values);
  hsize_t dims[2] = {0, 0};
  H5Sget_simple_extent_dims(space, dims, nullptr);
  EXPECT_EQ(dims[0], 2 * chunk + 1);
  EXPECT_EQ(dims[1], 3u);
  EXPECT_EQ(H5Lexists(f, (kFields + "point/fragments").c_str(), H5P_DEFAULT), 0);
  H5Sclose(space), H5Dclose(values), H5Dclose(rows), H5Fclose(f);
}

// Names stored fixed-length (padded to the longest) read back as they were, and so do names
// of very unequal lengths, which stay variable-length.
TEST(KqFieldLayout, FragmentNamesRoundTripFixedOrVariable) {
  const auto namesStored = [](const std::vector<std::string>& names, bool& variable) {
    TempDir dir;
    auto made = BundlePtr::make();
    auto rep = (*made.create())[0.0]->makeGrid("G")->makeCartesianRepresentation(3, "C", 0);
    for (std::size_t i = 0; i < names.size(); ++i)
      storeFragment(*rep, "f", names[i], filled<float>(i % 3, 0, int(i)));
    EXPECT_EQ(Bundle::save(made, dir.file("n.kq")), "");
    hid_t f = H5Fopen(dir.file("n.kq").c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
    hid_t set = H5Dopen2(f, (kFields + "f/fragment_names").c_str(), H5P_DEFAULT);
    hid_t type = H5Dget_type(set);
    variable = H5Tis_variable_str(type) > 0;
    H5Tclose(type), H5Dclose(set), H5Fclose(f);
    bool ok = false;
    BundlePtr back = load(dir.file("n.kq"), ok);
    EXPECT_TRUE(ok);
    EXPECT_EQ(firstDifference(made, back), "");
  };
  bool variable = true;
  namesStored({"F0", "Fl\u00e4che 12", "", "a"}, variable);
  EXPECT_FALSE(variable);
  std::vector<std::string> unequal;
  for (int i = 0; i < 40; ++i) unequal.push_back("F" + std::to_string(i));
  unequal[7] = std::string(100000, 'x');
  namesStored(unequal, variable);
  EXPECT_TRUE(variable);
}

TEST(KqFieldLayout, FilesOfTheOlderLayoutAreStillRead) {
  TempDir dir;
  const BundlePtr made = everyTypeBundle();
  ASSERT_EQ(Bundle::save(made, dir.file("old.kq"), KqLayout::DatasetPerFragment), "");
  EXPECT_EQ(rootVersion(dir.file("old.kq")), 1);
  hid_t f = H5Fopen(dir.file("old.kq").c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
  EXPECT_GT(H5Lexists(f, (kFields + "wave/fragments/F3").c_str(), H5P_DEFAULT), 0);
  H5Fclose(f);
  ASSERT_EQ(Bundle::save(made, dir.file("new.kq")), "");
  EXPECT_EQ(firstFileDifference(dir.file("old.kq"), dir.file("new.kq")), "");
}

// Fragments of one field read at once by threads of their own, each keeping its last chunk.
TEST(KqFieldLayout, CopiesForOtherThreadsReadNeighbouringFragments) {
  TempDir dir;
  auto made = BundlePtr::make();
  auto rep = (*made.create())[0.0]->makeGrid("G")->makeCartesianRepresentation(3, "C", 0);
  for (int f = 0; f < 300; ++f)
    storeFragment(*rep, "T", "F" + std::to_string(f),
                  filled<double>(std::size_t(f % 7) * 50, 0, f));
  ASSERT_EQ(Bundle::save(made, dir.file("a.kq")), "");
  bool ok = false;
  BundlePtr loaded = load(dir.file("a.kq"), ok);
  ASSERT_TRUE(ok);
  std::vector<BundlePtr> copies{copyForAnotherThread(loaded), copyForAnotherThread(loaded)};
  std::vector<std::string> differences(2);
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t)
    threads.emplace_back([&, t] { differences[t] = firstDifference(made, copies[t]); });
  for (auto& t : threads) t.join();
  EXPECT_EQ(differences, (std::vector<std::string>{"", ""}));
}

// Fields naming the same fragments in the same order share their identifiers once loaded,
// and so do the copies for other threads; a field naming them in another order keeps its
// own, and every fragment reads back where it was.
TEST(KqFieldLayout, FieldsNamedAlikeShareTheirFragmentIdentifiers) {
  TempDir dir;
  auto made = BundlePtr::make();
  auto rep = (*made.create())[0.0]->makeGrid("G")->makeCartesianRepresentation(3, "C", 0);
  for (int f = 0; f < 50; ++f) {
    storeFragment(*rep, "a", "F" + std::to_string(f), filled<double>(std::size_t(f % 5), 0, f));
    storeFragment(*rep, "b", "F" + std::to_string(f), filled<float>(std::size_t(f % 3), 0, f));
  }
  for (int f = 49; f >= 0; --f)
    storeFragment(*rep, "c", "F" + std::to_string(f), filled<double>(1, 0, -f));
  ASSERT_EQ(Bundle::save(made, dir.file("s.kq")), "");
  bool ok = false;
  BundlePtr loaded = load(dir.file("s.kq"), ok);
  ASSERT_TRUE(ok);
  const BundlePtr copy = copyForAnotherThread(loaded);
  EXPECT_EQ(firstDifference(made, loaded), "");
  EXPECT_EQ(firstDifference(made, copy), "");
  const auto idsOf = [](const BundlePtr& bundle, const char* field) {
    double time = 0.0;
    return (*(*(*bundle.get())(time))("G"))(field, "")->getFragmentIDCollection();
  };
  const auto a = idsOf(loaded, "a"), b = idsOf(loaded, "b"), c = idsOf(loaded, "c");
  ASSERT_EQ(b->size(), 50u);
  for (std::size_t f = 0; f < 50; ++f) {
    EXPECT_EQ(b->at(f).get(), a->at(f).get());
    EXPECT_EQ(idsOf(copy, "b")->at(f).get(), a->at(f).get());
    EXPECT_EQ(c->at(f)->getName(), "F" + std::to_string(49 - f));
    EXPECT_EQ(c->indexOfName(a->at(f)->getName()), 49 - f);
  }
  EXPECT_NE(c->at(49).get(), a->at(0).get());
}

// A field saved in two charts is deflated once: its chunks are stored alike. A chunk that
// differs in one byte, away from the bytes compared first, keeps its own values.
TEST(KqFieldLayout, ChunksOfEqualValuesArePackedOnce) {
  std::vector<float> values(2 * kq::kFieldChunkValues), other;
  for (std::size_t k = 0; k < values.size(); ++k) values[k] = valueAt<float>(k % 977, 1);
  other = values;
  other[kq::kFieldChunkValues + 5] += 1.0f;
  const auto rowsOf = [](const std::vector<float>& v) {
    return kq::StoredRows{
        ElementType::Float, 1, {v.size()}, reinterpret_cast<const unsigned char*>(v.data())};
  };
  kq::FieldValuesWriter a("a"), b("b"), c("c");
  for (auto [w, v] : {std::pair{&a, &values}, std::pair{&b, &values}, std::pair{&c, &other}})
    ASSERT_EQ(w->append("F", rowsOf(*v)), "");
  kq::packChunks({&a, &b, &c}, 2);
  const std::size_t chunkBytes = kq::kFieldChunkValues * sizeof(float);
  for (std::size_t k = 0; k < 2; ++k) {
    ASSERT_TRUE(a.isPacked(k) && b.isPacked(k) && c.isPacked(k));
    EXPECT_EQ(a.chunkBytes(k), b.chunkBytes(k));
    std::vector<float> back(kq::kFieldChunkValues);
    for (auto [w, v] : {std::pair{&a, &values}, std::pair{&c, &other}}) {
      const auto& stored = w->chunkBytes(k);
      ASSERT_TRUE(kq::decodeChunk(stored.data(), stored.size(), sizeof(float), true,
                                  reinterpret_cast<unsigned char*>(back.data()), chunkBytes));
      EXPECT_TRUE(std::equal(back.begin(), back.end(), v->begin() + k * back.size()));
    }
  }
  EXPECT_EQ(a.chunkBytes(0), c.chunkBytes(0));
  EXPECT_NE(a.chunkBytes(1), c.chunkBytes(1));
}

TEST(KqFieldLayout, FragmentsThatDoNotFitTheirFieldAreNotSaved) {
  TempDir dir;
  auto bundle = BundlePtr::make();
  auto rep = (*bundle.create())[0.0]->makeGrid("G")->makeCartesianRepresentation(3, "C", 0);
  storeFragment(*rep, "W", "F0", filled<std::uint16_t>(2, 4, 0));
  storeFragment(*rep, "W", "F1", filled<std::uint16_t>(0, 9, 0));  // empty: takes any width
  storeFragment(*rep, "W", "F2", filled<std::uint16_t>(2, 5, 0));
  const std::string error = Bundle::save(bundle, dir.file("w.kq"));
  EXPECT_NE(error.find("fragment \"F2\" of field \"W\" holds rows of 5"), std::string::npos)
      << error;
  storeFragment(*rep, "W", "F2", filled<float>(2, 4, 0));
  const std::string typed = Bundle::save(bundle, dir.file("w.kq"));
  EXPECT_NE(typed.find("is of type float32"), std::string::npos) << typed;
  EXPECT_FALSE(std::filesystem::exists(dir.file("w.kq")));
}

// Edits of the table and the values through HDF5: each refused with the file, the dataset
// and the problem named.
TEST(KqFieldLayout, BrokenTablesAndCutValuesAreRefused) {
  TempDir dir;
  auto bundle = BundlePtr::make();
  auto rep = (*bundle.create())[0.0]->makeGrid("G")->makeCartesianRepresentation(3, "C", 0);
  for (int f = 0; f < 3; ++f)
    storeFragment(*rep, "T", "F" + std::to_string(f), filled<double>(40000, 0, f));
  ASSERT_EQ(Bundle::save(bundle, dir.file("good.kq")), "");
  auto edited = [&](const std::string& name, auto edit) {
    const std::string file = dir.file(name + ".kq");
    std::filesystem::copy_file(dir.file("good.kq"), file);
    hid_t f = H5Fopen(file.c_str(), H5F_ACC_RDWR, H5P_DEFAULT);
    edit(f);
    H5Fclose(f);
    return file;
  };
  auto setOffsets = [](std::vector<long long> offsets) {
    return [offsets](hid_t f) {
      const std::string path = kFields + "T/fragment_rows";
      H5Ldelete(f, path.c_str(), H5P_DEFAULT);
      const hsize_t n = offsets.size();
      hid_t s = H5Screate_simple(1, &n, nullptr);
      hid_t d =
          H5Dcreate2(f, path.c_str(), H5T_STD_I64LE, s, H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT);
      H5Dwrite(d, H5T_NATIVE_LLONG, H5S_ALL, H5S_ALL, H5P_DEFAULT, offsets.data());
      H5Dclose(d), H5Sclose(s);
    };
  };
  auto expectRefused = [&](const std::string& file, const std::string& object,
                           const std::string& words) {
    Vorlap::ConsoleCapture capture;
    bool ok = true;
    load(file, ok);
    EXPECT_FALSE(ok) << file;
    const std::string said = capture.joined();
    EXPECT_NE(said.find(file), std::string::npos) << said;
    EXPECT_NE(said.find(kFields + "T/" + object), std::string::npos) << said;
    EXPECT_NE(said.find(words), std::string::npos) << said;
  };
  expectRefused(edited("down", setOffsets({0, 50000, 40000, 120000})), "fragment_rows",
                "not increasing: fragment \"F1\" starts at row 50000 and ends at row 40000");
  expectRefused(edited("past", setOffsets({0, 40000, 80000, 130000})), "fragment_rows",
                "run past the end of the values (120000 rows): fragment \"F2\"");
  expectRefused(edited("short", setOffsets({0, 40000, 80000})), "fragment_rows",
                "3 row offsets for 3 fragments");
  expectRefused(edited("negative", setOffsets({-5, 40000, 80000, 120000})), "fragment_rows",
                "starts at row -5");
  auto setNames = [](std::vector<const char*> names) {
    return [names](hid_t f) {
      const std::string path = kFields + "T/fragment_names";
      H5Ldelete(f, path.c_str(), H5P_DEFAULT);
      const hsize_t n = names.size();
      hid_t s = H5Screate_simple(1, &n, nullptr), t = H5Tcopy(H5T_C_S1);
      H5Tset_size(t, H5T_VARIABLE);
      hid_t d = H5Dcreate2(f, path.c_str(), t, s, H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT);
      H5Dwrite(d, t, H5S_ALL, H5S_ALL, H5P_DEFAULT, names.data());
      H5Dclose(d), H5Tclose(t), H5Sclose(s);
    };
  };
  // The second of two equal names is the one named, wherever the first stands.
  expectRefused(edited("twiceLast", setNames({"F2", "F1", "F2"})), "fragment_rows",
                "fragment \"F2\" is listed twice");
  expectRefused(edited("twiceNext", setNames({"F0", "F0", "F2"})), "fragment_rows",
                "fragment \"F0\" is listed twice");
  // Faults are reported in fragment order: the offsets of F1 before the repeat in F2.
  expectRefused(edited("twiceAndDown",
                       [&](hid_t f) {
                         setNames({"F0", "F1", "F0"})(f);
                         setOffsets({0, 50000, 40000, 120000})(f);
                       }),
                "fragment_rows", "not increasing: fragment \"F1\"");
  expectRefused(edited("cut",
                       [](hid_t f) {
                         hid_t d = H5Dopen2(f, (kFields + "T/values").c_str(), H5P_DEFAULT);
                         const hsize_t rows = 100000;
                         H5Dset_extent(d, &rows);
                         H5Dclose(d);
                       }),
                "fragment_rows", "fragment \"F2\" ends at row 120000");
  expectRefused(edited("untyped",
                       [](hid_t f) {
                         H5Adelete_by_name(f, (kFields + "T/values").c_str(), "rank", H5P_DEFAULT);
                       }),
                "values", "missing attribute \"rank\"");
  expectRefused(
      edited("nameless",
             [](hid_t f) { H5Ldelete(f, (kFields + "T/fragment_names").c_str(), H5P_DEFAULT); }),
      "fragment_names", "missing dataset");
}

// Arrays made for the save alone, in one plain block (appended in place) or strided (copied),
// come back as they were made.
TEST(KqFieldLayout, ArraysMadeOnlyForTheSaveKeepTheirValues) {
  TempDir dir;
  auto bundle = BundlePtr::make();
  auto made = (*bundle.create())[0.0]->makeGrid("G");
  auto rep = made->makeCartesianRepresentation(3, "C", 0);
  for (int f = 0; f < 3; ++f)
    for (const bool strided : {false, true}) {
      const std::string field = strided ? "strided" : "plain", name = "F" + std::to_string(f);
      storeFragment(*rep, field, name, filled<double>(1, 0, 0));
      std::vector<double> values(1000 + 40000 * std::size_t(f));
      for (std::size_t k = 0; k < values.size(); ++k) values[k] = valueAt<double>(k, f);
      auto created = (*made)(field, "C");
      created->setCreator(created->getFragmentIDCollection()->findFragmentIDByName(name),
                          Vorlap::makeStrong<FreshEachRead>(values, strided));
    }
  ASSERT_EQ(Bundle::save(bundle, dir.file("made.kq")), "");
  bool ok = false;
  BundlePtr back = load(dir.file("made.kq"), ok);
  ASSERT_TRUE(ok);
  auto grid = (*(*back.get())[0.0])("G");
  for (const char* name : {"plain", "strided"})
    for (int f = 0; f < 3; ++f) {
      auto field = (*grid)(name, "C");
      ASSERT_TRUE(field) << name;
      auto id = field->getFragmentIDCollection()->findFragmentIDByName("F" + std::to_string(f));
      auto read = Vorlap::dynamicPtrCast<MemArray<1, double>>(field->getCreator(id)->create());
      ASSERT_TRUE(read) << name << f;
      ASSERT_EQ(read->size(), 1000 + 40000 * std::size_t(f));
      for (std::size_t k = 0; k < read->size(); ++k)
        ASSERT_EQ(read->get(k), valueAt<double>(k, f)) << name << f << " " << k;
    }
}
