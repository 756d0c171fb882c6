// Output verification. Reads from the file what the checks look at, in order: that it opens
// as a .kq file, grid "FWF", its map positions, the success mark, and on request matching
// fragment counts of the map and scanner positions (see Tessal::GridProbe).
#include "run/Verification.hpp"

#include "tessal/GridProbe.hpp"
#include "tessal/Schema.hpp"

namespace FullWaveform {

namespace schema = Tessal::schema;

namespace {

constexpr const char* kMapChart = "StandardCartesianChart3D";

}  // namespace

std::string successfullyConverted(const std::string& fileName, const bool& compareFragments) {
  const Tessal::GridProbe probe = Tessal::probeGrid(
      fileName, schema::kResultGrid, schema::kPositions, {kMapChart, schema::kScannerChart});
  if (!probe.readable) return "Not loadable: " + fileName;
  if (!probe.found) return "No FWF-Grid: " + fileName;
  const auto& mapPositions = probe.fragments.at(kMapChart);
  if (!mapPositions) return "No StandarCartesian-Positions: " + fileName;
  if (!probe.attributes.getAttributeAs<std::string>("BrastowSuccessful?"))
    return "No Success-Attribute: " + fileName;
  if (!compareFragments) return "";
  // Asked to compare, a file without scanner positions has nothing that matches.
  const auto& scannerPositions = probe.fragments.at(schema::kScannerChart);
  if (!scannerPositions || *scannerPositions != *mapPositions)
    return "Number of fragments are not identical for file " + fileName;
  return "";
}

}  // namespace FullWaveform
