// `quillo export`: LAS 1.4 files read back with the test's own reader; header, counts,
// bounds, point records, extra bytes, scan angles, intensity, the coordinate system, format 9
// waveform packets and refused inputs.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>

#include "support/Command.hpp"
#include "support/LasReader.hpp"
#include "support/ResultBundles.hpp"
#include "support/TempDir.hpp"

using namespace quillo::test;
namespace fs = std::filesystem;

namespace {

// Two fragments; point 1 of fragment 0 has 20 returns, point 0 of fragment 1 no amplitude.
ResultRecipe twoFragments() {
  ResultRecipe recipe;
  ResultPoint a{.x = 1000.1234, .y = 2000.5, .z = 50.25, .time = 300000.5, .mta = 2};
  ResultPoint b = a;
  b.x = 1001.0;
  b.z = 49.0;
  b.returnNumber = 18;
  b.numberOfReturns = 20;
  b.classification = 7;
  b.scanAngle = -15000;  // the module's angle in the x-z plane, not LAS's
  b.channel = 1;
  b.amplitude = 1000.0f;
  b.waveId = 1;
  ResultPoint c = a;
  c.returnNumber = 2;
  c.numberOfReturns = 2;
  c.waveId = 1;
  ResultPoint d = a;
  d.y = 1999.0;
  d.amplitude = std::numeric_limits<float>::quiet_NaN();
  d.mta = 255;
  d.waveId = 2;
  ResultPoint e = a;
  e.x = 1003.999;
  e.z = 51.5;
  e.time = 300001.0;
  e.range = 1234.5;
  e.reflectance = -12.5f;
  e.waveId = 3;
  recipe.fragments = {{a, b, c}, {d, e}};
  recipe.weekNumber = 2150;
  return recipe;
}

class Export : public ::testing::Test {
 protected:
  std::string save(const ResultRecipe& recipe, const std::string& name = "result.kq") {
    const std::string path = dir.file(name);
    EXPECT_EQ(Tessal::Bundle::save(makeResult(recipe), path), "");
    return path;
  }
  LasFile exportAndRead(const std::string& result, const std::string& flags = "") {
    const std::string out = dir.file("out.las");
    const auto r = runQuillo("export " + result + " " + out + " " + flags);
    EXPECT_EQ(r.exitCode, 0) << r.output;
    return readLas(out);
  }
  TempDir dir;
};

}  // namespace

TEST_F(Export, HeaderCountsAndBounds) {
  const LasFile f = exportAndRead(save(twoFragments()));
  EXPECT_EQ(f.signature, "LASF");
  EXPECT_EQ(f.versionMajor, 1);
  EXPECT_EQ(f.versionMinor, 4);
  EXPECT_EQ(f.headerSize, 375);
  EXPECT_EQ(f.systemId, "quillo");
  EXPECT_EQ(f.software, "quillo export");
  EXPECT_EQ(f.pointFormat, 6);
  EXPECT_EQ(f.pointLength, 30 + 29);
  EXPECT_EQ(f.pointCount, 5u);
  EXPECT_EQ(f.legacyCount, 0u);
  EXPECT_EQ(f.globalEncoding & 1, 1);
  EXPECT_EQ(f.evlrCount, 0u);
  // Returns: four first returns, one second, the clamped 18-of-20 counts as 15.
  EXPECT_EQ(f.byReturn[0], 3u);
  EXPECT_EQ(f.byReturn[1], 1u);
  EXPECT_EQ(f.byReturn[14], 1u);
  for (int a = 0; a < 3; ++a) EXPECT_DOUBLE_EQ(f.scale[a], 0.001);
  EXPECT_DOUBLE_EQ(f.offset[0], 1000.0);
  EXPECT_DOUBLE_EQ(f.offset[1], 1999.0);
  EXPECT_DOUBLE_EQ(f.offset[2], 49.0);
  EXPECT_NEAR(f.min[0], 1000.123, 1e-9);
  EXPECT_NEAR(f.max[0], 1003.999, 1e-9);
  EXPECT_NEAR(f.min[1], 1999.0, 1e-9);
  EXPECT_NEAR(f.max[1], 2000.5, 1e-9);
  EXPECT_NEAR(f.min[2], 49.0, 1e-9);
  EXPECT_NEAR(f.max[2], 51.5, 1e-9);
}

TEST_F(Export, PointRecordsAndExtraBytes) {
  const LasFile f = exportAndRead(save(twoFragments()));
  ASSERT_EQ(f.points.size(), 5u);
  const auto& a = f.points[0];
  EXPECT_NEAR(a.x, 1000.123, 1e-9);  // millimetres kept
  EXPECT_NEAR(a.y, 2000.5, 1e-9);
  EXPECT_DOUBLE_EQ(a.gpsTime, 2150 * 604800.0 + 300000.5 - 1e9);
  EXPECT_EQ(a.intensity, 10);  // one unit per count
  EXPECT_EQ(a.returnNumber, 1);
  EXPECT_EQ(a.numberOfReturns, 1);
  EXPECT_EQ(a.pointSourceId, 0);
  const auto& b = f.points[1];
  EXPECT_EQ(b.returnNumber, 15);
  EXPECT_EQ(b.numberOfReturns, 15);
  EXPECT_EQ(b.classification, 7);
  EXPECT_EQ(b.scanAngle, 0);  // a nadir beam
  EXPECT_EQ(b.channel, 1);
  EXPECT_EQ(b.intensity, 1000);
  EXPECT_EQ(f.points[3].intensity, 0);  // NaN amplitude
  EXPECT_EQ(f.points[3].extra[0], 255);
  EXPECT_TRUE(std::isnan(f.extraValue<float>(3, extra::kAmplitude)));
  // Extra bytes of the last point, from the second fragment.
  EXPECT_EQ(f.points[4].extra[0], 2);
  EXPECT_FLOAT_EQ(f.extraValue<float>(4, extra::kReflectance), -12.5f);
  EXPECT_DOUBLE_EQ(f.extraValue<double>(4, extra::kRange), 1234.5);
  EXPECT_FLOAT_EQ(f.extraValue<float>(4, extra::kAmplitude), 10.0f);
  EXPECT_DOUBLE_EQ(f.extraValue<double>(4, extra::kPulseWidth), 3.0);
  EXPECT_FLOAT_EQ(f.extraValue<float>(4, extra::kDamping), 0.5f);

  ASSERT_EQ(f.vlrs.size(), 1u);
  EXPECT_EQ(f.vlrs[0].userId, "LASF_Spec");
  EXPECT_EQ(f.vlrs[0].recordId, 4);
  ASSERT_EQ(f.vlrs[0].payload.size(), 6u * 192);
  const char* names[] = {"mta_zone",  "reflectance_db", "range",
                         "amplitude", "pulse_width",    "damping"};
  const int types[] = {1, 9, 10, 9, 10, 9};
  for (int d = 0; d < 6; ++d) {
    const unsigned char* desc = f.vlrs[0].payload.data() + d * 192;
    EXPECT_EQ(desc[2], types[d]) << names[d];
    EXPECT_STREQ(reinterpret_cast<const char*>(desc + 4), names[d]);
  }
}

TEST_F(Export, WeekTimeWithoutDateAndDefaultsForMissingFields) {
  ResultRecipe recipe = twoFragments();
  recipe.weekNumber.reset();
  recipe.withPulseWidth = false;
  const LasFile f = exportAndRead(save(recipe));
  EXPECT_EQ(f.globalEncoding & 1, 0);
  EXPECT_DOUBLE_EQ(f.points[0].gpsTime, 300000.5);
  EXPECT_DOUBLE_EQ(f.extraValue<double>(0, extra::kPulseWidth), 0.0);
}

TEST_F(Export, MapPositionsWinOverScannerFrame) {
  ResultRecipe recipe = twoFragments();
  recipe.mapShift = 500000.0;
  const LasFile f = exportAndRead(save(recipe));
  EXPECT_NEAR(f.points[0].x, 501000.123, 1e-6);
  EXPECT_NEAR(f.min[1], 501999.0, 1e-6);
  EXPECT_DOUBLE_EQ(f.offset[2], 500049.0);
}

TEST_F(Export, Format9CarriesWavePackets) {
  ResultRecipe recipe = twoFragments();
  recipe.waveSamples = 6;
  recipe.sampleInterval = 0.5e-9;
  recipe.fragments[0][0].wavePosition = 2.5f;
  const LasFile f = exportAndRead(save(recipe), "--waveforms");
  EXPECT_EQ(f.pointFormat, 9);
  EXPECT_EQ(f.pointLength, 59 + 29);
  EXPECT_EQ(f.globalEncoding & 2, 2);
  ASSERT_EQ(f.vlrs.size(), 2u);
  const auto& desc = f.vlrs[1];
  EXPECT_EQ(desc.recordId, 100);
  ASSERT_EQ(desc.payload.size(), 26u);
  EXPECT_EQ(desc.payload[0], 16);
  std::uint32_t samples, spacing;
  std::memcpy(&samples, desc.payload.data() + 2, 4);
  std::memcpy(&spacing, desc.payload.data() + 6, 4);
  EXPECT_EQ(samples, 6u);
  EXPECT_EQ(spacing, 500u);
  ASSERT_EQ(f.evlrs.size(), 1u);
  EXPECT_EQ(f.evlrs[0].recordId, 65535);
  EXPECT_EQ(f.waveDataStart, f.evlrs[0].headerOffset);
  EXPECT_FLOAT_EQ(f.points[0].waveLocation, 1250.0f);
  EXPECT_NEAR(f.points[0].zt, -0.15 / 500.0, 1e-9);
  // Points 1 and 2 share wave 1 and so one packet; every packet holds its point's samples.
  EXPECT_EQ(f.points[1].waveOffset, f.points[2].waveOffset);
  const std::size_t firstOfFragment[] = {0, 0, 0, 1, 1};
  for (std::size_t p = 0; p < 5; ++p) {
    const auto& pt = f.points[p];
    EXPECT_EQ(pt.waveDescriptor, 1);
    ASSERT_EQ(pt.waveSize, 12u);
    const std::size_t f0 = firstOfFragment[p], k = (p == 2) ? 1 : (p < 3 ? p : p - 3);
    for (std::size_t s = 0; s < 6; ++s) {
      std::uint16_t v;
      std::memcpy(&v, f.bytes.data() + f.waveDataStart + pt.waveOffset + 2 * s, 2);
      EXPECT_EQ(v, resultSample(f0, k, s)) << "point " << p << " sample " << s;
    }
  }
  // Still readable as format 6 without the flag.
  EXPECT_EQ(exportAndRead(dir.file("result.kq")).pointFormat, 6);
}

// A point the module kept without a usable position (a shot pointing nowhere) has no LAS
// record: it is left out and counted, and the rest of the file is as without it.
TEST_F(Export, LeavesOutPointsWithoutAFinitePositionAndSaysSo) {
  ResultRecipe recipe = twoFragments();
  ResultPoint lost = recipe.fragments[1][0];
  lost.x = std::numeric_limits<double>::quiet_NaN();
  recipe.fragments[1].push_back(lost);
  lost.x = 1000.5;
  lost.z = std::numeric_limits<double>::infinity();
  recipe.fragments[0].insert(recipe.fragments[0].begin(), lost);
  const std::string out = dir.file("out.las");
  const auto r = runQuillo("export " + save(recipe) + " " + out);
  EXPECT_EQ(r.exitCode, 0) << r.output;
  EXPECT_NE(r.output.find("2 point(s) left out: their position is not finite"), std::string::npos)
      << r.output;
  const LasFile f = readLas(out);
  EXPECT_EQ(f.pointCount, 5u);
  ASSERT_EQ(f.points.size(), 5u);
  EXPECT_NEAR(f.points[0].x, 1000.123, 1e-9);
  EXPECT_NEAR(f.max[2], 51.5, 1e-9);
}

TEST_F(Export, RefusesBadInputsAndLeavesNoFile) {
  const std::string out = dir.file("out.las");
  const std::string good = save(twoFragments());
  struct Case {
    std::string arguments, message;
  };
  const fs::path notKq = dir.path() / "text.kq";
  { std::ofstream(notKq) << "not a kq file"; }
  ResultRecipe noFwf;
  const std::string empty = dir.file("empty.kq");
  auto other = Tessal::BundlePtr::make();
  (*other.create())[0.0]->makeGrid("Shots");
  ASSERT_EQ(Tessal::Bundle::save(other, empty), "");
  const Case cases[] = {
      {dir.file("missing.kq") + " " + out, "no such file"},
      {notKq.string() + " " + out, "cannot be read"},
      {empty + " " + out, "no grid \"FWF\""},
      {good + " " + out + " --waveforms", "Waveforms"},
      {good + " " + dir.file("no/such/folder/out.las"), "cannot create"},
  };
  for (const auto& c : cases) {
    const auto r = runQuillo("export " + c.arguments);
    EXPECT_NE(r.exitCode, 0) << c.arguments;
    EXPECT_NE(r.output.find(c.message), std::string::npos) << r.output;
    EXPECT_FALSE(fs::exists(out)) << c.arguments;
  }
  for (const auto& entry : fs::directory_iterator(dir.path()))
    EXPECT_EQ(entry.path().filename().string().find(".partial"), std::string::npos);
}

namespace {

constexpr double kDegree = 3.14159265358979323846 / 180.0;

// One pass at 60 m/s and 500 m above ground, heading along `flight` (a horizontal unit vector),
// one point per 20 ms with the beam `angles` degrees to the right of the flight in turn.
std::vector<ResultPoint> pass(double startTime, const double flight[2],
                              const std::vector<double>& angles) {
  std::vector<ResultPoint> pts;
  const double right[2] = {flight[1], -flight[0]};
  for (std::size_t k = 0; k < 40; ++k) {
    const double t = 0.02 * double(k), a = angles[k % angles.size()] * kDegree;
    const double dir[3] = {right[0] * std::sin(a), right[1] * std::sin(a), -std::cos(a)};
    const double range = 500.0 / std::cos(a);
    ResultPoint p{.time = startTime + t, .range = range};
    p.x = 60.0 * t * flight[0] + range * dir[0];
    p.y = 60.0 * t * flight[1] + range * dir[1];
    p.z = 500.0 + range * dir[2];
    for (int i = 0; i < 3; ++i) p.step[i] = 0.15 * dir[i];
    pts.push_back(p);
  }
  return pts;
}

}  // namespace

TEST_F(Export, ScanAnglesFromNadirPositiveRightOfTheFlightInAnyFrame) {
  const std::vector<double> angles = {-49.8, -20.0, 0.0, 15.0, 49.8};
  const double east[2] = {1.0, 0.0}, west[2] = {-1.0, 0.0};
  ResultRecipe recipe;
  recipe.fragments = {pass(1000.0, east, angles), pass(1100.0, west, angles)};
  // The same beams with the scanner frame turned 90 degrees against the map.
  ResultRecipe turned = recipe;
  turned.scannerToMap = std::array<double, 12>{0, -1, 0, 650000, 1, 0, 0, 5300000, 0, 0, 1, 0};
  for (const ResultRecipe* r : {&recipe, &turned}) {
    const LasFile f = exportAndRead(save(*r));
    ASSERT_EQ(f.points.size(), 80u);
    for (std::size_t k = 0; k < f.points.size(); ++k)
      EXPECT_NEAR(f.points[k].scanAngle, angles[k % 40 % angles.size()] / 0.006, 1.0)
          << "point " << k << (r == &turned ? " (turned frame)" : "");
  }
}

TEST_F(Export, IntensityIsCountsAndScalesDownOnlyPastSixteenBits) {
  ResultRecipe recipe;
  recipe.fragments = {{{.amplitude = 12.4f}, {.amplitude = -3.0f}, {.amplitude = 40000.0f}}};
  const LasFile counts = exportAndRead(save(recipe));
  EXPECT_EQ(counts.points[0].intensity, 12);
  EXPECT_EQ(counts.points[1].intensity, 0);  // below the background
  EXPECT_EQ(counts.points[2].intensity, 40000);
  recipe.fragments[0][1].amplitude = 70000.0f;  // a fit beyond the digitiser's range
  recipe.fragments[0][2].amplitude = 17500.0f;
  const std::string out = dir.file("scaled.las");
  const auto r = runQuillo("export " + save(recipe) + " " + out);
  ASSERT_EQ(r.exitCode, 0) << r.output;
  EXPECT_NE(r.output.find("intensity = amplitude x 0.936214"), std::string::npos) << r.output;
  const LasFile scaled = readLas(out);
  EXPECT_EQ(scaled.points[1].intensity, 65535);
  EXPECT_EQ(scaled.points[2].intensity, 16384);
  EXPECT_EQ(scaled.points[0].intensity, 12);
}

TEST_F(Export, CoordinateSystemFromTheResultOrTheOption) {
  auto wktOf = [](const LasFile& f) -> std::string {
    for (const auto& v : f.vlrs)
      if (v.userId == "LASF_Projection" && v.recordId == 2112 && !v.payload.empty() &&
          v.payload.back() == 0)
        return reinterpret_cast<const char*>(v.payload.data());
    return "";
  };
  ResultRecipe recipe = twoFragments();
  const std::string plain = save(recipe, "plain.kq");
  EXPECT_EQ(wktOf(exportAndRead(plain)), "");
  recipe.coordinateSystem = "EPSG:25832";
  const LasFile own = exportAndRead(save(recipe, "utm.kq"));
  EXPECT_EQ(own.globalEncoding & 16, 16);
  EXPECT_EQ(own.vlrs.size(), 2u);
  EXPECT_NE(wktOf(own).find("PROJCS[\"ETRS89 / UTM zone 32N\""), std::string::npos) << wktOf(own);
  EXPECT_NE(wktOf(own).find("AUTHORITY[\"EPSG\",\"25832\"]]"), std::string::npos);
  const LasFile given = exportAndRead(plain, "--crs EPSG:25833+5783");
  EXPECT_NE(wktOf(given).find("COMPD_CS[\"ETRS89 / UTM zone 33N + DHHN92 height\""),
            std::string::npos)
      << wktOf(given);
  const std::string file = dir.file("utm32.wkt");
  std::ofstream(file) << wktOf(own);
  EXPECT_EQ(wktOf(exportAndRead(plain, "--crs " + file)), wktOf(own));

  struct Case {
    std::string crs, message;
  } const refused[] = {{"EPSG:4326", "degree"},
                       {"EPSG:0", "not a coordinate system PROJ knows"},
                       {"'LOCAL_CS[oops'", "not a coordinate system"}};
  for (const auto& c : refused) {
    const auto r = runQuillo("export " + plain + " " + dir.file("x.las") + " --crs " + c.crs);
    EXPECT_EQ(r.exitCode, 2) << c.crs;
    EXPECT_EQ(r.output.rfind("quillo: --crs: ", 0), 0u) << r.output;
    EXPECT_NE(r.output.find(c.message), std::string::npos) << r.output;
    EXPECT_FALSE(fs::exists(dir.file("x.las")));
  }
  recipe.coordinateSystem = "not WKT";
  const auto r = runQuillo("export " + save(recipe, "bad.kq") + " " + dir.file("x.las"));
  EXPECT_EQ(r.exitCode, 3);
  EXPECT_NE(r.output.find("attribute \"CoordinateSystem\""), std::string::npos) << r.output;
}

TEST_F(Export, WaveformStepsAreInTheFrameOfThePoints) {
  ResultRecipe recipe = twoFragments();
  recipe.waveSamples = 4;
  for (auto& fragment : recipe.fragments)
    for (auto& p : fragment) p.step[0] = 0.1, p.step[1] = 0.0, p.step[2] = -0.1;
  recipe.scannerToMap = std::array<double, 12>{0, -1, 0, 0, 1, 0, 0, 0, 0, 0, 1, 0};
  const LasFile f = exportAndRead(save(recipe), "--waveforms");
  // (0.1, 0, -0.1) per 1000 ps in the scanner frame is (0, 0.1, -0.1) in the map's.
  EXPECT_NEAR(f.points[0].xt, 0.0, 1e-9);
  EXPECT_NEAR(f.points[0].yt, 0.1 / 1000.0, 1e-9);
  EXPECT_NEAR(f.points[0].zt, -0.1 / 1000.0, 1e-9);
}
