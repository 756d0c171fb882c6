// Scanner attributes of the "Shots" and "Waveforms" grids with wrong values or types, and
// the "RDB_Segment" attribute: a run either refuses the data with a message naming the
// attribute and grid, or runs with a documented reading.
#include <gtest/gtest.h>

#include <limits>

#include "robustness/Survey.hpp"
#include "vorlap/Console.hpp"
#include "waveform/ScannerDevice.hpp"

using namespace quillo::test;
namespace A = FullWaveform::ScannerAttribute;
using Vorlap::makeChunk;

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

struct AttributeCase {
  const char* name;
  const char* grid;  // "Shots" or "Waveforms"
  const char* attribute;
  Vorlap::StrongPtr<Vorlap::ChunkBase> value;  // empty: the attribute is removed
  const char* problem;                         // empty: the run goes on
};

void PrintTo(const AttributeCase& c, std::ostream* os) {
  *os << c.name;
}

class ScannerAttribute : public ::testing::TestWithParam<AttributeCase> {};

}  // namespace

TEST_P(ScannerAttribute, IsRefusedByNameOrRead) {
  const AttributeCase& c = GetParam();
  Survey survey = healthySurvey();
  survey.attributes = [&](Tessal::Grid& shots, Tessal::Grid& waveforms) {
    Tessal::Grid& grid = std::string(c.grid) == "Shots" ? shots : waveforms;
    if (c.value)
      grid.attributes().setAttribute(c.attribute, c.value);
    else
      grid.attributes().removeAttribute(c.attribute);
  };
  const Outcome o = runModule(makeBundle(survey));
  if (std::string(c.problem).empty()) {
    EXPECT_EQ(o.result, "");
    EXPECT_GT(o.total(), 0u);
    EXPECT_LE(o.misplaced(), 3u);  // the last wave of each fragment keeps zone 0
    return;
  }
  EXPECT_EQ(o.result, "Quillo: Could not create Fatboy");
  const std::string expected = std::string("ScannerDevice: attribute \"") + c.attribute +
                               "\" of grid \"" + c.grid + "\" " + c.problem;
  EXPECT_NE(o.console.find(expected), std::string::npos) << o.console;
  EXPECT_NE(o.console.find("FatBoy::FatBoy Cannot ini scannerDevice."), std::string::npos);
  EXPECT_EQ(o.total(), 0u);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Cases, ScannerAttribute, ::testing::Values(
    AttributeCase{"PulseRateZero", "Shots", A::PulseRepetitionRate, makeChunk<double>({0.0}),
                  "must be a positive number, is 0"},
    AttributeCase{"PulseRateMissing", "Shots", A::PulseRepetitionRate, nullptr, "is missing"},
    AttributeCase{"PulseRateNaN", "Shots", A::PulseRepetitionRate, makeChunk<double>({kNaN}),
                  "must be a positive number"},
    AttributeCase{"PulseRateInfinite", "Shots", A::PulseRepetitionRate, makeChunk<double>({kInf}),
                  "must be a positive number"},
    AttributeCase{"PulseRateText", "Shots", A::PulseRepetitionRate, makeChunk<std::string>({"1e6"}),
                  "holds text, not a number"},
    AttributeCase{"PulseRateEmpty", "Shots", A::PulseRepetitionRate, makeChunk<double>({}), "is empty"},
    AttributeCase{"PulseRateAsInteger", "Shots", A::PulseRepetitionRate, makeChunk<int>({1000000}), ""},
    AttributeCase{"LightSpeedNegative", "Shots", A::LightSpeed, makeChunk<double>({-3e8}),
                  "must be a positive number"},
    AttributeCase{"SampleIntervalMissing", "Waveforms", A::SampleInterval, nullptr,
                  "is missing (the waveforms need it)"},
    AttributeCase{"SampleIntervalZero", "Waveforms", A::SampleInterval, makeChunk<double>({0.0}),
                  "must be a positive number, is 0"},
    AttributeCase{"MinAmplitudeNaN", "Shots", A::MinAmplitude, makeChunk<double>({kNaN}),
                  "must be a finite number"},
    AttributeCase{"MinTimeOffsetInfinite", "Shots", A::MinTimeOffset, makeChunk<double>({kInf}),
                  "must be a finite number of 0 or more"},
    AttributeCase{"BlockSizeZero", "Shots", A::BlockSize, makeChunk<int>({0}),
                  "must be a whole number from 1 to 10000000, is 0"},
    AttributeCase{"BlockSizeFraction", "Shots", A::BlockSize, makeChunk<double>({2.5}),
                  "must be a whole number from 1 to 10000000, is 2.5"},
    AttributeCase{"ScanPatternUnknown", "Shots", A::ScanPattern, makeChunk<std::string>({"spiral"}),
                  "is \"spiral\", not line-wise or radial"},
    AttributeCase{"ScanPatternNumber", "Shots", A::ScanPattern, makeChunk<int>({1}), "is not a text"},
    AttributeCase{"ReflectanceTableEmpty", "Shots", A::ReflectanceTable, makeChunk<float>({}), ""},
    AttributeCase{"ReflectanceTableNaN", "Shots", A::ReflectanceTable, makeChunk<float>({1.f, float(kNaN)}),
                  "holds a value that is not finite"},
    AttributeCase{"ReflectanceTableText", "Shots", A::ReflectanceTable, makeChunk<std::string>({"x"}),
                  "is not an array of numbers"}),
    [](const auto& info) { return std::string(info.param.name); });
// clang-format on

TEST(ScannerAttribute, TableStepZeroIsRefusedWhenATableIsThere) {
  Survey survey = healthySurvey();
  survey.attributes = [](Tessal::Grid& shots, Tessal::Grid&) {
    shots.attributes().setAttribute(A::ReflectanceTable, makeChunk<float>({1.f, 2.f}));
    shots.attributes().setAttribute(A::ReflectanceTableStep, makeChunk<double>({0.0}));
  };
  const Outcome o = runModule(makeBundle(survey));
  EXPECT_EQ(o.result, "Quillo: Could not create Fatboy");
  EXPECT_NE(o.console.find("\"ReflectanceTableStep\" of grid \"Shots\" must be a positive number"),
            std::string::npos)
      << o.console;
}

TEST(SegmentAttribute, WrongTypeOrEmptyKeepsTheSegmentAndSaysSo) {
  for (auto value : {Vorlap::StrongPtr<Vorlap::ChunkBase>(makeChunk<double>({0.0})),
                     Vorlap::StrongPtr<Vorlap::ChunkBase>(makeChunk<int>({}))}) {
    Survey survey = healthySurvey();
    survey.attributes = [&](Tessal::Grid& shots, Tessal::Grid&) {
      shots.attributes().setAttribute("RDB_Segment", value);
    };
    auto bundle = makeBundle(survey);
    FullWaveform::Input input;
    EXPECT_EQ(input.setIsDataFrom_RDBX_File(bundle), "setIsDataFrom_RDBX_File:: Attr null");
    EXPECT_EQ(input.RDB_SEGMENT, -1);
  }
}

TEST(SegmentAttribute, OutOfRangeSegmentNamesNoOutputFile) {
  FullWaveform::Input input;
  input.RDB_SEGMENT = 5;
  Vorlap::ConsoleCapture capture;
  const auto [first, second] = input.getOutFileName("run/scan.rxp");
  EXPECT_TRUE(first.empty() && second.empty());
  EXPECT_EQ(capture.joined(), "getOutFileName: Invalid RDB_SEGMENT\n");
}
