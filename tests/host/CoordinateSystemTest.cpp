// Coordinate systems through PROJ: what users type, what LAS files hold (WKT, GeoTIFF keys),
// the local system of the built-in scene, and the refusals with their reasons.
#include <gtest/gtest.h>

#include "geo/CoordinateSystem.hpp"

using namespace quillo::geo;

namespace {

std::string errorOf(const std::string& text) {
  try {
    parseCoordinateSystem(text);
  } catch (const CrsError& e) {
    return e.what();
  }
  return "";
}

std::string geoKeysError(const std::vector<std::uint16_t>& keys) {
  try {
    coordinateSystemFromGeoKeys(keys);
  } catch (const CrsError& e) {
    return e.what();
  }
  return "";
}

// A GeoTIFF key directory (version 1.1.0) of short-valued keys.
std::vector<std::uint16_t> directory(const std::vector<std::pair<int, int>>& keys) {
  std::vector<std::uint16_t> d = {1, 1, 0, std::uint16_t(keys.size())};
  for (auto [key, value] : keys)
    d.insert(d.end(), {std::uint16_t(key), 0, 1, std::uint16_t(value)});
  return d;
}

}  // namespace

TEST(CoordinateSystem, CodesAndWktGiveOneLineWkt1WithName) {
  const CoordinateSystem utm = parseCoordinateSystem(" EPSG:25832\n");
  EXPECT_EQ(utm.name, "ETRS89 / UTM zone 32N");
  EXPECT_EQ(utm.id, "EPSG:25832");
  EXPECT_EQ(utm.label(), "ETRS89 / UTM zone 32N (EPSG:25832)");
  EXPECT_EQ(utm.wkt.rfind("PROJCS[\"ETRS89 / UTM zone 32N\"", 0), 0u) << utm.wkt;
  EXPECT_EQ(utm.wkt.find('\n'), std::string::npos);
  // Its own WKT reads back to the same system.
  EXPECT_EQ(parseCoordinateSystem(utm.wkt).wkt, utm.wkt);

  const CoordinateSystem withHeights = parseCoordinateSystem("EPSG:25833+5783");
  EXPECT_EQ(withHeights.wkt.rfind("COMPD_CS[", 0), 0u) << withHeights.wkt;
  EXPECT_NE(withHeights.wkt.find("DHHN92 height"), std::string::npos);
}

TEST(CoordinateSystem, WktWithoutIdentifierIsRecognised) {
  std::string wkt = parseCoordinateSystem("EPSG:32633").wkt;
  // Drop the system's own AUTHORITY (the last one): PROJ finds the code from the definition.
  wkt.erase(wkt.rfind(",AUTHORITY["), std::string::npos).append("]");
  const CoordinateSystem crs = parseCoordinateSystem(wkt);
  EXPECT_EQ(crs.name, "WGS 84 / UTM zone 33N");
  EXPECT_EQ(crs.id, "EPSG:32633");
}

TEST(CoordinateSystem, RefusesWhatIsNotASystemInMetres) {
  EXPECT_NE(errorOf("").find("empty"), std::string::npos);
  EXPECT_NE(errorOf("EPSG:999999").find("not a coordinate system PROJ knows"), std::string::npos);
  EXPECT_NE(errorOf("PROJCS[\"broken\"").find("not a coordinate system"), std::string::npos);
  EXPECT_NE(errorOf("EPSG:4326").find("degree"), std::string::npos) << errorOf("EPSG:4326");
  EXPECT_NE(errorOf("EPSG:2227").find("foot"), std::string::npos) << errorOf("EPSG:2227");
  EXPECT_NE(errorOf("EPSG:25832+6360").find("foot"), std::string::npos);  // heights in feet
  // A map projection on its own is an operation, not a system.
  EXPECT_NE(errorOf("+proj=merc").find("not a coordinate reference system"), std::string::npos)
      << errorOf("+proj=merc");
}

TEST(CoordinateSystem, GeoTiffKeysGiveTheirEpscCodes) {
  EXPECT_EQ(coordinateSystemFromGeoKeys(directory({{1024, 1}, {3072, 25832}})).id, "EPSG:25832");
  const CoordinateSystem compound =
      coordinateSystemFromGeoKeys(directory({{1024, 1}, {3072, 25832}, {4096, 5783}}));
  EXPECT_EQ(compound.wkt.rfind("COMPD_CS[", 0), 0u);
  // A user-defined vertical system says no more than its unit: the heights stay unlabelled.
  EXPECT_EQ(coordinateSystemFromGeoKeys(directory({{3072, 25832}, {4096, 32767}})).id,
            "EPSG:25832");
  EXPECT_NE(geoKeysError(directory({{1024, 1}, {3072, 32767}})).find("define their own"),
            std::string::npos);
  EXPECT_NE(geoKeysError(directory({{1024, 1}})).find("name no"), std::string::npos);
  EXPECT_NE(geoKeysError(directory({{2048, 4326}})).find("degree"), std::string::npos);
  auto cut = directory({{3072, 25832}});
  cut.resize(6);
  EXPECT_NE(geoKeysError(cut).find("damaged"), std::string::npos);
  EXPECT_NE(geoKeysError({}).find("damaged"), std::string::npos);
}

TEST(CoordinateSystem, LocalSystemOfTheBuiltInScene) {
  const CoordinateSystem local = localCoordinateSystem("a \"quoted\" scene");
  EXPECT_EQ(local.name, "a \"quoted\" scene");
  EXPECT_EQ(local.id, "");
  EXPECT_EQ(local.wkt.rfind("LOCAL_CS[", 0), 0u) << local.wkt;
  EXPECT_NE(local.wkt.find("UNIT[\"metre\",1]"), std::string::npos);
  EXPECT_EQ(parseCoordinateSystem(local.wkt).name, local.name);
}
