// Coordinate reference systems of survey data, through PROJ: parsed from what users and files
// give (an EPSG code, WKT 1 or 2, GeoTIFF keys) and held as OGC WKT 1, the form LAS 1.4 readers
// take. quillo never transforms coordinates: a coordinate system only says what they mean.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace quillo::geo {

// Text attribute (OGC WKT) of the input's "Shots" grid; a run copies it into its outputs.
inline constexpr const char* kCoordinateSystemAttribute = "CoordinateSystem";

class CrsError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct CoordinateSystem {
  std::string wkt;   // OGC WKT 1 on one line
  std::string name;  // e.g. "ETRS89 / UTM zone 32N"
  std::string id;    // e.g. "EPSG:25832"; empty when the definition carries no identifier

  // The name, and the identifier in brackets when there is one.
  std::string label() const { return id.empty() ? name : name + " (" + id + ")"; }
};

// Parses "EPSG:N", "EPSG:N+M" (horizontal plus vertical), a WKT 1 or 2 text or anything else
// PROJ reads as a coordinate reference system. Throws CrsError naming what is wrong, also for
// a system whose horizontal or vertical unit is not the metre (quillo's coordinates are metres).
CoordinateSystem parseCoordinateSystem(const std::string& text);

// The system of GeoTIFF keys (the GeoKeyDirectory of a LAS file's projection VLR, as 16-bit
// values): the EPSG codes of its projected or geographic and its vertical system. Throws
// CrsError for a damaged directory or a user-defined system, which has no code.
CoordinateSystem coordinateSystemFromGeoKeys(const std::vector<std::uint16_t>& directory);

// A local engineering system (east and north in metres) for scenes that lie nowhere on Earth.
CoordinateSystem localCoordinateSystem(const std::string& name);

}  // namespace quillo::geo
