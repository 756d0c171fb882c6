// `quillo run` with the refinement on several threads saves the refined fragments on a thread
// of its own while the writer refines on: the files hold the bytes one thread writes (the
// same fragments in each write, many writes of small fragments and writes with none), the
// report counts the points of the fragments encoded there as one thread counts them on its
// grid, also over a range of fragments inside the strip, and a write that fails there ends
// the run cleanly.
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "support/Command.hpp"
#include "support/TempDir.hpp"

using namespace quillo::test;
namespace fs = std::filesystem;

namespace {

class RefinedSaving : public ::testing::Test {
 protected:
  // Sixty scan lines in eighty fragments of 500 shots: a block of the window every few
  // fragments, most reports with nothing refined to write.
  static void SetUpTestSuite() {
    dir = new TempDir();
    input = dir->file("saved_210315_093000.kq");
    const auto r = runQuillo(
        "simulate --preset tiny --shots 40000 --scan-rate 1500 --fragment-shots 500 " + input);
    ASSERT_EQ(r.exitCode, 0) << r.output;
  }
  static void TearDownTestSuite() { delete dir; }

  // Runs into a folder of its own; returns its report's run, without the output paths.
  static nlohmann::json runInto(const std::string& folder, const std::string& arguments) {
    fs::create_directory(dir->file(folder));
    const std::string report = dir->file(folder + ".json");
    const auto r = runQuillo("run " + input + " --mode fast --refine --quiet " + arguments +
                             " --out-dir " + dir->file(folder) + " --report " + report);
    EXPECT_EQ(r.exitCode, 0) << r.output;
    auto run = nlohmann::json::parse(fileBytes(report))["runs"][0];
    for (auto& o : run["outputs"]) o.erase("path");
    return run;
  }
  static void expectSameFiles(const std::string& reference, const std::string& other) {
    int compared = 0;
    for (const auto& entry : fs::directory_iterator(dir->file(reference))) {
      EXPECT_TRUE(fileBytes(entry.path()) ==
                  fileBytes(fs::path(dir->file(other)) / entry.path().filename()))
          << entry.path().filename() << " differs in " << other;
      ++compared;
    }
    EXPECT_EQ(compared, 2) << "both outputs";
  }
  static TempDir* dir;
  static std::string input;
};
TempDir* RefinedSaving::dir = nullptr;
std::string RefinedSaving::input;

}  // namespace

TEST_F(RefinedSaving, ThreadsWriteAndCountWhatOneThreadDoes) {
  const auto one = runInto("one", "--threads 1");
  ASSERT_EQ(one["outputs"].size(), 2u);
  EXPECT_GT(one["refinement"]["moved"].get<int>(), 100) << "fragments were changed";
  EXPECT_GT(one["outputs"][0]["points_per_zone"].size(), 1u);
  for (const char* n : {"2", "3"}) {
    const auto many = runInto(std::string("threads-") + n, std::string("--threads ") + n);
    EXPECT_EQ(many["outputs"], one["outputs"]) << n << " threads";
    EXPECT_EQ(many["refinement"], one["refinement"]) << n << " threads";
    expectSameFiles("one", std::string("threads-") + n);
  }
}

// A range that starts and ends inside the strip: the window starts at its first fragment and
// the saving thread gets passes without fragments until the first block is in, then blocks
// between many such passes.
TEST_F(RefinedSaving, AFragmentRangeOnThreadsWritesWhatOneThreadWrites) {
  const auto one = runInto("range-one", "--fragments 7:61 --threads 1");
  EXPECT_GT(one["refinement"]["moved"].get<int>(), 50) << "fragments were changed";
  for (const char* n : {"2", "3"}) {
    const auto many =
        runInto(std::string("range-threads-") + n, std::string("--fragments 7:61 --threads ") + n);
    EXPECT_EQ(many["outputs"], one["outputs"]) << n << " threads";
    expectSameFiles("range-one", std::string("range-threads-") + n);
  }
}

TEST_F(RefinedSaving, AFailedWriteEndsTheRunAndLeavesNoFile) {
  fs::create_directory(dir->file("full"));
  // Files capped at 64 KiB: a write of the saving thread fails as on a full disk.
  const auto r = runQuillo(
      "run " + input + " --mode fast --refine --threads 2 --quiet --out-dir " + dir->file("full"),
      "ulimit -f 64; trap '' XFSZ;");
  EXPECT_NE(r.exitCode, 0) << r.output;
  EXPECT_NE(r.output.find("cannot save"), std::string::npos) << r.output;
  EXPECT_TRUE(fs::is_empty(dir->file("full"))) << "no output and no temporary file";
}
