// The `--crs` option of `simulate` and `export`: an EPSG code, a WKT text, or a file that
// holds a WKT text (a .prj or .wkt file), read through PROJ.
#pragma once

#include <string>

#include "geo/CoordinateSystem.hpp"

namespace quillo::cli {

inline constexpr const char* kCrsOptionHelp =
    "Coordinate system of the points: EPSG:N, EPSG:N+M (with heights), a WKT text or a file "
    "holding one";

// Throws CliError (bad arguments) naming the option's value and what is wrong with it.
geo::CoordinateSystem coordinateSystemOption(const std::string& value);

}  // namespace quillo::cli
