// A run over 300 tiny fragments: the outputs (one dataset per field) are the same bytes for
// one and two threads, and hold the same values whether the input was written with one
// dataset per field or one per fragment.
#include <gtest/gtest.h>

#include <filesystem>

#include "support/BundleCompare.hpp"
#include "support/Command.hpp"
#include "support/TempDir.hpp"

using namespace quillo::test;
namespace fs = std::filesystem;

TEST(RunManyFragments, ThreadsAndInputLayoutsGiveTheSameOutputs) {
  TempDir dir;
  auto simulate = [&](const std::string& name, const std::string& version) {
    const std::string file = dir.file(name + "_210315_093000.kq");
    const auto r = runQuillo("simulate --preset tiny --shots 3000 --fragment-shots 10 --quiet " +
                             std::string("--kq-version ") + version + " " + file);
    EXPECT_EQ(r.exitCode, 0) << r.output;
    return file;
  };
  auto run = [&](const std::string& input, const std::string& folder, const char* threads) {
    fs::create_directory(dir.file(folder));
    const auto r = runQuillo("run " + input + " --mode fast --quiet --threads " + threads +
                             " --out-dir " + dir.file(folder));
    EXPECT_EQ(r.exitCode, 0) << r.output;
    return dir.file(folder);
  };
  const std::string perField = simulate("field", "2"), perFragment = simulate("fragment", "1");
  EXPECT_EQ(firstFileDifference(perField, perFragment), "");
  const std::string one = run(perField, "one", "1"), two = run(perField, "two", "2");
  const std::string old = run(perFragment, "old", "1");
  for (const char* output : {"field_210315_093000_0.kq", "field_210315_093000_1.kq"}) {
    const std::string bytes = fileBytes(fs::path(one) / output);
    ASSERT_FALSE(bytes.empty()) << output;
    EXPECT_TRUE(bytes == fileBytes(fs::path(two) / output)) << output << " differs with 2 threads";
    std::string fromOld = output;
    fromOld.replace(0, 5, "fragment");
    EXPECT_EQ(firstFileDifference(fs::path(one) / output, fs::path(old) / fromOld), "") << output;
  }
}
