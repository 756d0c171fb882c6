// Interop: a file written by `quillo export` read by laz-perf (npm, pinned in tests/interop)
// must give the header, point count, positions and extra bytes of the .kq result. Needs node
// and npm; installs the package with `npm ci` when it is missing.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <regex>

#include "support/Command.hpp"
#include "support/ResultBundles.hpp"
#include "support/TempDir.hpp"

using namespace quillo::test;
namespace fs = std::filesystem;

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

// The first number after "key": at or after `from` in `json`.
double number(const std::string& json, const std::string& key, std::size_t from = 0) {
  const std::size_t at = json.find("\"" + key + "\":", from);
  if (at == std::string::npos) throw std::runtime_error("no key " + key + " in " + json);
  return std::strtod(json.c_str() + at + key.size() + 3, nullptr);
}

}  // namespace

TEST(InteropTest, LazPerfReadsExportedFile) {
  int status = 0;
  run("node --version", status);
  if (status != 0) GTEST_SKIP() << "node is not installed";
  const fs::path interop = fs::path(QUILLO_SOURCE_DIR) / "tests" / "interop";
  if (!fs::exists(interop / "node_modules" / "laz-perf")) {
    const auto out = run("npm ci --prefix " + interop.string(), status);
    ASSERT_EQ(status, 0) << out;
  }
  TempDir dir;
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

  const std::string json = run("node " + (interop / "read-las.mjs").string() + " " + las, status);
  ASSERT_EQ(status, 0) << json;
  EXPECT_NE(json.find("\"signature\":\"LASF\""), std::string::npos) << json;
  EXPECT_NE(json.find("\"version\":\"1.4\""), std::string::npos);
  EXPECT_NE(json.find("\"systemIdentifier\":\"quillo\""), std::string::npos);
  EXPECT_EQ(number(json, "count"), 40);
  EXPECT_EQ(number(json, "pointFormat"), 6);
  EXPECT_EQ(static_cast<int>(number(json, "globalEncoding")) & 1, 1);
  const std::size_t first = json.find("\"index\":0"), last = json.find("\"index\":39");
  ASSERT_NE(first, std::string::npos);
  ASSERT_NE(last, std::string::npos);
  EXPECT_NEAR(number(json, "x", first), 650000.25, 1e-6);
  EXPECT_NEAR(number(json, "y", first), 5300000.5, 1e-6);
  EXPECT_NEAR(number(json, "z", first), 400.125, 1e-6);
  EXPECT_NEAR(number(json, "x", last), 650119.25, 1e-6);
  EXPECT_NEAR(number(json, "y", last), 5299981.5, 1e-6);
  EXPECT_DOUBLE_EQ(number(json, "gpsTime", last), 2149 * 604800.0 + 120619.0 - 1e9);
  EXPECT_EQ(number(json, "mta_zone", first), 2);
  EXPECT_EQ(number(json, "mta_zone", last), 4);
  EXPECT_DOUBLE_EQ(number(json, "range", last), 819.0);
}
