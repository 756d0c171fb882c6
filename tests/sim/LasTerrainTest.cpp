// The terrain reader on hand-written LAS files (versions 1.2 and 1.4, point formats 0, 1 and
// 6, damaged headers), the height grid built from its points, and `quillo simulate --terrain`.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "sim/HeightGrid.hpp"
#include "sim/LasTerrain.hpp"
#include "sim/Survey.hpp"
#include "support/Command.hpp"
#include "support/TempDir.hpp"

using namespace quillo::sim;

namespace {

struct LasLayout {
  int minor = 2;
  std::uint8_t format = 0;
  std::uint16_t recordLength = 20;
  std::uint32_t pointGap = 0;  // bytes of (unread) records between header and points
  double scale = 0.01, offset[3] = {1000.0, 2000.0, 100.0};
};

template <class T>
void put(std::vector<std::uint8_t>& b, std::size_t at, T v) {
  std::memcpy(b.data() + at, &v, sizeof v);
}

// A LAS file holding the given points (and classes, where given); legacy and 64-bit counts
// as the version has them.
std::vector<std::uint8_t> lasFile(const LasLayout& s, const std::vector<std::array<double, 3>>& pts,
                                  const std::vector<std::uint8_t>& classes = {}) {
  const std::uint16_t header = s.minor >= 4 ? 375 : 227;
  const std::uint32_t offset = header + s.pointGap;
  std::vector<std::uint8_t> b(offset + pts.size() * s.recordLength, 0);
  std::memcpy(b.data(), "LASF", 4);
  b[24] = 1, b[25] = std::uint8_t(s.minor);
  put<std::uint16_t>(b, 94, header);
  put<std::uint32_t>(b, 96, offset);
  b[104] = s.format;
  put<std::uint16_t>(b, 105, s.recordLength);
  if (s.format < 6) put<std::uint32_t>(b, 107, std::uint32_t(pts.size()));
  if (s.minor >= 4) put<std::uint64_t>(b, 247, pts.size());
  for (int i = 0; i < 3; ++i) {
    put<double>(b, 131 + 8 * std::size_t(i), s.scale);
    put<double>(b, 155 + 8 * std::size_t(i), s.offset[i]);
  }
  for (std::size_t k = 0; k < pts.size(); ++k) {
    const std::size_t at = offset + k * s.recordLength;
    for (std::size_t i = 0; i < 3; ++i)
      put<std::int32_t>(b, at + 4 * i,
                        std::int32_t(std::lround((pts[k][i] - s.offset[i]) / s.scale)));
    if (k >= classes.size()) continue;
    if (s.format < 6)
      b[at + 15] = std::uint8_t(0xE0 | classes[k]);  // with the synthetic, key and withheld bits
    else
      b[at + 15] = 0xFF, b[at + 16] = classes[k];  // flags byte full, class byte after it
  }
  return b;
}

// A 10 m x 10 m plane rising 0.5 m per m along x, one point per metre.
std::vector<std::array<double, 3>> slope() {
  std::vector<std::array<double, 3>> pts;
  for (int i = 0; i <= 10; ++i)
    for (int j = 0; j <= 10; ++j) pts.push_back({1000.0 + i, 2000.0 + j, 150.0 + 0.5 * i});
  return pts;
}

std::string errorOf(const std::vector<std::uint8_t>& bytes) {
  try {
    readLasPoints(bytes.data(), bytes.size(), "t.las");
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "";
}

}  // namespace

TEST(LasTerrain, ReadsFormatsAndVersionsWithScaleAndOffset) {
  const LasLayout cases[] = {{2, 0, 20}, {2, 1, 28, 54}, {4, 6, 30}, {4, 1, 40}, {0, 0, 24}};
  for (const LasLayout& layout : cases) {
    const auto bytes = lasFile(layout, slope());
    const TerrainPoints p = readLasPoints(bytes.data(), bytes.size(), "t.las");
    ASSERT_EQ(p.x.size(), 121u) << "format " << int(layout.format) << " 1." << layout.minor;
    EXPECT_DOUBLE_EQ(p.x[13], 1001.0);
    EXPECT_DOUBLE_EQ(p.y[13], 2002.0);
    EXPECT_NEAR(p.z[13], 150.5, 1e-9);
  }
}

TEST(LasTerrain, ReadsClassesOfOldAndNewPointFormats) {
  std::vector<std::uint8_t> classes(121, 2);
  classes[13] = 6, classes[14] = 18;
  for (const LasLayout& layout : {LasLayout{2, 0, 20}, LasLayout{4, 6, 30}}) {
    const auto bytes = lasFile(layout, slope(), classes);
    const TerrainPoints p = readLasPoints(bytes.data(), bytes.size(), "t.las");
    ASSERT_EQ(p.classification.size(), 121u);
    EXPECT_EQ(p.classification[0], 2) << int(layout.format);
    EXPECT_EQ(p.classification[13], 6) << int(layout.format);
    // Formats 0-5 hold 5 bits of class: 18 does not fit, the others do.
    EXPECT_EQ(p.classification[14], layout.format < 6 ? 18 & 0x1F : 18) << int(layout.format);
  }
}

TEST(LasTerrain, RejectsDamagedFilesNamingTheProblem) {
  const auto good = lasFile({}, slope());
  auto badSignature = good;
  badSignature[0] = 'X';
  EXPECT_NE(errorOf(badSignature).find("t.las: not a LAS file"), std::string::npos);
  const std::vector<std::uint8_t> truncatedHeader(good.begin(), good.begin() + 100);
  EXPECT_NE(errorOf(truncatedHeader).find("truncated header"), std::string::npos);
  const std::vector<std::uint8_t> truncatedPoints(good.begin(), good.end() - 5);
  EXPECT_NE(errorOf(truncatedPoints).find("gives 121 points but the file holds only 120"),
            std::string::npos);
  auto tooMany = good;
  put<std::uint32_t>(tooMany, 107, 1000000);
  EXPECT_NE(errorOf(tooMany).find("1000000 points"), std::string::npos);
  auto wide = lasFile({4, 6, 30}, slope());
  put<std::uint64_t>(wide, 247, std::uint64_t(1) << 60);  // would overflow count x length
  EXPECT_NE(errorOf(wide).find("file holds only 121"), std::string::npos);
  auto shortRecord = good;
  put<std::uint16_t>(shortRecord, 105, 12);
  EXPECT_NE(errorOf(shortRecord).find("too short for format 0"), std::string::npos);
  auto format11 = good;
  format11[104] = 11;
  EXPECT_NE(errorOf(format11).find("point format 11"), std::string::npos);
  auto version = good;
  version[25] = 5;
  EXPECT_NE(errorOf(version).find("version 1.5"), std::string::npos);
  auto offsetPastEnd = good;
  put<std::uint32_t>(offsetPastEnd, 96, 1u << 30);
  EXPECT_NE(errorOf(offsetPastEnd).find("offset to point data"), std::string::npos);
  auto zeroScale = good;
  put<double>(zeroScale, 139, 0.0);
  EXPECT_NE(errorOf(zeroScale).find("y scale"), std::string::npos);
  EXPECT_NE(errorOf({}).find("not a LAS file"), std::string::npos);
}

TEST(LasTerrain, GridGivesHeightsAndFillsHoles) {
  auto pts = slope();
  std::erase_if(pts, [](const auto& p) { return p[0] > 1003.5 && p[0] < 1006.5; });  // a gap
  TerrainPoints t;
  for (const auto& p : pts) t.x.push_back(p[0]), t.y.push_back(p[1]), t.z.push_back(p[2]);
  const HeightGrid grid(t, "t.las");
  EXPECT_GT(grid.cellSize(), 0.5);
  EXPECT_LT(grid.cellSize(), 5.0);
  EXPECT_NEAR(grid.height(1001.0, 2005.0), 150.5, 0.6);
  EXPECT_NEAR(grid.height(1009.0, 2005.0), 154.5, 0.6);
  const double inGap = grid.height(1005.0, 2005.0);
  EXPECT_GT(inGap, 151.0);  // filled from both sides of the gap
  EXPECT_LT(inGap, 154.0);
  EXPECT_NEAR(grid.height(900.0, 2005.0), grid.height(1000.0, 2005.0), 1e-9);  // edge held
  EXPECT_NEAR(grid.groundLevel(), 152.5, 1.0);
  EXPECT_THROW(HeightGrid(TerrainPoints{}, "empty.las"), std::runtime_error);
}

TEST(LasTerrain, GridLeavesNoiseOutAndKnowsTheSurfaces) {
  // A 20 m x 10 m flat at 100 m: ground on the left, a roof at 110 m from x = 10 m, a bird at
  // 300 m over the ground, and one point classed water in a cell of ground.
  TerrainPoints t;
  auto add = [&](double x, double y, double z, std::uint8_t c) {
    t.x.push_back(x), t.y.push_back(y), t.z.push_back(z), t.classification.push_back(c);
  };
  for (int i = 0; i < 20; ++i)
    for (int j = 0; j < 10; ++j) add(i + 0.5, j + 0.5, i < 10 ? 100.0 : 110.0, i < 10 ? 2 : 6);
  add(3.5, 4.5, 300.0, 7);
  add(3.6, 4.6, 100.0, 9);
  const HeightGrid grid(t, "t.las");
  EXPECT_LT(grid.highestHeight(), 111.0);
  EXPECT_NEAR(grid.height(3.5, 4.5), 100.0, 1e-3);
  EXPECT_EQ(grid.surface(3.5, 4.5), Surface::Ground);
  EXPECT_EQ(grid.surface(15.0, 5.0), Surface::Building);
  EXPECT_EQ(grid.surface(-50.0, 5.0), Surface::Ground);  // beyond the edge: the edge cell's
  EXPECT_EQ(grid.surface(50.0, 5.0), Surface::Building);

  TerrainPoints birds;
  birds.x = {1.0, 2.0}, birds.y = {1.0, 2.0}, birds.z = {300.0, 310.0},
  birds.classification = {7, 18};
  try {
    HeightGrid{birds, "birds.las"};
    ADD_FAILURE() << "a terrain of noise only was accepted";
  } catch (const std::runtime_error& e) {
    EXPECT_NE(std::string(e.what()).find("birds.las: no terrain points (all are classed as noise"),
              std::string::npos)
        << e.what();
  }
}

TEST(LasTerrain, SurveyEchoesFollowTheClassedSurface) {
  TerrainPoints t;
  for (int i = 0; i < 400; i += 2)
    for (int j = -400; j < 400; j += 2) {
      t.x.push_back(i - 200.0), t.y.push_back(j), t.z.push_back(0.0);
      t.classification.push_back(i < 200 ? 9 : 5);  // water left of the track, trees right
    }
  SurveyConfig config;
  config.shots = 20000;
  config.terrain = std::make_shared<const HeightGrid>(t, "t.las");
  const Survey survey(config);
  std::size_t water = 0, trees = 0, other = 0;
  const std::size_t shots = config.shots;
  for (std::uint64_t k = 0; k < shots; ++k) {
    for (const Return& r : survey.returns(k)) {
      if (r.target == Target::Water)
        ++water;
      else if (r.target == Target::Vegetation)
        ++trees;
      else if (!isOffSurface(r.target))
        ++other;
    }
  }
  EXPECT_EQ(other, 0u);
  EXPECT_GT(trees, shots / 3);
  // Water returns about 30 % of the beams that reach it.
  EXPECT_GT(water, shots / 10);
  EXPECT_LT(water, trees / 2);
}

TEST(LasTerrain, SimulateFliesOverTheTerrainOrExplainsTheFile) {
  quillo::test::TempDir dir;
  std::vector<std::array<double, 3>> pts;
  for (int i = 0; i <= 200; i += 2)
    for (int j = 0; j <= 400; j += 2) pts.push_back({1000.0 + i * 5, 2000.0 + j * 5, 300.0});
  const auto bytes = lasFile({4, 6, 30}, pts);
  std::ofstream(dir.file("t.las"), std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
  const auto ok = quillo::test::runQuillo("simulate " + dir.file("s_210315_093000.kq") +
                                          " --shots 4000 --quiet --terrain " + dir.file("t.las"));
  EXPECT_EQ(ok.exitCode, 0) << ok.output;
  std::ofstream(dir.file("bad.las"), std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size() - 100));
  const auto bad = quillo::test::runQuillo("simulate " + dir.file("b_210315_093000.kq") +
                                           " --shots 4000 --terrain " + dir.file("bad.las"));
  EXPECT_NE(bad.exitCode, 0);
  EXPECT_NE(bad.output.find("bad.las: the header gives"), std::string::npos) << bad.output;
  EXPECT_FALSE(std::filesystem::exists(dir.file("b_210315_093000.kq")));
}
