// The command line end to end: a simulated survey through run, info, verify, hist and score,
// and the clear messages and exit codes of bad arguments and inputs.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>

#include "support/Command.hpp"
#include "support/LasReader.hpp"
#include "support/TempDir.hpp"

using namespace quillo::test;
namespace fs = std::filesystem;

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
  std::ifstream report(dir->file("r.json"));
  const std::string json((std::istreambuf_iterator<char>(report)), {});
  EXPECT_NE(json.find("\"points_per_zone\""), std::string::npos);
  r = runQuillo("score " + first + " " + out + "/tiny_210315_093000_0.kq --truth " + input);
  ASSERT_EQ(r.exitCode, 0) << r.output;
  EXPECT_NE(r.output.find("true zone"), std::string::npos);
  r = runQuillo("info " + first + " --json");
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_NE(r.output.find("\"BrastowSuccessful?\""), std::string::npos);

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

TEST_F(Cli, BadArgumentsAndInputsGiveClearErrors) {
  EXPECT_EQ(runQuillo("run").exitCode, 106);  // CLI11: a required argument is missing
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
