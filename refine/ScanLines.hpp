// Scan lines and scan-angle bins of a shot table, as the refinement cuts them: a new line
// where the scan angle jumps back or the aircraft jumps to another flight line; bins of a
// fixed width of the scan angle (for a radial scanner the azimuth around the cone).
#pragma once

#include <cstdint>
#include <vector>

#include "refine/SurfaceFit.hpp"

namespace FullWaveform {

// The scan angle the refinement bins, in (0, 2 pi]: across the track, or for a radial
// scanner the azimuth around the cone's axis (the frame's z); `previous` where `d` gives none.
QUILLO_API double scanAngleOf(const Gemwold::PhysicalSpace::vector& d, bool radial,
                              double previous);
// Whether a shot starts a scan line after the shot before it: the angle jumps back, or the
// aircraft jumps (another flight line).
QUILLO_API bool startsScanLine(double previousAngle, double angle,
                               const Gemwold::PhysicalSpace::point& previousOrigin,
                               const Gemwold::PhysicalSpace::point& origin);

// Scan line and angle bin of every shot of a table.
struct ShotCells {
  ShotCells() = default;
  ShotCells(const ShotTable& t, double binDegrees) { cut(t, binDegrees); }
  // Cuts the table's shots anew (the arrays keep their memory).
  void cut(const ShotTable& t, double binDegrees);
  LargeVector<std::uint32_t> line;
  LargeVector<std::int32_t> bin;
  // The scan angle the bins divide, as the neighbours keep it (to order a cell's members).
  LargeVector<float> angle;
  std::vector<Gemwold::PhysicalSpace::point> lineOrigin;  // origin of each line's first shot
  std::int32_t firstBin = 0, binCount = 1;

  std::size_t cellOf(std::uint32_t shot) const {
    return std::size_t(line[shot]) * std::size_t(binCount) + std::size_t(bin[shot] - firstBin);
  }
  std::size_t cellCount() const { return lineOrigin.size() * std::size_t(binCount); }
};

}  // namespace FullWaveform
