// Scanner description, online evaluation, names and the date utility.
#include <gtest/gtest.h>

#include <cmath>

#include "pelkor/Chronometry.hpp"
#include "support/Arrays.hpp"
#include "vorlap/Console.hpp"
#include "waveform/FWFModus.hpp"
#include "waveform/OnlineEvaluation.hpp"

using namespace FullWaveform;
using namespace quillo::test;
namespace A = ScannerAttribute;

namespace {

Vorlap::StrongPtr<Tessal::Grid> shotsWith(double rate) {
  auto g = Vorlap::makeStrong<Tessal::Grid>("Shots");
  g->attributes().setAttribute(A::PulseRepetitionRate, Vorlap::makeChunk<double>({rate}));
  return g;
}

// The console lines a scanner description built from these grids writes.
std::string problems(const Vorlap::StrongPtr<Tessal::Grid>& shots,
                     const Vorlap::StrongPtr<Tessal::Grid>& waveforms = {}) {
  Vorlap::ConsoleCapture capture;
  ScannerDevice s(shots, waveforms);
  EXPECT_EQ(s(), capture.messages().empty());
  return capture.joined();
}

}  // namespace

TEST(ScannerDevice, DefaultsAndReadValues) {
  ScannerDevice d;
  EXPECT_FALSE(d());
  EXPECT_EQ(d.minAmplitude, 8.6);
  EXPECT_EQ(d.minTimeOffset, 6.673156177586246e-09);
  EXPECT_EQ(d.blockSize, 200);
  EXPECT_EQ(d.reflectanceTableStep, 0.1373470495519926);

  auto shots = shotsWith(1.0e6);
  auto& a = shots->attributes();
  a.setAttribute(A::LightSpeed, Vorlap::makeChunk<float>({3.0e8f}));
  a.setAttribute(A::BlockSize, Vorlap::makeChunk<unsigned>({150u}));
  a.setAttribute(A::ScanPattern, Vorlap::makeChunk<std::string>({"Radial"}));
  a.setAttribute(A::ReflectanceTable, Vorlap::makeChunk<double>({-1.0, -2.0}));
  a.setAttribute(A::ReflectanceTableStep, Vorlap::makeChunk<double>({0.5}));
  a.setAttribute(A::ModelName, Vorlap::makeChunk<std::string>({"Q-1"}));
  auto waveforms = Vorlap::makeStrong<Tessal::Grid>("Waveforms");
  waveforms->attributes().setAttribute(A::SampleInterval, Vorlap::makeChunk<double>({1e-9}));
  ScannerDevice s(shots, waveforms);
  ASSERT_TRUE(s());
  EXPECT_EQ(s.getMTALengthAsTime(), 5e-7);
  EXPECT_EQ(s.lightSpeed, 3.0e8);
  EXPECT_EQ(s.blockSize, 150);
  EXPECT_TRUE(s.isRadial());
  EXPECT_FALSE(s.isLineWise());
  EXPECT_EQ(s.sampleInterval, 1e-9);
  ASSERT_TRUE(s.reflectanceTable);
  EXPECT_EQ(s.reflectanceTable->values, (std::vector<float>{-1.0f, -2.0f}));
  const std::string text = s.speak();
  for (const char* line :
       {"ScannerModel: Q-1\n", "PulseRepetitionRate: 1e+06\n", "LightSpeed: 3e+08\n",
        "SampleInterval: 1e-09\n", "BlockSize: 150\n", "ScanPattern: radial\n",
        "ReflectanceTable: 2 entries\n", "ReflectanceTableStep: 0.5\n"})
    EXPECT_NE(text.find(line), std::string::npos) << line;
}

TEST(ScannerDevice, MissingOrMeaninglessValues) {
  EXPECT_NE(problems(Vorlap::makeStrong<Tessal::Grid>("Shots"))
                .find("\"PulseRepetitionRate\" of grid \"Shots\" is missing"),
            std::string::npos);
  EXPECT_NE(problems(shotsWith(0.0)).find("must be a positive number"), std::string::npos);
  EXPECT_NE(problems(shotsWith(std::nan(""))).find("PulseRepetitionRate"), std::string::npos);
  auto with = [](const char* name, Vorlap::StrongPtr<Vorlap::ChunkBase> chunk) {
    auto g = shotsWith(1e6);
    g->attributes().setAttribute(name, chunk);
    return problems(g);
  };
  EXPECT_NE(with(A::LightSpeed, Vorlap::makeChunk<double>({-1.0})).find("LightSpeed"),
            std::string::npos);
  EXPECT_NE(
      with(A::SampleInterval, Vorlap::makeChunk<double>({-1e-9})).find("must not be negative"),
      std::string::npos);
  EXPECT_NE(with(A::ScanPattern, Vorlap::makeChunk<std::string>({"spiral"})).find("\"spiral\""),
            std::string::npos);
  EXPECT_NE(with(A::MinAmplitude, Vorlap::makeChunk<std::string>({"8"})).find("not a number"),
            std::string::npos);
  EXPECT_NE(with(A::BlockSize, Vorlap::makeChunk<int>({0})).find("BlockSize"), std::string::npos);
  EXPECT_NE(with(A::ReflectanceTable, Vorlap::makeChunk<float>({1.0f, NAN})).find("not finite"),
            std::string::npos);
  EXPECT_EQ(with(A::ReflectanceTable, Vorlap::makeChunk<float>({})), "");  // empty: no table
  auto waveforms = Vorlap::makeStrong<Tessal::Grid>("Waveforms");
  EXPECT_NE(problems(shotsWith(1e6), waveforms)
                .find("\"SampleInterval\" of grid \"Waveforms\" is missing"),
            std::string::npos);
  EXPECT_NE(problems({}).find("no Shots grid"), std::string::npos);
}

TEST(OnlineEvaluation, GroupsConsecutiveRecordsOfOneShotAndChannel) {
  ScannerDevice scanner;
  scanner.lightSpeed = 3.0e8;
  OnlineEvaluation<unsigned short> online(scanner);
  auto waves = online.apply(makeArray<double>({1.0, 1.0, 1.0, 2.0, 1.0}),
                            makeStridedArray<double>({30.0, 15.0, 15.0, 45.0, 60.0}, 1, 2),
                            makeArray<float>({5.f, 9.f, 7.f, 3.f, 1.f}),
                            makeArray<std::uint8_t>({0, 0, 1, 0, 0}),
                            makeArray<float>({-1.f, -2.f, -3.f, -4.f, -5.f}));
  ASSERT_EQ(waves.size(), 4u);  // (1, ch0) twice: the records are not consecutive
  const auto& first = *waves[0];
  EXPECT_TRUE(first.amplitudeExempt);
  EXPECT_EQ(first.size(), 2u);
  EXPECT_NEAR(first.echoes[0].time, 1e-7, 1e-18);  // 15 m, sorted by range
  EXPECT_EQ(first.echoes[0].pointType, TYPE_FIRST);
  EXPECT_EQ(first.echoes[1].pointType, TYPE_LAST);
  EXPECT_EQ(first.echoes[0].reflectance, -2.f);
  EXPECT_EQ(first.timeOffset, first.echoes[0].time);
  EXPECT_EQ(first.amplitude, 9.f);
  EXPECT_EQ(waves[1]->channel, 1);
  EXPECT_EQ(waves[3]->waveTime, 1.0);
  EXPECT_EQ(waves[3]->echoes[0].pointType, TYPE_SINGLE);
  EXPECT_TRUE(online.apply({}, {}, {}, {}, {}).empty());
}

TEST(Names, ModesAndPointTypes) {
  for (FWFModus m : allModes()) {
    FWFModus back;
    ASSERT_TRUE(modusFromName(getNameOfModus(m), back));
    EXPECT_EQ(back, m);
  }
  FWFModus m;
  EXPECT_TRUE(modusFromName("FAST", m));
  EXPECT_EQ(m, FWF_FAST_PEAKS);
  EXPECT_FALSE(modusFromName("fastest", m));
  EXPECT_EQ(getNameOfModus(FWFModus(9)), "Undefined");
  EXPECT_EQ(convertType(TYPE_SATURATED), "Saturated");
  EXPECT_EQ(convertType(TYPE(8)), "Undefined");
}

TEST(Chronometry, GpsWeeksDaysAndImpossibleDates) {
  auto week = [](const char* text) {
    Pelkor::Chronometry c(text);
    return std::make_tuple(c.year, c.weekNumber, unsigned(c.weekDay));
  };
  EXPECT_EQ(week("060180"), std::make_tuple(1980u, 0u, 0u));
  EXPECT_EQ(week("210899"), std::make_tuple(1999u, 1023u, 6u));
  EXPECT_EQ(week("220899"), std::make_tuple(1999u, 1024u, 0u));  // first rollover
  EXPECT_EQ(week("060419"), std::make_tuple(2019u, 2047u, 6u));
  EXPECT_EQ(week("070419"), std::make_tuple(2019u, 2048u, 0u));  // second rollover
  EXPECT_EQ(week("150321"), std::make_tuple(2021u, 2149u, 1u));
  EXPECT_EQ(std::get<0>(week("290200")), 2000u);
  EXPECT_EQ(std::get<0>(week("290224")), 2024u);
  for (const char* bad :
       {"290221", "011321", "320121", "000121", "0501800", "ab0121", "050180", ""})
    EXPECT_EQ(week(bad), std::make_tuple(0u, 0u, 0u)) << bad;
}
