// Killed and starved commands: `quillo simulate`, `run` and `export` killed (SIGKILL) at
// random moments never leave a file under its final name unless it is complete (byte for
// byte the file an undisturbed command writes), a rerun succeeds, and the input is never
// touched. A full disk (a file size limit) gives a clear error and no output.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <random>

#include "support/Command.hpp"
#include "support/TempDir.hpp"

using namespace quillo::test;
namespace fs = std::filesystem;

namespace {

struct Step {
  std::string name, arguments;
  std::vector<std::string> finalFiles;
};

class CrashSafety : public ::testing::Test {
 protected:
  void SetUp() override {
    input = dir.file("k_210315_093000.kq");
    fs::create_directory(dir.file("out"));
    steps = {
        {"simulate",
         "simulate --preset tiny --shots 20000 --fragment-shots 5000 " + input,
         {input}},
        {"run",
         "run " + input + " --quiet --out-dir " + dir.file("out"),
         {dir.file("out/k_210315_093000_0.kq"), dir.file("out/k_210315_093000_1.kq")}},
        {"export",
         "export " + dir.file("out/k_210315_093000_1.kq") + " " + dir.file("k.las"),
         {dir.file("k.las")}},
    };
  }
  // Runs a step undisturbed; returns how long it took and keeps the bytes it wrote.
  double reference(const Step& step) {
    const auto start = std::chrono::steady_clock::now();
    const auto r = runQuillo(step.arguments);
    EXPECT_EQ(r.exitCode, 0) << r.output;
    for (const auto& f : step.finalFiles) expected[f] = fileBytes(f);
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
        .count();
  }
  void removeOutputs(const Step& step) {
    for (const auto& f : step.finalFiles) fs::remove(f);
  }
  TempDir dir;
  std::string input;
  std::vector<Step> steps;
  std::map<std::string, std::string> expected;
};

}  // namespace

TEST_F(CrashSafety, KilledCommandsLeaveCompleteFilesOrNone) {
  std::mt19937 random(20261123);
  int killed = 0;
  std::string inputBytes;
  for (const Step& step : steps) {
    const double millis = reference(step);
    if (step.name != "simulate") {
      ASSERT_EQ(fileBytes(input), inputBytes) << "input touched";
    }
    for (int i = 0; i < 6; ++i) {
      removeOutputs(step);
      const int at = std::uniform_int_distribution<int>(1, int(millis * 1.1) + 1)(random);
      killed += runQuilloKilledAfter(step.arguments, at);
      for (const auto& f : step.finalFiles) {
        if (fs::exists(f)) {
          EXPECT_EQ(fileBytes(f), expected[f]) << step.name << " killed at " << at;
        }
      }
    }
    const auto rerun = runQuillo(step.arguments);  // after whatever the kills left behind
    ASSERT_EQ(rerun.exitCode, 0) << step.name << ": " << rerun.output;
    for (const auto& f : step.finalFiles) EXPECT_EQ(fileBytes(f), expected[f]) << f;
    if (step.name == "simulate") inputBytes = fileBytes(input);
    EXPECT_EQ(fileBytes(input), inputBytes) << "input touched by " << step.name;
  }
  EXPECT_GE(killed, 6) << "too few kills landed while a command was running";
}

TEST_F(CrashSafety, AFullDiskGivesAClearErrorAndNoFile) {
  for (const Step& step : steps) {
    reference(step);
    removeOutputs(step);
    // The shell ignores SIGXFSZ so the write fails as it does on a full disk.
    const auto r = runQuillo(step.arguments, "ulimit -f 16; trap '' XFSZ;");
    EXPECT_NE(r.exitCode, 0) << step.name;
    EXPECT_NE(r.output.find("cannot"), std::string::npos) << step.name << ": " << r.output;
    EXPECT_TRUE(
        std::any_of(step.finalFiles.begin(), step.finalFiles.end(),
                    [&](const std::string& f) { return r.output.find(f) != std::string::npos; }))
        << step.name << " should name what it could not write: " << r.output;
    for (const auto& f : step.finalFiles) EXPECT_FALSE(fs::exists(f)) << f;
    ASSERT_EQ(runQuillo(step.arguments).exitCode, 0) << step.name;  // the next step needs it
  }
}
