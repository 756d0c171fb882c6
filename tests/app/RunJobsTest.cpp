// `quillo run` over several inputs: --jobs gives the same bytes as one input after another
// and as a second run; the progress lines on a pipe; `quillo demo` writes what it lists.
#include <gtest/gtest.h>

#include <filesystem>

#include "support/Command.hpp"
#include "support/TempDir.hpp"

using namespace quillo::test;
namespace fs = std::filesystem;

namespace {

class RunJobs : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir = new TempDir();
    for (const char* seed : {"1", "2"}) {
      const std::string input = dir->file("s" + std::string(seed) + "_210315_093000.kq");
      const auto r =
          runQuillo("simulate --preset tiny --shots 20000 --fragment-shots 5000 --seed " +
                    std::string(seed) + " " + input);
      ASSERT_EQ(r.exitCode, 0) << r.output;
      inputs += " " + input;
    }
  }
  static void TearDownTestSuite() { delete dir; }
  static std::string runInto(const std::string& folder, const std::string& options) {
    fs::create_directory(dir->file(folder));
    const auto r = runQuillo("run" + inputs + " --quiet --out-dir " + dir->file(folder) + options);
    EXPECT_EQ(r.exitCode, 0) << r.output;
    return dir->file(folder);
  }
  static TempDir* dir;
  static std::string inputs;
};
TempDir* RunJobs::dir = nullptr;
std::string RunJobs::inputs;

}  // namespace

TEST_F(RunJobs, ParallelRunsWriteTheSameBytesAsSequentialOnes) {
  const std::string one = runInto("one", " --jobs 1");
  const std::string two = runInto("two", " --jobs 2");
  const std::string again = runInto("again", " --jobs 2");
  int compared = 0;
  for (const auto& entry : fs::directory_iterator(one)) {
    const fs::path name = entry.path().filename();
    const std::string bytes = fileBytes(entry.path());
    ASSERT_FALSE(bytes.empty()) << name;
    EXPECT_EQ(bytes, fileBytes(fs::path(two) / name)) << name;
    EXPECT_EQ(bytes, fileBytes(fs::path(again) / name)) << name;
    ++compared;
  }
  EXPECT_EQ(compared, 4);  // two outputs per input
}

TEST_F(RunJobs, ProgressLinesOnAPipeUnlessQuiet) {
  const std::string input = inputs.substr(1, inputs.find(' ', 1) - 1);
  fs::create_directory(dir->file("progress"));
  auto r = runQuillo("run " + input + " --out-dir " + dir->file("progress"));
  ASSERT_EQ(r.exitCode, 0) << r.output;
  EXPECT_NE(r.output.find("fragment 0/4"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("fragment 4/4"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("waves/s"), std::string::npos) << r.output;
  EXPECT_EQ(r.output.find("\r"), std::string::npos) << "no bar redraws on a pipe";
  r = runQuillo("run " + input + " --quiet --out-dir " + dir->file("progress"));
  ASSERT_EQ(r.exitCode, 0) << r.output;
  EXPECT_EQ(r.output.find("fragment "), std::string::npos) << r.output;
}

TEST(Demo, WritesEverythingItLists) {
  TempDir dir;
  const auto r = runQuillo("demo --preset tiny --dir " + dir.file("work"));
  ASSERT_EQ(r.exitCode, 0) << r.output;
  for (const char* row :
       {"shots          60000", "waves", "points", "zone accuracy", "wrong zone", "export"})
    EXPECT_NE(r.output.find(row), std::string::npos) << row << "\n" << r.output;
  int listed = 0;
  for (const auto& entry : fs::directory_iterator(dir.file("work"))) {
    const std::string path = entry.path().string();
    if (entry.path().filename().string().front() == '.') ADD_FAILURE() << "left over: " << path;
    EXPECT_NE(r.output.find(path), std::string::npos) << path << " written but not listed";
    ++listed;
  }
  EXPECT_GE(listed, 5);  // input, two results, LAS and quick-look of the main result
}
