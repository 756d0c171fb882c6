// The coordinate system of a terrain LAS file (WKT record as VLR or extended VLR, GeoTIFF
// keys, none, damaged records) and its way through `quillo simulate` into the survey.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

#include "sim/TerrainCrs.hpp"
#include "support/Command.hpp"
#include "support/TempDir.hpp"

using namespace quillo;

namespace {

struct LasRecord {
  std::string user;
  std::uint16_t id;
  std::vector<std::uint8_t> payload;
  bool extended = false;  // after the points, LAS 1.4 only
};

template <class T>
void append(std::vector<std::uint8_t>& b, T v) {
  const auto* raw = reinterpret_cast<const std::uint8_t*>(&v);
  b.insert(b.end(), raw, raw + sizeof v);
}

template <class T>
void put(std::vector<std::uint8_t>& b, std::size_t at, T v) {
  std::memcpy(b.data() + at, &v, sizeof v);
}

void appendRecord(std::vector<std::uint8_t>& b, const LasRecord& r) {
  append<std::uint16_t>(b, 0);
  std::string user = r.user;
  user.resize(16, '\0');
  b.insert(b.end(), user.begin(), user.end());
  append(b, r.id);
  if (r.extended)
    append<std::uint64_t>(b, r.payload.size());
  else
    append<std::uint16_t>(b, std::uint16_t(r.payload.size()));
  b.insert(b.end(), 32, 0);
  b.insert(b.end(), r.payload.begin(), r.payload.end());
}

// A LAS 1.4 file with the records and one point of format 6 at (0, 0, 0).
std::vector<std::uint8_t> lasWith(const std::vector<LasRecord>& records) {
  std::vector<std::uint8_t> b(375, 0);
  std::memcpy(b.data(), "LASF", 4);
  b[24] = 1, b[25] = 4;
  put<std::uint16_t>(b, 94, 375);
  std::uint32_t vlrs = 0, evlrs = 0;
  for (const auto& r : records)
    if (!r.extended) appendRecord(b, r), ++vlrs;
  put<std::uint32_t>(b, 96, std::uint32_t(b.size()));
  put<std::uint32_t>(b, 100, vlrs);
  b[104] = 6;
  put<std::uint16_t>(b, 105, 30);
  for (int i = 0; i < 3; ++i) put<double>(b, 131 + 8 * std::size_t(i), 0.01);
  put<std::uint64_t>(b, 247, 1);
  b.insert(b.end(), 30, 0);
  put<std::uint64_t>(b, 235, b.size());
  for (const auto& r : records)
    if (r.extended) appendRecord(b, r), ++evlrs;
  put<std::uint32_t>(b, 243, evlrs);
  return b;
}

std::vector<std::uint8_t> text(const std::string& s) {
  std::vector<std::uint8_t> b(s.begin(), s.end());
  b.push_back(0);
  return b;
}

std::vector<std::uint8_t> geoKeys(std::uint16_t projected) {
  std::vector<std::uint8_t> b;
  for (std::uint16_t v : {1, 1, 0, 1, 3072, 0, 1, int(projected)}) append(b, v);
  return b;
}

class TerrainCrs : public ::testing::Test {
 protected:
  std::string write(const std::vector<std::uint8_t>& bytes, const std::string& name = "t.las") {
    const std::string path = dir.file(name);
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    return path;
  }
  std::string errorOf(const std::vector<std::uint8_t>& bytes) {
    try {
      sim::readLasCoordinateSystem(write(bytes));
    } catch (const std::runtime_error& e) {
      return e.what();
    }
    return "";
  }
  test::TempDir dir;
};

}  // namespace

TEST_F(TerrainCrs, WktRecordWinsOverGeoKeysAndMayComeAfterThePoints) {
  const std::string utm33 = geo::parseCoordinateSystem("EPSG:25833").wkt;
  auto crs =
      sim::readLasCoordinateSystem(write(lasWith({{"LASF_Projection", 34735, geoKeys(25832)}})));
  ASSERT_TRUE(crs);
  EXPECT_EQ(crs->id, "EPSG:25832");
  crs = sim::readLasCoordinateSystem(write(lasWith(
      {{"LASF_Projection", 34735, geoKeys(25832)}, {"LASF_Projection", 2112, text(utm33), true}})));
  ASSERT_TRUE(crs);
  EXPECT_EQ(crs->id, "EPSG:25833");
  // Records of other users or numbers are not projections.
  EXPECT_FALSE(sim::readLasCoordinateSystem(
      write(lasWith({{"LASF_Spec", 2112, text(utm33)},
                     {"LASF_Projection", 34736, std::vector<std::uint8_t>(8)}}))));
}

TEST_F(TerrainCrs, DamagedRecordsAreNamed) {
  auto cut = lasWith({{"LASF_Projection", 2112, text("EPSG:25832")}});
  put<std::uint16_t>(cut, 375 + 20, 60000);  // the record claims more than the file holds
  EXPECT_NE(errorOf(cut).find("reaches past the end of the file"), std::string::npos)
      << errorOf(cut);
  EXPECT_NE(errorOf(lasWith({{"LASF_Projection", 2112, text("nonsense")}})).find("record 2112"),
            std::string::npos);
  EXPECT_NE(errorOf(lasWith({{"LASF_Projection", 34735, geoKeys(32767)}})).find("own system"),
            std::string::npos);
  EXPECT_NE(errorOf({'L', 'A', 'S'}).find("not a LAS file"), std::string::npos);
}

TEST_F(TerrainCrs, SimulateCarriesTheTerrainsSystemIntoTheSurvey) {
  std::vector<std::uint8_t> las = lasWith({{"LASF_Projection", 34735, geoKeys(25832)}});
  // A 1 km square of flat ground, enough for a short survey over it.
  las.resize(las.size() - 30);  // points go where the one placeholder was
  const std::size_t pointsAt = las.size();
  for (int i = 0; i <= 100; ++i)
    for (int j = 0; j <= 100; ++j) {
      std::vector<std::uint8_t> p(30, 0);
      put<std::int32_t>(p, 0, 100000 * 10 + i * 1000), put<std::int32_t>(p, 4, j * 1000);
      put<std::int32_t>(p, 8, 20000);
      las.insert(las.end(), p.begin(), p.end());
    }
  put<std::uint64_t>(las, 247, 101 * 101);
  put<std::uint64_t>(las, 235, 0);
  ASSERT_EQ(pointsAt, std::size_t(375 + 54 + 16));
  const std::string terrain = write(las);
  const std::string out = dir.file("t_210315_093000.kq");
  auto r = test::runQuillo("simulate " + out + " --shots 2000 --quiet --terrain " + terrain);
  ASSERT_EQ(r.exitCode, 0) << r.output;
  r = test::runQuillo("info " + out);
  EXPECT_NE(r.output.find("coordinate system: ETRS89 / UTM zone 32N (EPSG:25832)"),
            std::string::npos)
      << r.output;
  // --crs overrides, also a terrain whose own system cannot be read.
  const std::string unreadable = write(lasWith({{"LASF_Projection", 34735, geoKeys(32767)}}));
  r = test::runQuillo("simulate " + out + " --shots 2000 --quiet --terrain " + unreadable);
  EXPECT_EQ(r.exitCode, 3);
  EXPECT_NE(r.output.find("give the system with --crs"), std::string::npos) << r.output;
  r = test::runQuillo("simulate " + out + " --shots 2000 --quiet --terrain " + terrain +
                      " --crs EPSG:32632");
  ASSERT_EQ(r.exitCode, 0) << r.output;
  EXPECT_NE(test::runQuillo("info " + out).output.find("(EPSG:32632)"), std::string::npos);
}
