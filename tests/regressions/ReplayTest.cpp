// Replays the fuzz targets' kept inputs through their entry functions: the seed corpora in
// fuzz/corpus/<target>/ and every input a fuzzer once crashed or hung on, kept in
// tests/regressions/<target>/. Each must now finish (a crash fails the whole program).
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "support/FuzzEntries.hpp"

namespace {

namespace fs = std::filesystem;

struct Target {
  const char* name;
  void (*entry)(const std::uint8_t*, std::size_t);
};

const Target kTargets[] = {
    {"kq_run", &quillo::fuzz::loadAndRunKq},
    {"peak_settings", &quillo::fuzz::readPeakSettingsThenDetect},
    {"peak_detection", &quillo::fuzz::detectPeaksInRows},
    {"las_terrain", &quillo::fuzz::readLasTerrain},
};

std::vector<std::uint8_t> bytesOf(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Replays every file in `folder`; returns how many there were.
int replayFolder(const Target& target, const fs::path& folder) {
  int count = 0;
  std::error_code ec;
  for (const auto& file : fs::directory_iterator(folder, ec)) {
    SCOPED_TRACE(file.path().string());
    const std::vector<std::uint8_t> bytes = bytesOf(file.path());
    EXPECT_EQ(bytes.size(), fs::file_size(file.path())) << "unreadable";
    target.entry(bytes.data(), bytes.size());
    ++count;
  }
  return count;
}

class Replay : public testing::TestWithParam<Target> {};

TEST_P(Replay, SeedsAndKeptInputsFinish) {
  const fs::path source(QUILLO_SOURCE_DIR);
  const int seeds = replayFolder(GetParam(), source / "fuzz" / "corpus" / GetParam().name);
  EXPECT_GT(seeds, 0) << "the seed corpus of " << GetParam().name << " is missing";
  replayFolder(GetParam(), source / "tests" / "regressions" / GetParam().name);
}

INSTANTIATE_TEST_SUITE_P(FuzzTargets, Replay, testing::ValuesIn(kTargets),
                         [](const testing::TestParamInfo<Target>& info) {
                           return std::string(info.param.name);
                         });

}  // namespace
