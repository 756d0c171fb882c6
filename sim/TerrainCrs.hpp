// The coordinate system a terrain LAS file declares, for the simulated survey over it: the OGC
// WKT record (user "LASF_Projection", record 2112, as a VLR or an extended VLR) when there is
// one, else the GeoTIFF key directory (record 34735). Reads only the header and the records,
// never the points.
#pragma once

#include <optional>
#include <string>

#include "geo/CoordinateSystem.hpp"

namespace quillo::sim {

// Empty when the file declares no coordinate system. Throws std::runtime_error naming the file
// and the record for a damaged record or a system PROJ cannot read.
std::optional<geo::CoordinateSystem> readLasCoordinateSystem(const std::string& path);

}  // namespace quillo::sim
