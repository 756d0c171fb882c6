// Reading the peak detection settings file: values taken, and each kind of bad file named.
#include <gtest/gtest.h>

#include <fstream>

#include "support/TempDir.hpp"
#include "waveform/PeakSettings.hpp"

using namespace FullWaveform;
using quillo::test::TempDir;

namespace {

std::string readText(const TempDir& dir, const std::string& text, PeakSettings& settings) {
  const std::string path = dir.file("peaks.txt");
  std::ofstream(path) << text;
  return readPeakSettings(path, settings);
}

}  // namespace

TEST(PeakSettings, ReadsKeysCommentsAndBlankLines) {
  TempDir dir;
  PeakSettings s;
  const std::string error = readText(dir,
                                     "# tuned for the lake survey\n\n"
                                     "threshold = 5.5   # sigmas\n"
                                     "max_echoes=3\n"
                                     "reference_pulse_width = 4e-9\n"
                                     "saturation_level = 4095\n",
                                     s);
  EXPECT_EQ(error, "");
  EXPECT_DOUBLE_EQ(s.thresholdSigmas, 5.5);
  EXPECT_EQ(s.maxEchoes, 3);
  EXPECT_DOUBLE_EQ(s.referencePulseWidth, 4e-9);
  EXPECT_DOUBLE_EQ(s.saturationLevel, 4095);
  EXPECT_EQ(s.fitMaxIterations, PeakSettings{}.fitMaxIterations);  // untouched keys keep defaults
}

TEST(PeakSettings, BadFilesNameFileLineAndProblem) {
  TempDir dir;
  struct Case {
    const char* text;
    const char* expected;
  };
  const Case cases[] = {
      {"threshold = 4\nwhatever\n", "line 2: expected \"key = value\""},
      {"\n# c\nlevel = 3\n", "line 3: unknown key \"level\""},
      {"threshold = 4\nthreshold = 5\n", "line 2: \"threshold\" is given twice"},
      {"threshold = four\n", "line 1: \"four\" is not a number"},
      {"threshold = 4x\n", "line 1: \"4x\" is not a number"},
      {"threshold =\n", "line 1: \"\" is not a number"},
      {"max_echoes = 0\n", "line 1: \"max_echoes\" is out of range"},
      {"max_echoes = 2.5\n", "line 1: \"max_echoes\" must be a whole number"},
      {"min_pulse_width = 5e-9\nmax_pulse_width = 4e-9\n", "min_pulse_width must be below"},
  };
  for (const Case& c : cases) {
    PeakSettings s;
    const std::string error = readText(dir, c.text, s);
    EXPECT_NE(error.find(c.expected), std::string::npos) << c.text << " -> " << error;
    EXPECT_NE(error.find("peaks.txt"), std::string::npos) << error;
  }
}

TEST(PeakSettings, MissingFileIsNamed) {
  TempDir dir;
  PeakSettings s;
  const std::string error = readPeakSettings(dir.file("absent.txt"), s);
  EXPECT_NE(error.find("absent.txt"), std::string::npos);
  EXPECT_NE(error.find("cannot be read"), std::string::npos);
}
