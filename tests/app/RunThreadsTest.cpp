// `quillo run --threads`: the fragments of one input across threads write the same bytes as
// one thread (both peak-detection modes, a fragment range, many tiny fragments, the refinement
// over many fragments, without scratch space, together with --jobs) and report the same counts, and
// a run that fails in a later thread, or while writing, ends cleanly and leaves no output file.
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "support/Command.hpp"
#include "support/InputBundles.hpp"
#include "support/TempDir.hpp"
#include "tessal/Bundle.hpp"

using namespace quillo::test;
namespace fs = std::filesystem;

namespace {

class RunThreads : public ::testing::Test {
 protected:
  // Two small surveys of eight fragments each.
  static void SetUpTestSuite() {
    dir = new TempDir();
    for (const char* seed : {"1", "2"}) {
      const std::string input = dir->file("t" + std::string(seed) + "_210315_093000.kq");
      const auto r =
          runQuillo("simulate --preset tiny --shots 16000 --fragment-shots 2000 --seed " +
                    std::string(seed) + " " + input);
      ASSERT_EQ(r.exitCode, 0) << r.output;
      inputs.push_back(input);
    }
  }
  static void TearDownTestSuite() { delete dir; }

  static std::string runInto(const std::string& folder, const std::string& arguments) {
    fs::create_directory(dir->file(folder));
    const auto r = runQuillo("run " + arguments + " --quiet --out-dir " + dir->file(folder));
    EXPECT_EQ(r.exitCode, 0) << r.output;
    return dir->file(folder);
  }
  // Every file of `reference` has a byte-identical twin in `other`; returns how many.
  static int expectSameFiles(const std::string& reference, const std::string& other) {
    int compared = 0;
    for (const auto& entry : fs::directory_iterator(reference)) {
      const std::string bytes = fileBytes(entry.path());
      EXPECT_FALSE(bytes.empty()) << entry.path();
      EXPECT_TRUE(bytes == fileBytes(fs::path(other) / entry.path().filename()))
          << entry.path().filename() << " differs in " << other;
      ++compared;
    }
    return compared;
  }
  static TempDir* dir;
  static std::vector<std::string> inputs;
};
TempDir* RunThreads::dir = nullptr;
std::vector<std::string> RunThreads::inputs;

}  // namespace

TEST_F(RunThreads, EveryThreadCountWritesTheBytesOfOneThread) {
  for (const std::string mode : {"gaussian", "fast"}) {
    const std::string args = inputs[0] + " --mode " + mode;
    const std::string one = runInto(mode + "-1", args + " --threads 1");
    for (const char* n : {"2", "3", "8"})
      EXPECT_EQ(expectSameFiles(one, runInto(mode + "-" + n, args + " --threads " + n)), 2)
          << mode << " with " << n << " threads";
  }
}

TEST_F(RunThreads, AFragmentRangeAcrossThreadsNumbersItsPointsAsOneThreadDoes) {
  const std::string args = inputs[1] + " --mode fast --fragments 1:7";
  const std::string one = runInto("range-1", args + " --threads 1");
  EXPECT_EQ(expectSameFiles(one, runInto("range-3", args + " --threads 3")), 2);
}

// The refinement refines a block of fragments once the lines after it are in and writes it:
// threads must hand it the same fragments in the same order.
TEST_F(RunThreads, RefinedOutputsOfThreadsAreThoseOfOneThread) {
  const std::string args = inputs[0] + " --mode fast --refine";
  const std::string one = runInto("refine-1", args + " --threads 1");
  EXPECT_EQ(expectSameFiles(one, runInto("refine-3", args + " --threads 3")), 2);
}

// The workers count the points of the fragments they encode: the report must add them up as
// one thread counts them.
TEST_F(RunThreads, ReportedCountsAreThoseOfOneThread) {
  auto counts = [&](const std::string& threads) {
    const std::string folder = dir->file("counts-" + threads), report = folder + ".json";
    fs::create_directory(folder);
    const auto r = runQuillo("run " + inputs[1] + " --mode fast --quiet --threads " + threads +
                             " --out-dir " + folder + " --report " + report);
    EXPECT_EQ(r.exitCode, 0) << r.output;
    auto outputs = nlohmann::json::parse(fileBytes(report))["runs"][0]["outputs"];
    for (auto& o : outputs) o.erase("path");
    return outputs;
  };
  const auto one = counts("1");
  ASSERT_EQ(one.size(), 2u);
  EXPECT_GT(one[0]["points"].get<int>(), 0);
  EXPECT_GT(one[0]["points_per_zone"].size(), 1u);
  EXPECT_EQ(counts("3"), one);
}

TEST_F(RunThreads, WithoutScratchSpaceWaitingFragmentsStayInMemory) {
  const std::string args = inputs[1] + " --mode fast --threads 3";
  const std::string one = runInto("scratch-1", inputs[1] + " --mode fast --threads 1");
  fs::create_directory(dir->file("no-scratch"));
  const auto r = runQuillo("run " + args + " --quiet --out-dir " + dir->file("no-scratch"),
                           "TMPDIR=" + dir->file("missing") + "; export TMPDIR;");
  ASSERT_EQ(r.exitCode, 0) << r.output;
  EXPECT_EQ(expectSameFiles(one, dir->file("no-scratch")), 2);
}

TEST_F(RunThreads, ThreadsAndJobsTogether) {
  const std::string both = inputs[0] + " " + inputs[1] + " --mode fast";
  const std::string one = runInto("jobs-1", both + " --jobs 1 --threads 1");
  EXPECT_EQ(expectSameFiles(one, runInto("jobs-2x2", both + " --jobs 2 --threads 4")), 4);
  EXPECT_EQ(expectSameFiles(one, runInto("jobs-3x1", both + " --jobs 3 --threads 2")), 4);
}

TEST_F(RunThreads, AWriteErrorLeavesNoFile) {
  fs::create_directory(dir->file("full"));
  // Output files are capped at 64 KiB, far below what the survey gives; with SIGXFSZ ignored
  // the write fails as on a full disk.
  const auto r = runQuillo(
      "run " + inputs[0] + " --mode fast --threads 3 --quiet --out-dir " + dir->file("full"),
      "ulimit -f 64; trap '' XFSZ;");
  EXPECT_NE(r.exitCode, 0) << r.output;
  EXPECT_NE(r.output.find("cannot save"), std::string::npos) << r.output;
  EXPECT_TRUE(fs::is_empty(dir->file("full"))) << "no output and no temporary file";
}

namespace {

// Eight fragments of 40 shots, one online echo each at 450 m; in fragment `crowded` the first
// shot has 300 of them, more returns than a point cloud can number.
std::string writeCrowdedSurvey(const TempDir& dir, std::uint32_t crowded) {
  std::vector<ShotFragment> shots(8);
  for (std::uint32_t f = 0; f < 8; ++f)
    for (int k = 0; k < 40; ++k) shots[f].times.push_back(10.0 + f * 1e-3 + k * 1e-6);
  auto bundle = makeShotsBundle(shots);
  for (std::uint32_t f = 0; f < 8; ++f) {
    OnlineFragment echoes;
    for (double t : shots[f].times) {
      const int n = f == crowded && t == shots[f].times.front() ? 300 : 1;
      for (int e = 0; e < n; ++e) {
        echoes.times.push_back(t);
        echoes.ranges.push_back(450.0 + 0.5 * e);
        echoes.amplitudes.push_back(10.0f);
        echoes.channels.push_back(1);
      }
    }
    addOnlineFragment(bundle, f, echoes);
  }
  const std::string path = dir.file("crowded_210315_093000.kq");
  EXPECT_EQ(Tessal::Bundle::save(bundle, path), "");
  return path;
}

}  // namespace

TEST(RunThreadsFailure, AModuleErrorInALaterThreadEndsTheRunAsOneThreadDoes) {
  TempDir dir;
  const std::string input = writeCrowdedSurvey(dir, 6);
  std::string oneThread;
  for (const char* n : {"1", "4"}) {
    const std::string out = dir.file(std::string("out-") + n);
    fs::create_directory(out);
    const auto r = runQuillo("run " + input + " --mta 0 --skip-fwf --quiet --threads " +
                             std::string(n) + " --out-dir " + out);
    EXPECT_NE(r.exitCode, 0) << r.output;
    EXPECT_NE(r.output.find("ReturnNumber exceed"), std::string::npos) << r.output;
    EXPECT_TRUE(fs::is_empty(out)) << n << " threads left a file";
    if (oneThread.empty()) oneThread = r.output;
    EXPECT_EQ(r.output, oneThread) << "the same message whatever the thread count";
  }
}

// Forty fragments of a hundred shots: the later ranges read a copy of the checked load, and
// the workers hand over fragment after fragment of tiny outputs.
TEST_F(RunThreads, ManyTinyFragmentsWriteTheBytesOfOneThread) {
  const std::string input = dir->file("many_210315_093000.kq");
  const auto r = runQuillo("simulate --preset tiny --shots 4000 --fragment-shots 100 " + input);
  ASSERT_EQ(r.exitCode, 0) << r.output;
  const std::string one = runInto("many-1", input + " --mode fast --threads 1");
  EXPECT_EQ(expectSameFiles(one, runInto("many-2", input + " --mode fast --threads 2")), 2);
  EXPECT_EQ(expectSameFiles(one, runInto("many-3", input + " --mode fast --threads 3")), 2);
}

// Eighty scan lines in a hundred fragments: the refinement's window moves over several blocks
// while the threads hand fragments over, and what it writes is what one thread writes.
TEST_F(RunThreads, ManySmallFragmentsRefineAsOneThread) {
  const std::string input = dir->file("lines_210315_093000.kq");
  auto r = runQuillo("simulate --preset tiny --shots 40000 --scan-rate 2000 --fragment-shots 400 " +
                     input);
  ASSERT_EQ(r.exitCode, 0) << r.output;
  const std::string args = input + " --mode fast --refine";
  const std::string one = runInto("lines-1", args + " --threads 1 --report " + dir->file("l.json"));
  const auto refinement = nlohmann::json::parse(fileBytes(dir->file("l.json")))["runs"][0];
  EXPECT_GT(refinement["refinement"]["moved"].get<int>(), 100);
  EXPECT_EQ(expectSameFiles(one, runInto("lines-2", args + " --threads 2")), 2);
  EXPECT_EQ(expectSameFiles(one, runInto("lines-3", args + " --threads 3")), 2);
}
