// The command line end to end: a simulated survey through run, info, verify, hist and score,
// their JSON, and the clear messages and exit codes of bad arguments, inputs and failures.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "app/CaughtError.hpp"
#include "support/Command.hpp"
#include "support/LasReader.hpp"
#include "support/TempDir.hpp"

using namespace quillo::test;
namespace fs = std::filesystem;
using Json = nlohmann::json;

namespace {

class Cli : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir = new TempDir();
    input = dir->file("tiny_210315_093000.kq");
    const auto r =
        runQuillo("simulate --preset tiny --shots 30000 --fragment-shots 10000 " + input);
    ASSERT_EQ(r.exitCode, 0) << r.output;
  }
  static void TearDownTestSuite() { delete dir; }
  static TempDir* dir;
  static std::string input;
};
TempDir* Cli::dir = nullptr;
std::string Cli::input;

// Parses the file (nlohmann refuses text that is not valid UTF-8).
Json jsonFile(const std::string& path) {
  std::ifstream in(path);
  return Json::parse(in);
}

}  // namespace

TEST_F(Cli, RunWritesVerifiedOutputsAndAReport) {
  const std::string out = dir->file("out");
  fs::create_directory(out);
  auto r =
      runQuillo("run " + input + " --out-dir " + out + " --quiet --report " + dir->file("r.json"));
  ASSERT_EQ(r.exitCode, 0) << r.output;
  const std::string first = out + "/tiny_210315_093000_1.kq";
  ASSERT_TRUE(fs::exists(first));
  EXPECT_EQ(runQuillo("verify " + first + " --compare-fragments").exitCode, 0);
  const Json report = jsonFile(dir->file("r.json"));
  ASSERT_EQ(report["runs"].size(), 1u);
  EXPECT_EQ(report["runs"][0]["input"], input);
  EXPECT_EQ(report["runs"][0]["result"], "");
  EXPECT_GT(report["runs"][0]["seconds_per_stage"]["run"].get<double>(), 0.0);
  for (const Json& o : report["runs"][0]["outputs"]) {
    std::uint64_t perZone = 0;
    for (const auto& [zone, n] : o["points_per_zone"].items()) perZone += n.get<std::uint64_t>();
    EXPECT_EQ(perZone, o["points"].get<std::uint64_t>()) << o["path"];
    EXPECT_EQ(o["verification"], "");
  }
  r = runQuillo("score " + first + " " + out + "/tiny_210315_093000_0.kq --truth " + input +
                " --json " + dir->file("score.json"));
  ASSERT_EQ(r.exitCode, 0) << r.output;
  EXPECT_NE(r.output.find("true zone"), std::string::npos);
  const Json score = jsonFile(dir->file("score.json"));
  EXPECT_GT(score["zone_accuracy"].get<double>(), 0.9);
  EXPECT_EQ(score["confusion"].size(), 10u);
  EXPECT_EQ(score["confusion"][3].size(), 10u);
  r = runQuillo("info " + first + " --json");
  EXPECT_EQ(r.exitCode, 0);
  const Json info = Json::parse(r.output);
  EXPECT_EQ(info["grids"][0]["name"], "FWF");
  EXPECT_EQ(info["grids"][0]["attributes"]["BrastowSuccessful?"]["value"], "\"yes\"");
  // The input's coordinate system came through the run.
  EXPECT_EQ(info["coordinate_system"]["name"], "quillo simulated scene");

  // Every point of a clean survey is a number through and through (a flat-topped echo once
  // gave NaN amplitudes here).
  ASSERT_EQ(runQuillo("export " + first + " " + dir->file("first.las")).exitCode, 0);
  const LasFile las = readLas(dir->file("first.las"));
  ASSERT_GT(las.points.size(), 10000u);
  std::size_t notNumbers = 0;
  using namespace extra;
  for (std::size_t k = 0; k < las.points.size(); ++k)
    notNumbers += !std::isfinite(las.extraValue<double>(k, kRange)) ||
                  !std::isfinite(las.extraValue<float>(k, kAmplitude)) ||
                  !std::isfinite(las.extraValue<double>(k, kPulseWidth)) ||
                  !std::isfinite(las.extraValue<float>(k, kDamping));
  EXPECT_EQ(notNumbers, 0u);
}

TEST_F(Cli, HistAndInfoOfAnInput) {
  auto r = runQuillo("hist " + input + " --fragment 1");
  ASSERT_EQ(r.exitCode, 0) << r.output;
  EXPECT_NE(r.output.find("MTA 3("), std::string::npos);
  r = runQuillo("info " + input);
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_NE(r.output.find("shots: 30000"), std::string::npos) << r.output;
  EXPECT_EQ(runQuillo("hist " + input + " --fragment 9").exitCode, 2);
}

TEST_F(Cli, BadArgumentsExitWithTwoAndOneLine) {
  const struct {
    std::string arguments, message;
  } cases[] = {{"run", "quillo: run: inputs is required (see 'quillo run --help')"},
               {"run " + input + " --no-such-option", "quillo: run: "},
               {"export a.kq", "quillo: export: "},
               {"simulate x.kq --shots many", "quillo: simulate: "},
               {"frobnicate", "quillo: "}};
  for (const auto& c : cases) {
    const auto r = runQuillo(c.arguments);
    EXPECT_EQ(r.exitCode, 2) << c.arguments << "\n" << r.output;
    EXPECT_EQ(r.output.rfind(c.message, 0), 0u) << r.output;
    EXPECT_EQ(std::count(r.output.begin(), r.output.end(), '\n'), 1) << r.output;
  }
  EXPECT_EQ(runQuillo("run --help").exitCode, 0);
  EXPECT_EQ(runQuillo("--version").exitCode, 0);
}

TEST(CaughtError, AnyExceptionBecomesAnErrorOfTheCommandLine) {
  using namespace quillo::cli;
  EXPECT_EQ(caughtError("a.kq", [] {}), nullptr);
  auto e = caughtError("a.kq", [] { throw CliError(kInput, "a.kq: damaged"); });
  EXPECT_EQ(e->code(), kInput);
  EXPECT_STREQ(e->what(), "a.kq: damaged");
  e = caughtError("a.kq", [] { throw std::bad_alloc(); });
  EXPECT_EQ(e->code(), kFailure);
  EXPECT_STREQ(e->what(), "a.kq: out of memory");
  e = caughtError("a.kq", [] { throw std::out_of_range("vector::at"); });
  EXPECT_STREQ(e->what(), "a.kq: internal error: vector::at");
  e = caughtError("", [] { throw 42; });
  EXPECT_EQ(e->code(), kFailure);
  EXPECT_STREQ(e->what(), "internal error of an unknown kind");
}

TEST_F(Cli, JsonStaysValidForFileNamesThatAreNotUtf8) {
  const std::string odd = dir->file("odd\xff\xfe\"\\_210315_093000.kq");
  fs::copy_file(input, odd);
  const std::string out = dir->file("odd-out");
  fs::create_directory(out);
  const std::string quoted = "'" + odd + "'";
  auto r = runQuillo("run " + quoted + " --quiet --mta 3 --out-dir " + out + " --report " +
                     dir->file("odd.json"));
  ASSERT_EQ(r.exitCode, 0) << r.output;
  const Json report = jsonFile(dir->file("odd.json"));
  const std::string name = report["runs"][0]["input"];
  EXPECT_NE(name.find("odd\xEF\xBF\xBD\xEF\xBF\xBD\"\\_"), std::string::npos) << name;
  r = runQuillo("info " + quoted + " --json");
  ASSERT_EQ(r.exitCode, 0);
  EXPECT_NO_THROW(Json::parse(r.output)) << r.output;
}

TEST_F(Cli, BadInputsGiveClearErrors) {
  auto r = runQuillo("run " + dir->file("missing_210315_093000.kq"));
  EXPECT_EQ(r.exitCode, 3);
  EXPECT_NE(r.output.find("no such file"), std::string::npos);
  std::ofstream(dir->file("text_210315_093000.kq")) << "not hdf5";
  r = runQuillo("run " + dir->file("text_210315_093000.kq") + " --quiet");
  EXPECT_EQ(r.exitCode, 3);
  EXPECT_NE(r.output.find("not an HDF5 file"), std::string::npos);
  r = runQuillo("run " + input + " --out-dir " + dir->file("text_210315_093000.kq") + "/sub");
  EXPECT_EQ(r.exitCode, 4);
  EXPECT_NE(r.output.find("sub: cannot create the folder"), std::string::npos) << r.output;
  r = runQuillo("run " + input + " --mode fastest");
  EXPECT_EQ(r.exitCode, 2);
  EXPECT_NE(r.output.find("unknown mode \"fastest\""), std::string::npos);
  fs::copy_file(input, dir->file("nodate.kq"));
  r = runQuillo("run " + dir->file("nodate.kq"));
  EXPECT_EQ(r.exitCode, 2);
  EXPECT_NE(r.output.find("--date"), std::string::npos);
  EXPECT_FALSE(fs::exists(dir->file("nodate_1.kq")));
  r = runQuillo("verify " + input);
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_NE(r.output.find("No FWF-Grid: "), std::string::npos);
}

TEST_F(Cli, SegmentedInputIsNeverReplacedByItsOutput) {
  const std::string segmented = dir->file("seg_210315_093000.kq");
  ASSERT_EQ(runQuillo("simulate --preset tiny --shots 5000 --rdb-segment 1 --quiet " + segmented)
                .exitCode,
            0);
  const std::string before = fileBytes(segmented);
  const auto r = runQuillo("run " + segmented + " --quiet");
  EXPECT_EQ(r.exitCode, 2);
  EXPECT_NE(r.output.find("would replace the input"), std::string::npos) << r.output;
  EXPECT_EQ(fileBytes(segmented), before);
}
