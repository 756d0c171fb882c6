// `quillo batch` on one machine: plans refuse bad inputs before anything runs, a task is
// skipped when done and redone when its outputs are damaged, `batch local` writes what
// `quillo run` writes, failures reach status and report with their messages, and the sbatch
// script carries the measured memory. (Slurm itself: tests/cluster/slurm-batch-test.sh.)
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "support/Command.hpp"
#include "support/TempDir.hpp"

using namespace quillo::test;
namespace fs = std::filesystem;
using nlohmann::json;

namespace {

class Batch : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir = new TempDir();
    fs::create_directory(dir->file("strips"));
    const auto r = runQuillo(
        "simulate --preset tiny --shots 9000 --fragment-shots 3000 --lines 3 "
        "--split-lines --quiet " +
        dir->file("strips/s_210315_093000.kq"));
    ASSERT_EQ(r.exitCode, 0) << r.output;
  }
  static void TearDownTestSuite() { delete dir; }
  static std::string strip(int line) {
    return dir->file("strips/s_210315_093000_line" + std::to_string(line) + ".kq");
  }
  static std::string allStrips() { return strip(0) + " " + strip(1) + " " + strip(2); }
  // Plans the inputs into a fresh folder; returns the plan's path.
  static std::string plan(const std::string& folder, const std::string& inputs) {
    const auto r = runQuillo("batch plan " + inputs + " --out-dir " + dir->file(folder));
    EXPECT_EQ(r.exitCode, 0) << r.output;
    return dir->file(folder + "/plan.json");
  }
  static json readJson(const std::string& path) {
    std::ifstream in(path);
    return json::parse(in);
  }
  static TempDir* dir;
};
TempDir* Batch::dir = nullptr;

}  // namespace

TEST_F(Batch, SplitLinesWritesOneStripPerFlightLine) {
  for (int line = 0; line < 3; ++line) {
    const auto r = runQuillo("info --json " + strip(line));
    ASSERT_EQ(r.exitCode, 0) << r.output;
    const json shots = json::parse(r.output)["grids"][0];
    EXPECT_EQ(shots["name"], "Shots");
    EXPECT_EQ(shots["charts"][0]["fields"][0]["elements"], 3000) << line;
    EXPECT_EQ(shots["attributes"]["SimulationSeed"]["value"], std::to_string(1 + line));
  }
  EXPECT_FALSE(fs::exists(dir->file("strips/s_210315_093000.kq")));
}

TEST_F(Batch, PlanRefusesBadInputsAndOptionsNamingThem) {
  fs::create_directories(dir->file("twin"));
  fs::copy_file(strip(0), dir->file("twin/s_210315_093000_line0.kq"));
  auto r =
      runQuillo("batch plan " + strip(0) + " " + dir->file("twin/s_210315_093000_line0.kq") + " " +
                dir->file("strips/none_210315_093000.kq") + " --out-dir " + dir->file("refused"));
  EXPECT_EQ(r.exitCode, 3) << r.output;
  EXPECT_NE(r.output.find("none_210315_093000.kq: no such file"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("clashes with " + strip(0)), std::string::npos) << r.output;
  EXPECT_FALSE(fs::exists(dir->file("refused/plan.json")));

  r = runQuillo("batch plan " + strip(0) + " --mode fancy --out-dir " + dir->file("refused"));
  EXPECT_EQ(r.exitCode, 2) << r.output;
  EXPECT_NE(r.output.find("--mode: unknown mode \"fancy\""), std::string::npos) << r.output;

  fs::copy_file(strip(0), dir->file("twin/nodate.kq"));
  r = runQuillo("batch plan " + dir->file("twin/nodate.kq") + " --out-dir " + dir->file("refused"));
  EXPECT_NE(r.output.find("nodate.kq: the file name carries no acquisition date"),
            std::string::npos)
      << r.output;
  EXPECT_FALSE(fs::exists(dir->file("refused/plan.json")));
}

TEST_F(Batch, ATaskIsSkippedWhenDoneAndRedoneWhenItsOutputIsDamaged) {
  const std::string p = plan("resume", strip(1));
  const std::string output = dir->file("resume/s_210315_093000_line1_1.kq");
  auto r = runQuillo("batch run " + p + " --task 0");
  ASSERT_EQ(r.exitCode, 0) << r.output;
  const json report = readJson(dir->file("resume/s_210315_093000_line1.task.json"));
  EXPECT_EQ(report["state"], "done");
  EXPECT_EQ(report["exit_status"], 0);
  EXPECT_FALSE(report["host"].get<std::string>().empty());
  EXPECT_GT(report["peak_memory_mib"].get<double>(), 0.0);
  EXPECT_EQ(report["run"]["runs"][0]["outputs"].size(), 2u);
  const std::string bytes = fileBytes(output);

  r = runQuillo("batch run " + p + " --task 0");
  EXPECT_EQ(r.exitCode, 0) << r.output;
  EXPECT_NE(r.output.find("skipped"), std::string::npos) << r.output;

  fs::resize_file(output, fs::file_size(output) / 2);
  std::ofstream(output + ".tmp-1-0") << "left by a killed attempt";
  r = runQuillo("batch run " + p + " --task 0");
  EXPECT_EQ(r.exitCode, 0) << r.output;
  EXPECT_NE(r.output.find("done"), std::string::npos) << r.output;
  EXPECT_EQ(fileBytes(output), bytes);
  EXPECT_FALSE(fs::exists(output + ".tmp-1-0"));

  r = runQuillo("batch run " + p + " --task 1");
  EXPECT_EQ(r.exitCode, 2) << r.output;
  EXPECT_NE(r.output.find("has tasks 0 to 0, not 1"), std::string::npos) << r.output;
}

TEST_F(Batch, LocalWritesWhatRunWritesAndReportSumsTheStrips) {
  const std::string p = plan("local", allStrips());
  // Two tasks at a time with two threads each: the bytes of one thread.
  auto r = runQuillo("batch local " + p + " --jobs 2 --threads 4");
  ASSERT_EQ(r.exitCode, 0) << r.output;
  EXPECT_EQ(readJson(dir->file("local/s_210315_093000_line1.task.json"))["threads"], 2);
  EXPECT_NE(r.output.find("3 tasks: 3 done, 0 failed, 0 running, 0 missing"), std::string::npos)
      << r.output;
  EXPECT_NE(r.output.find("strip 3/3"), std::string::npos) << r.output;
  fs::create_directory(dir->file("single"));
  r = runQuillo("run " + allStrips() + " --quiet --out-dir " + dir->file("single"));
  ASSERT_EQ(r.exitCode, 0) << r.output;
  for (int line = 0; line < 3; ++line)
    for (const char* part : {"_1.kq", "_0.kq"}) {
      const std::string name = "s_210315_093000_line" + std::to_string(line) + part;
      EXPECT_EQ(fileBytes(dir->file("local/" + name)), fileBytes(dir->file("single/" + name)))
          << name;
    }

  r = runQuillo("batch report " + p + " --json " + dir->file("summary.json"));
  ASSERT_EQ(r.exitCode, 0) << r.output;
  const json summary = readJson(dir->file("summary.json"));
  std::uint64_t points = 0;
  for (const auto& s : summary["strips"]) points += s["points"].get<std::uint64_t>();
  EXPECT_GT(points, 0u);
  EXPECT_EQ(summary["total"]["points"].get<std::uint64_t>(), points);
  EXPECT_EQ(summary["slowest"].size(), 3u);
  EXPECT_TRUE(summary["failures"].empty());
}

TEST_F(Batch, RefineIsPlannedForEveryTaskAndOlderPlansRunWithout) {
  fs::create_directory(dir->file("refined"));
  auto r = runQuillo("batch plan " + strip(1) + " --refine --out-dir " + dir->file("refined"));
  ASSERT_EQ(r.exitCode, 0) << r.output;
  const std::string p = dir->file("refined/plan.json");
  json planned = readJson(p);
  EXPECT_TRUE(planned["run_options"]["refine"].get<bool>()) << planned.dump();
  r = runQuillo("batch run " + p + " --task 0");
  ASSERT_EQ(r.exitCode, 0) << r.output;
  fs::create_directory(dir->file("refined-run"));
  r = runQuillo("run " + strip(1) + " --refine --quiet --out-dir " + dir->file("refined-run"));
  ASSERT_EQ(r.exitCode, 0) << r.output;
  for (const char* part : {"_1.kq", "_0.kq"}) {
    const std::string name = std::string("s_210315_093000_line1") + part;
    EXPECT_EQ(fileBytes(dir->file("refined/" + name)), fileBytes(dir->file("refined-run/" + name)))
        << name;
  }
  // A plan written before the option existed has no "refine" and still loads.
  planned["run_options"].erase("refine");
  std::ofstream(p) << planned.dump(2);
  r = runQuillo("batch status " + p);
  EXPECT_EQ(r.exitCode, 0) << r.output;
}

TEST_F(Batch, AFailedTaskReachesStatusAndReportWithItsMessage) {
  fs::create_directories(dir->file("broken"));
  const std::string bad = dir->file("broken/b_210315_093000.kq");
  fs::copy_file(strip(0), bad);
  const std::string p = plan("failing", bad + " " + strip(2));
  std::ofstream(bad, std::ios::trunc) << "no longer a .kq file";
  auto r = runQuillo("batch local " + p + " --quiet");
  EXPECT_EQ(r.exitCode, 1) << r.output;
  r = runQuillo("batch status " + p);
  EXPECT_EQ(r.exitCode, 0) << r.output;
  EXPECT_NE(r.output.find("task 0 failed b_210315_093000.kq: " + bad + ": cannot be read"),
            std::string::npos)
      << r.output;
  EXPECT_NE(r.output.find("task 1 done"), std::string::npos) << r.output;
  r = runQuillo("batch report " + p);
  EXPECT_NE(r.output.find("failed: task 0 " + bad + ": " + bad + ": cannot be read"),
            std::string::npos)
      << r.output;
  EXPECT_NE(r.output.find("tasks: 1 done 1 failed"), std::string::npos) << r.output;
}

TEST_F(Batch, SlurmScriptTakesTheMeasuredMemoryOrRefusesWithoutOne) {
  const std::string fresh = plan("script", strip(0) + " " + strip(2));
  auto r = runQuillo("batch slurm " + fresh);
  EXPECT_EQ(r.exitCode, 2) << r.output;
  EXPECT_NE(r.output.find("give --mem"), std::string::npos) << r.output;

  r = runQuillo("batch slurm " + fresh +
                " --mem 3G --max-parallel 1 --partition short --cpus-per-task 3");
  ASSERT_EQ(r.exitCode, 0) << r.output;
  std::string script = fileBytes(dir->file("script/plan.sbatch"));
  EXPECT_NE(script.find("#SBATCH --array=0-1%1\n"), std::string::npos) << script;
  EXPECT_NE(script.find("#SBATCH --mem=3G\n"), std::string::npos) << script;
  EXPECT_NE(script.find("#SBATCH --partition=short\n"), std::string::npos) << script;
  EXPECT_NE(script.find("#SBATCH --output=" + dir->file("script/logs") + "/task-%a.log\n"),
            std::string::npos)
      << script;
  EXPECT_NE(script.find("#SBATCH --cpus-per-task=3\n"), std::string::npos) << script;
  EXPECT_NE(script.find("batch run '" + fresh + "' --task \"$SLURM_ARRAY_TASK_ID\" --threads 3\n"),
            std::string::npos)
      << script;

  ASSERT_EQ(runQuillo("batch run " + fresh + " --task 1").exitCode, 0);
  r = runQuillo("batch slurm " + fresh);
  ASSERT_EQ(r.exitCode, 0) << r.output;
  script = fileBytes(dir->file("script/plan.sbatch"));
  EXPECT_NE(script.find("# memory: measured peak"), std::string::npos) << script;
  EXPECT_NE(script.find("#SBATCH --time="), std::string::npos) << script;
  EXPECT_NE(script.find("#SBATCH --array=0-1\n"), std::string::npos) << script;
}
