// The map chart of an output grid: the scanner-frame positions taken through the input's
// scanner-to-map transform (identity when the input has none).
#pragma once

#include <array>

#include "tessal/Bundle.hpp"
#include "waveform/ScannerDevice.hpp"

namespace quillo::cli {

// Shots attribute: 12 doubles, the rows of a 3 x 4 matrix [R | t] (map = R * scanner + t).
inline constexpr const char* kScannerToMapAttribute = FullWaveform::ScannerAttribute::ScannerToMap;
inline constexpr const char* kMapChart = "StandardCartesianChart3D";

using Transform = std::array<double, 12>;

// The transform stored on the input's Shots grid; identity when absent. Throws CliError
// when the attribute exists but is not 12 finite doubles.
Transform scannerToMap(const Tessal::BundlePtr& input);

// The same for a grid that carries the attribute (a result's "FWF" grid holds the input's
// copy), naming `where` in the message.
Transform scannerToMapOf(const Tessal::Grid& grid, const std::string& where);

// A scanner-frame direction in the map frame (the rotation part only).
Gemwold::PhysicalSpace::vector rotateToMap(const Transform& m,
                                           const Gemwold::PhysicalSpace::vector& v);

// The map positions of one fragment's scanner-frame positions; empty when `positions` is
// not an array of points.
Vorlap::StrongPtr<Tessal::MemBase> mapPositions(const Tessal::MemBase& positions,
                                                const Transform& transform);

// The same, as an array to hold: under the identity transform the scanner-frame array itself
// (no copy, no pass over it; the writer then packs the two charts' equal chunks once).
Vorlap::StrongPtr<Tessal::MemBase> mapPositionsOf(
    const Vorlap::StrongPtr<Tessal::MemBase>& positions, const Transform& transform);

// Adds the map chart with one "Positions" fragment per scanner-frame fragment held in memory
// and not mapped yet (so a run can map its fragments as they complete). Only fragments given
// data since `seen` last looked are visited.
void addMapPositions(Tessal::Grid& grid, const Transform& transform,
                     Tessal::FragmentChangeCursor& seen);

}  // namespace quillo::cli
