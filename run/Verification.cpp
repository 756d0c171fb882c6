// Output verification. Loads the file into a bundle of its own and checks, in order: load,
// grid "FWF", map positions, success mark, and on request matching fragment counts.
#include "run/Verification.hpp"

#include "tessal/Bundle.hpp"
#include "tessal/Schema.hpp"

namespace FullWaveform {

namespace schema = Tessal::schema;

namespace {

Vorlap::StrongPtr<Tessal::Field> positionsOf(const Tessal::Grid& grid, const std::string& chart) {
  auto c = grid.findCartesianChart(chart);
  if (!c) return {};
  return grid.getField(c, schema::kPositions, grid.getSkeletonMap().findVertices(-1));
}

}  // namespace

std::string successfullyConverted(const std::string& fileName, const bool& compareFragments) {
  Tessal::BundlePtr bundle(Vorlap::makeStrong<Tessal::Bundle>());
  bool loaded = false;
  // The checks below look at the structure alone: opening each of thousands of fragment
  // datasets would cost more than the rest of the check.
  Tessal::Bundle::load(loaded, Tessal::LoaderParameters({fileName}).checkFragmentsWhenUsed(),
                       bundle);
  if (!loaded) return "Not loadable: " + fileName;
  auto slice = (*bundle.create())[0.0];
  auto grid = (*slice)(schema::kResultGrid);
  if (!grid) return "No FWF-Grid: " + fileName;
  auto mapPositions = positionsOf(*grid, "StandardCartesianChart3D");
  if (!mapPositions) return "No StandarCartesian-Positions: " + fileName;
  if (!grid->attributes().getAttributeAs<std::string>("BrastowSuccessful?"))
    return "No Success-Attribute: " + fileName;
  if (!compareFragments) return "";
  // Asked to compare, a file without scanner positions has nothing that matches.
  auto scannerPositions = positionsOf(*grid, schema::kScannerChart);
  if (!scannerPositions ||
      scannerPositions->getNumberOfFragments() != mapPositions->getNumberOfFragments())
    return "Number of fragments are not identical for file " + fileName;
  return "";
}

}  // namespace FullWaveform
