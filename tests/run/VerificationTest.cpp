// The conversion check on real .kq files.
#include <gtest/gtest.h>

#include "run/Verification.hpp"
#include "support/Arrays.hpp"
#include "support/TempDir.hpp"

using namespace FullWaveform;
using namespace quillo::test;
using Gemwold::PhysicalSpace::point;

namespace {

struct Shape {
  bool grid = true, map = true, success = true, successAsText = true, scanner = true;
  int mapFragments = 4, scannerFragments = 4;
};

std::string write(const TempDir& dir, const std::string& name, const Shape& s) {
  auto bundle = Tessal::BundlePtr::make();
  auto slice = (*bundle.create())[0.0];
  auto grid = slice->makeGrid(s.grid ? "FWF" : "Other");
  auto positions = makeArray<point>({{1, 2, 3}});
  if (s.map) {
    auto rep = grid->makeCartesianRepresentation(3, "StandardCartesianChart3D", 0);
    for (int f = 0; f < s.mapFragments; ++f)
      storeFragment(*rep, "Positions", "Fragment_" + std::to_string(f), positions);
  }
  if (s.scanner) {
    auto rep = grid->makeCartesianRepresentation(3, "ScannerCoordinateSystem", 0);
    for (int f = 0; f < s.scannerFragments; ++f)
      storeFragment(*rep, "Positions", "Fragment_" + std::to_string(f), positions);
  }
  if (s.success)
    grid->attributes().setAttribute(
        "BrastowSuccessful?",
        s.successAsText ? Vorlap::makeChunk<std::string>({"yes"}) : Vorlap::makeChunk<int>({1}));
  const std::string file = dir.file(name);
  EXPECT_EQ(Tessal::Bundle::save(bundle, file), "");
  return file;
}

}  // namespace

TEST(Verification, EachCheckInOrder) {
  TempDir dir;
  EXPECT_EQ(successfullyConverted(dir.file("none.kq"), false),
            "Not loadable: " + dir.file("none.kq"));
  EXPECT_EQ(successfullyConverted("", false), "Not loadable: ");
  std::string f = write(dir, "nogrid.kq", {.grid = false});
  EXPECT_EQ(successfullyConverted(f, false), "No FWF-Grid: " + f);
  f = write(dir, "nomap.kq", {.map = false});
  EXPECT_EQ(successfullyConverted(f, true), "No StandarCartesian-Positions: " + f);
  f = write(dir, "nosuccess.kq", {.success = false});
  EXPECT_EQ(successfullyConverted(f, false), "No Success-Attribute: " + f);
  f = write(dir, "intsuccess.kq", {.successAsText = false});
  EXPECT_EQ(successfullyConverted(f, false), "No Success-Attribute: " + f);
}

TEST(Verification, FragmentComparison) {
  TempDir dir;
  std::string f = write(dir, "noscanner.kq", {.scanner = false});
  EXPECT_EQ(successfullyConverted(f, false), "");
  EXPECT_EQ(successfullyConverted(f, true), "Number of fragments are not identical for file " + f);
  f = write(dir, "uneven.kq", {.mapFragments = 4, .scannerFragments = 5});
  EXPECT_EQ(successfullyConverted(f, true), "Number of fragments are not identical for file " + f);
  f = write(dir, "good.kq", {});
  EXPECT_EQ(successfullyConverted(f, true), "");
}
