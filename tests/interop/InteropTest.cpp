// Interop: files written by `quillo export` read by laz-perf (npm, pinned in tests/interop) and
// a reader of the test's own in JavaScript (read-las.mjs): the header, point count, positions
// and extra bytes of a hand-made result; and a simulated survey flown in a turned, georeferenced
// frame, whose LAS must hold scan angles within the sweep, unsaturated intensities, the
// coordinate system, and waveform packets that lead back to the beam of their shot. Needs node
// and npm; installs the package with `npm ci` when it is missing.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "support/Command.hpp"
#include "support/ResultBundles.hpp"
#include "support/TempDir.hpp"

using namespace quillo::test;
namespace fs = std::filesystem;
using Json = nlohmann::json;
using Gemwold::PhysicalSpace::point;
using Gemwold::PhysicalSpace::vector;

namespace {

std::string run(const std::string& command, int& status) {
  std::string out;
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  if (!pipe) return out;
  char buffer[4096];
  std::size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
  status = pclose(pipe);
  return out;
}

class Interop : public ::testing::Test {
 protected:
  void SetUp() override {
    int status = 0;
    run("node --version", status);
    if (status != 0) GTEST_SKIP() << "node is not installed";
    if (!fs::exists(interop / "node_modules" / "laz-perf")) {
      const auto out = run("npm ci --prefix " + interop.string(), status);
      ASSERT_EQ(status, 0) << out;
    }
  }
  // What read-las.mjs tells about `las`.
  Json read(const std::string& las) {
    int status = 0;
    const std::string out = run("node " + (interop / "read-las.mjs").string() + " " + las, status);
    EXPECT_EQ(status, 0) << out;
    return Json::parse(out);
  }
  const fs::path interop = fs::path(QUILLO_SOURCE_DIR) / "tests" / "interop";
  TempDir dir;
};

// Fragment `f` of a field of the input's "Shots" grid.
template <class T>
Vorlap::StrongPtr<Tessal::MemArray<1, T>> shotField(const Tessal::BundlePtr& input,
                                                    const std::string& name, std::size_t f) {
  double t = 0.0;
  auto field = (*(*input.get())(t)->operator()("Shots"))(name, "");
  auto id = field->getFragmentIDCollection()->findFragmentIDByName("Fragment_" + std::to_string(f));
  if (!id) return {};
  return Vorlap::dynamicPtrCast<Tessal::MemArray<1, T>>(field->getCreator(id)->create());
}

struct Beam {
  point origin;
  vector direction;
};

// The beam of the shot fired at `weekSeconds`, from the simulated input, in the map frame
// (not a number when there is no such shot).
Beam beamAt(const Tessal::BundlePtr& input, double weekSeconds, const std::array<double, 12>& m) {
  for (std::size_t f = 0; auto times = shotField<double>(input, "GPSTime", f); ++f) {
    for (std::size_t k = 0; k < times->size(); ++k) {
      if (std::fabs(times->get(k) - weekSeconds) > 4e-7) continue;
      const point o = shotField<point>(input, "Positions", f)->get(k);
      const vector d = shotField<vector>(input, "Waveforms.DirectionDelta", f)->get(k);
      return {
          {m[0] * o.x + m[1] * o.y + m[2] * o.z + m[3], m[4] * o.x + m[5] * o.y + m[6] * o.z + m[7],
           m[8] * o.x + m[9] * o.y + m[10] * o.z + m[11]},
          {m[0] * d.x + m[1] * d.y + m[2] * d.z, m[4] * d.x + m[5] * d.y + m[6] * d.z,
           m[8] * d.x + m[9] * d.y + m[10] * d.z}};
    }
  }
  const double nan = std::nan("");
  return {{nan, nan, nan}, {nan, nan, nan}};
}

double angleBetween(const double a[3], const double b[3]) {
  const double dot = a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
  return std::acos(std::clamp(dot / std::hypot(a[0], a[1], a[2]) / std::hypot(b[0], b[1], b[2]),
                              -1.0, 1.0)) *
         180.0 / 3.14159265358979323846;
}

}  // namespace

TEST_F(Interop, LazPerfReadsAnExportedResult) {
  ResultRecipe recipe;
  recipe.weekNumber = 2149;
  for (int f = 0; f < 2; ++f) {
    recipe.fragments.emplace_back();
    for (int k = 0; k < 20; ++k)
      recipe.fragments.back().push_back({.x = 650000.25 + k + 100 * f,
                                         .y = 5300000.5 - k,
                                         .z = 400.125,
                                         .time = 120600.0 + k,
                                         .mta = 2,
                                         .range = 800.0 + k});
  }
  recipe.fragments[1].back().mta = 4;
  const std::string result = dir.file("r.kq"), las = dir.file("r.las");
  ASSERT_EQ(Tessal::Bundle::save(makeResult(recipe), result), "");
  const auto exported = runQuillo("export " + result + " " + las);
  ASSERT_EQ(exported.exitCode, 0) << exported.output;

  const Json j = read(las);
  EXPECT_EQ(j["header"]["signature"], "LASF");
  EXPECT_EQ(j["header"]["version"], "1.4");
  EXPECT_EQ(j["header"]["systemIdentifier"], "quillo");
  EXPECT_EQ(j["count"], 40);
  EXPECT_EQ(j["pointFormat"], 6);
  EXPECT_EQ(j["header"]["globalEncoding"].get<int>() & 1, 1);
  EXPECT_TRUE(j["crs"].is_null());
  const Json& first = j["points"].front();
  const Json& last = j["points"].back();
  ASSERT_EQ(last["index"], 39);
  EXPECT_NEAR(first["x"].get<double>(), 650000.25, 1e-6);
  EXPECT_NEAR(first["y"].get<double>(), 5300000.5, 1e-6);
  EXPECT_NEAR(first["z"].get<double>(), 400.125, 1e-6);
  EXPECT_NEAR(last["x"].get<double>(), 650119.25, 1e-6);
  EXPECT_NEAR(last["y"].get<double>(), 5299981.5, 1e-6);
  EXPECT_DOUBLE_EQ(last["gpsTime"].get<double>(), 2149 * 604800.0 + 120619.0 - 1e9);
  EXPECT_EQ(first["extra"]["mta_zone"], 2);
  EXPECT_EQ(last["extra"]["mta_zone"], 4);
  EXPECT_DOUBLE_EQ(last["extra"]["range"].get<double>(), 819.0);
}

TEST_F(Interop, SimulatedSurveyInATurnedGeoreferencedFrame) {
  // The simulator's frame turned by 30 degrees and moved into UTM zone 32.
  const double c = std::cos(30.0 * 3.14159265358979323846 / 180.0), s = 0.5;
  const std::array<double, 12> toMap = {c, -s, 0, 650000, s, c, 0, 5300000, 0, 0, 1, 100};
  const std::string simulated = dir.file("plain_210315_093000.kq");
  ASSERT_EQ(runQuillo("simulate --preset tiny --shots 20000 --quiet " + simulated).exitCode, 0);
  bool ok = false;
  Tessal::BundlePtr input;
  Tessal::Bundle::load(ok, Tessal::LoaderParameters({simulated}), input);
  ASSERT_TRUE(ok);
  double t = 0.0;
  auto& shots = (*(*input.get())(t)->operator()("Shots")).attributes();
  shots.setAttribute("ScannerToMap",
                     Vorlap::makeChunk<double>(std::vector<double>(toMap.begin(), toMap.end())));
  shots.setAttribute("CoordinateSystem", Vorlap::makeChunk<std::string>({"EPSG:25832"}));
  const std::string turned = dir.file("turned_210315_093000.kq");
  ASSERT_EQ(Tessal::Bundle::save(input, turned), "");
  auto r = runQuillo("run " + turned + " --quiet --export-fwf --out-dir " + dir.path().string());
  ASSERT_EQ(r.exitCode, 0) << r.output;
  const std::string las = dir.file("turned.las");
  r = runQuillo("export " + dir.file("turned_210315_093000_1.kq") + " " + las + " --waveforms");
  ASSERT_EQ(r.exitCode, 0) << r.output;

  const Json j = read(las);
  EXPECT_NE(j["crs"].get<std::string>().find("ETRS89 / UTM zone 32N"), std::string::npos);
  const Json& sum = j["summary"];
  // The simulator sweeps 0.87 rad (49.85 degrees) either side of nadir.
  EXPECT_NEAR(sum["scanAngleMin"].get<double>(), -49.85, 0.1);
  EXPECT_NEAR(sum["scanAngleMax"].get<double>(), 49.85, 0.1);
  EXPECT_EQ(sum["saturatedIntensities"], 0);
  EXPECT_GT(sum["intensityMax"].get<int>(), 1000);
  const Json& w = j["waveforms"];
  EXPECT_GT(w["echoes"].get<int>(), j["count"].get<int>() * 9 / 10);
  EXPECT_EQ(w["echoesOffPeak"], 0);
  EXPECT_LT(w["worstAnchorSpread"].get<double>(), 0.01);
  EXPECT_LT(w["worstNadirMismatch"].get<double>(), 0.01);

  // One pulse read by hand: its point lies on its shot's beam, and (Xt, Yt, Zt) runs along it
  // (a wrong zone would put it on a beam a few shots away, 0.01 degrees per shot).
  const Json& p = j["points"].front();
  ASSERT_NE(p["wave"]["descriptor"], 0);
  const double weekSeconds = std::fmod(p["gpsTime"].get<double>() + 1e9, 604800.0);
  const Beam beam = beamAt(input, weekSeconds, toMap);
  const double fromOrigin[3] = {p["x"].get<double>() - beam.origin.x,
                                p["y"].get<double>() - beam.origin.y,
                                p["z"].get<double>() - beam.origin.z};
  const double along[3] = {beam.direction.x, beam.direction.y, beam.direction.z};
  const double step[3] = {p["wave"]["step"][0], p["wave"]["step"][1], p["wave"]["step"][2]};
  EXPECT_LT(angleBetween(fromOrigin, along), 0.05);
  EXPECT_LT(angleBetween(step, along), 0.05);
}
