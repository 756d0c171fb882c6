// Reading one grid's attributes and fragment counts straight from a saved file, in both
// layouts, and what the probe makes of files that are not what it looks for.
#include <gtest/gtest.h>
#include <hdf5.h>

#include "support/Arrays.hpp"
#include "support/TempDir.hpp"
#include "tessal/Bundle.hpp"
#include "tessal/GridProbe.hpp"

using namespace quillo::test;
using Gemwold::PhysicalSpace::point;

namespace {

const std::vector<std::string> kCharts = {"Map", "Scanner", "Absent"};

// Grid "FWF" with `mapFragments` and `scannerFragments` fragments of "Positions" in two
// charts (a chart with none has no field), a text attribute and a slice at `time`.
std::string write(const TempDir& dir, const std::string& name, Tessal::KqLayout layout,
                  int mapFragments, int scannerFragments, double time = 0.0) {
  auto bundle = Tessal::BundlePtr::make();
  auto grid = (*bundle.create())[time]->makeGrid("FWF");
  grid->attributes().setAttribute("Mark", Vorlap::makeChunk<std::string>({"yes"}));
  const std::pair<const char*, int> charts[] = {{"Map", mapFragments},
                                                {"Scanner", scannerFragments}};
  for (const auto& [chart, fragments] : charts) {
    auto rep = grid->makeCartesianRepresentation(3, chart, 0);
    for (int f = 0; f < fragments; ++f)
      storeFragment(*rep, "Positions", "Fragment_" + std::to_string(f),
                    makeArray<point>({{1, 2, 3}, {4, 5, 6}}));
  }
  const std::string file = dir.file(name);
  EXPECT_EQ(Tessal::Bundle::save(bundle, file, layout), "");
  return file;
}

}  // namespace

TEST(KqGridProbe, CountsFragmentsAndReadsAttributesInBothLayouts) {
  TempDir dir;
  for (auto layout : {Tessal::KqLayout::DatasetPerField, Tessal::KqLayout::DatasetPerFragment}) {
    const auto probe =
        Tessal::probeGrid(write(dir, "a.kq", layout, 3, 5), "FWF", "Positions", kCharts);
    EXPECT_TRUE(probe.readable);
    EXPECT_TRUE(probe.found);
    ASSERT_TRUE(probe.attributes.getAttributeAs<std::string>("Mark"));
    EXPECT_EQ(probe.fragments.at("Map"), std::optional<std::size_t>(3));
    EXPECT_EQ(probe.fragments.at("Scanner"), std::optional<std::size_t>(5));
    EXPECT_EQ(probe.fragments.at("Absent"), std::nullopt);
    // A chart without the field, a field the grid lacks, a grid the slice lacks.
    EXPECT_EQ(Tessal::probeGrid(write(dir, "b.kq", layout, 0, 1), "FWF", "Positions", kCharts)
                  .fragments.at("Map"),
              std::nullopt);
    EXPECT_EQ(Tessal::probeGrid(dir.file("a.kq"), "FWF", "Other", kCharts).fragments.at("Scanner"),
              std::nullopt);
    EXPECT_FALSE(Tessal::probeGrid(dir.file("a.kq"), "Other", "Positions", kCharts).found);
  }
}

TEST(KqGridProbe, LooksAtTheSliceAtTimeZeroOnly) {
  TempDir dir;
  const auto probe =
      Tessal::probeGrid(write(dir, "late.kq", Tessal::KqLayout::DatasetPerField, 1, 1, 2.5), "FWF",
                        "Positions", kCharts);
  EXPECT_TRUE(probe.readable);
  EXPECT_FALSE(probe.found);
}

TEST(KqGridProbe, FilesThatAreNotKqOrWhoseTableDisagreesWithItself) {
  TempDir dir;
  EXPECT_FALSE(Tessal::probeGrid(dir.file("missing.kq"), "FWF", "Positions", kCharts).readable);
  {
    std::FILE* text = std::fopen(dir.file("text.kq").c_str(), "w");
    std::fputs("not HDF5", text);
    std::fclose(text);
  }
  EXPECT_FALSE(Tessal::probeGrid(dir.file("text.kq"), "FWF", "Positions", kCharts).readable);
  // An HDF5 file without the format marker.
  H5Fclose(H5Fcreate(dir.file("plain.h5").c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT));
  EXPECT_FALSE(Tessal::probeGrid(dir.file("plain.h5"), "FWF", "Positions", kCharts).readable);
  // Row offsets that do not match the names: the count is not to be trusted.
  const std::string file = write(dir, "table.kq", Tessal::KqLayout::DatasetPerField, 2, 2);
  {
    hid_t f = H5Fopen(file.c_str(), H5F_ACC_RDWR, H5P_DEFAULT);
    const char* rows = "/slices/0/grids/FWF/charts/Map/fields/Positions/fragment_rows";
    ASSERT_GE(H5Ldelete(f, rows, H5P_DEFAULT), 0);
    hsize_t n = 2;
    hid_t space = H5Screate_simple(1, &n, nullptr);
    hid_t set =
        H5Dcreate2(f, rows, H5T_NATIVE_UINT64, space, H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT);
    H5Dclose(set), H5Sclose(space), H5Fclose(f);
  }
  const auto probe = Tessal::probeGrid(file, "FWF", "Positions", kCharts);
  EXPECT_EQ(probe.fragments.at("Map"), std::nullopt);
  EXPECT_EQ(probe.fragments.at("Scanner"), std::optional<std::size_t>(2));
}
