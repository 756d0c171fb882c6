// The command line of `quillo run` and the peak-settings file with bad values: each is
// refused with a message naming the option or file (and line), or runs as documented.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "robustness/Survey.hpp"
#include "support/Command.hpp"
#include "support/TempDir.hpp"

using namespace quillo::test;

namespace {

struct CommandCase {
  const char* name;
  std::string arguments;  // after "run INPUT"; INPUT is a healthy survey in the temp folder
  int exitCode;
  const char* message;
};

void PrintTo(const CommandCase& c, std::ostream* os) {
  *os << c.name;
}

class RunCommandLine : public ::testing::TestWithParam<CommandCase> {};

std::string quoted(const std::string& s) {
  return "'" + s + "'";
}

std::string savedSurvey(const TempDir& dir, const Survey& survey = healthySurvey()) {
  const std::string file = dir.file("survey_210315_093000.kq");
  EXPECT_EQ(Tessal::Bundle::save(makeBundle(survey), file), "");
  return file;
}

std::size_t filesIn(const std::filesystem::path& folder) {
  std::size_t n = 0;
  for (const auto& e : std::filesystem::directory_iterator(folder)) n += e.is_regular_file();
  return n;
}

}  // namespace

TEST_P(RunCommandLine, IsRefusedByNameAndWritesNothing) {
  const CommandCase& c = GetParam();
  TempDir dir;
  const std::string input = savedSurvey(dir);
  std::ofstream(dir.file("bad.settings")) << "threshold = 4\nwidth = 3\n";
  std::string arguments = c.arguments;
  for (std::size_t at; (at = arguments.find("DIR/")) != std::string::npos;)
    arguments.replace(at, 4, dir.path().string() + "/");
  const CommandResult r = runQuillo("run --quiet " + quoted(input) + " " + arguments);
  EXPECT_EQ(r.exitCode, c.exitCode) << r.output;
  EXPECT_NE(r.output.find(c.message), std::string::npos) << r.output;
  EXPECT_EQ(filesIn(dir.path()), 2u) << "no output file may be written";
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Options, RunCommandLine, ::testing::Values(
    CommandCase{"EmptyFragmentRange", "--fragments 3:3", 2, "--fragments: the range 3:3 holds no fragment"},
    CommandCase{"FragmentRangeNotANumber", "--fragments a:2", 2, "--fragments: \"a\" is not a whole number"},
    CommandCase{"FragmentRangeWithoutColon", "--fragments 2", 2, "--fragments: expected A:B, got 2"},
    CommandCase{"NegativeZone", "--mta -3", 2, "--mta: \"-3\" is not a whole number of 0 or more"},
    CommandCase{"UnknownMode", "--mode fastest", 2, "--mode: unknown mode \"fastest\""},
    CommandCase{"SegmentOutOfRange", "--segment 5", 2, "--segment: use -1, 0 or 1"},
    CommandCase{"BadDate", "--date 2021-03-15", 2, "--date: expected YYMMDD_HHMMSS"},
    CommandCase{"OutputFolderUnderAFile", "--out-dir DIR/bad.settings/sub", 4,
                "bad.settings/sub: cannot create the folder"},
    CommandCase{"MissingPeakSettings", "--peak-settings DIR/none.settings", 2, "none.settings"},
    CommandCase{"BadPeakSettings", "--peak-settings DIR/bad.settings", 1,
                "bad.settings, line 2: unknown key \"width\""},
    CommandCase{"NoJobs", "--jobs 0", 2, "--jobs"}),
    [](const auto& info) { return std::string(info.param.name); });
// clang-format on

TEST(RunCommandLine, UnreadableInputsAreNamed) {
  TempDir dir;
  const std::string whole = savedSurvey(dir);
  const std::string cut = dir.file("cut_210315_093000.kq");
  std::filesystem::copy_file(whole, cut);
  std::filesystem::resize_file(cut, std::filesystem::file_size(whole) / 2);
  const std::string undated = dir.file("survey.kq");
  std::filesystem::copy_file(whole, undated);
  for (const auto& [input, code, message] : std::vector<std::tuple<std::string, int, std::string>>{
           {dir.file("none_210315_093000.kq"), 3, "none_210315_093000.kq: no such file"},
           {cut, 3, cut + ": cannot be read as a .kq file"},
           {undated, 2, undated + ": the file name carries no acquisition date"}}) {
    const CommandResult r = runQuillo("run --quiet " + quoted(input));
    EXPECT_EQ(r.exitCode, code) << r.output;
    EXPECT_NE(r.output.find(message), std::string::npos) << r.output;
  }
}

// The run checks its input first: a fragment the module would skip as broken stops the run
// with the field and fragment named (the module's own warning is tested with the driver).
// A fragment the module would skip is named before the run, and the rest is written.
TEST(RunCommandLine, ABrokenFragmentIsNamedAndTheRestWritten) {
  TempDir dir;
  Survey survey = healthySurvey();
  survey.fragments[1].ranges.pop_back();
  const std::string input = savedSurvey(dir, survey);
  // One output: this small survey's scan lines would leave the second one without points.
  const CommandResult r = runQuillo("run --quiet --segment 0 --out-dir " + quoted(dir.file("out")) +
                                    " " + quoted(input));
  EXPECT_EQ(r.exitCode, 0) << r.output;
  EXPECT_NE(r.output.find("field \"Range\" of grid \"OPP\", Fragment_1 has 239 elements, the "
                          "grid's other fields 240: the run skips that fragment as broken"),
            std::string::npos)
      << r.output;
  EXPECT_NE(r.output.find("Warning! Broken Fragment for FragNr 1. Skipping..."), std::string::npos);
  EXPECT_NE(r.output.find("[verified]"), std::string::npos) << r.output;
}

namespace {

struct SettingsCase {
  const char* name;
  const char* text;  // nullptr: no such file
  const char* problem;
};

void PrintTo(const SettingsCase& c, std::ostream* os) {
  *os << c.name;
}

class PeakSettingsFile : public ::testing::TestWithParam<SettingsCase> {};

}  // namespace

TEST_P(PeakSettingsFile, EndsTheRunNamingFileAndLine) {
  TempDir dir;
  const std::string path = dir.file("peaks.settings");
  if (GetParam().text) std::ofstream(path) << GetParam().text;
  FullWaveform::Input input;
  input.peakDetectionPath = path;
  const Outcome o = runModule(makeBundle(healthySurvey()), input);
  const std::string problem = GetParam().problem;
  if (problem.empty()) {
    EXPECT_EQ(o.result, "");
    EXPECT_LE(o.misplaced(), 3u);  // the last wave of each fragment keeps zone 0
    return;
  }
  EXPECT_EQ(o.result, "peak detection settings " + path + problem);
  EXPECT_EQ(o.total(), 0u);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Cases, PeakSettingsFile, ::testing::Values(
    SettingsCase{"Missing", nullptr, ": cannot be read"},
    SettingsCase{"Empty", "", ""},
    SettingsCase{"OnlyComments", "# nothing set\n\n", ""},
    SettingsCase{"UnknownKey", "threshold = 4\nwidth = 3\n", ", line 2: unknown key \"width\""},
    SettingsCase{"NoEqualsSign", "threshold 4\n", ", line 1: expected \"key = value\""},
    SettingsCase{"NotANumber", "threshold = nan\n", ", line 1: \"nan\" is not a number"},
    SettingsCase{"OutOfRange", "max_echoes = 1000\n", ", line 1: \"max_echoes\" is out of range"},
    SettingsCase{"NotWhole", "max_echoes = 2.5\n", ", line 1: \"max_echoes\" must be a whole number"},
    SettingsCase{"GivenTwice", "threshold = 4\nthreshold = 5\n", ", line 2: \"threshold\" is given twice"},
    SettingsCase{"WidthsCrossed", "min_pulse_width = 5e-9\nmax_pulse_width = 4e-9\n",
                 ": min_pulse_width must be below max_pulse_width"}),
    [](const auto& info) { return std::string(info.param.name); });
// clang-format on
