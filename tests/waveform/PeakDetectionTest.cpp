// Peak detection on known rows: positions, widths, overlaps, clipping, noise, lengths.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>

#include "support/Arrays.hpp"
#include "support/SyntheticWaveforms.hpp"
#include "support/TempDir.hpp"
#include "waveform/PeakDetection.hpp"

using namespace FullWaveform;
using namespace quillo::test;

namespace {

ScannerDevice scannerWithInterval(double dt) {
  ScannerDevice s;
  s.sampleInterval = dt;
  return s;
}

struct Rows {
  explicit Rows(const std::vector<SyntheticRow>& rows, SyntheticSettings settings = {},
                std::uint64_t seed = 1)
      : samples(renderRows(rows, settings, seed)) {
    for (std::size_t r = 0; r < rows.size(); ++r) {
      lengths.push_back(std::uint16_t(settings.samples));
      times.push_back(100.0 + double(r));
      sbl.push_back(1.0e-6);
      channels.push_back(1);
    }
  }
  PeakDetectionFamily<unsigned short>::WaveList detect(FWFModus mode, std::int32_t noise = 0) {
    ScannerDevice scanner = scannerWithInterval(1e-9);
    PeakDetectionFamily<unsigned short> d(mode, scanner, {}, "test.kq", samples->extent(0));
    EXPECT_EQ(d.errorText(), "");
    return d.apply(samples, makeArray(lengths), makeArray(times), makeArray(sbl),
                   makeArray(channels), noise, "Fragment_0");
  }
  Vorlap::StrongPtr<Tessal::MemArray<2, std::uint16_t>> samples;
  std::vector<std::uint16_t> lengths;
  std::vector<double> times, sbl;
  std::vector<std::uint8_t> channels;
};

}  // namespace

TEST(PeakDetection, SingleEchoInEveryMode) {
  Rows rows({{{{30.3, 400.0, 3.0}}}});
  for (FWFModus mode : allModes()) {
    auto waves = rows.detect(mode);
    ASSERT_EQ(waves.size(), 1u);
    ASSERT_EQ(waves[0]->size(), 1u) << getNameOfModus(mode);
    const auto& e = waves[0]->echoes[0];
    EXPECT_NEAR(e.samplePosition, 30.3, 0.1) << getNameOfModus(mode);
    EXPECT_NEAR(e.amplitude, 400.0, 20.0);
    EXPECT_EQ(e.pointType, TYPE_SINGLE);
    EXPECT_NEAR(e.time, 1.0e-6 + e.samplePosition * 1e-9, 1e-15);
    EXPECT_EQ(waves[0]->timeOffset, e.time);
    EXPECT_EQ(waves[0]->waveTime, 100.0);
    EXPECT_FALSE(waves[0]->amplitudeExempt);
    if (mode == FWF_PEAKS_NO_WIDTH)
      EXPECT_EQ(e.pulseWidth, 0.0);
    else
      EXPECT_NEAR(e.pulseWidth, 3.0e-9, 0.3e-9);
  }
}

TEST(PeakDetection, DecompositionSeparatesOverlappingEchoes) {
  Rows rows({{{{28.0, 300.0, 3.0}, {32.5, 250.0, 3.0}}}});
  auto waves = rows.detect(FWF_GAUSSIAN_DECOMPOSITION);
  ASSERT_EQ(waves[0]->size(), 2u);
  EXPECT_NEAR(waves[0]->echoes[0].samplePosition, 28.0, 0.2);
  EXPECT_NEAR(waves[0]->echoes[1].samplePosition, 32.5, 0.2);
  EXPECT_EQ(waves[0]->echoes[0].pointType, TYPE_OVERLAPPING);
}

TEST(PeakDetection, ClippedPulseKeepsItsPosition) {
  SyntheticSettings clip;
  clip.clipLevel = 1000;
  Rows rows({{{{30.0, 3000.0, 3.0}}}}, clip);
  for (FWFModus mode : {FWF_GAUSSIAN_DECOMPOSITION, FWF_FAST_PEAKS}) {
    auto waves = rows.detect(mode);
    ASSERT_EQ(waves[0]->size(), 1u);
    EXPECT_NEAR(waves[0]->echoes[0].samplePosition, 30.0, 0.3);
    EXPECT_EQ(waves[0]->echoes[0].pointType, TYPE_SATURATED);
    EXPECT_EQ(waves[0]->getMaxAmplitude(), 1000);
  }
}

// Three equal samples on top of an echo that is not the row's highest: not clipping, and the
// log-parabola through them is flat, which must still give a finite, central echo.
TEST(PeakDetection, FlatTopBelowTheRowMaximum) {
  std::vector<std::uint16_t> row(64, 100);
  const std::vector<std::uint16_t> flatTop = {160, 300, 300, 300, 160};
  std::copy(flatTop.begin(), flatTop.end(), row.begin() + 18);
  row[44] = 700, row[43] = row[45] = 400;
  Rows rows(std::vector<SyntheticRow>(1));
  for (std::size_t i = 0; i < row.size(); ++i) rows.samples->set(i, row[i]);
  for (FWFModus mode : allModes()) {
    auto waves = rows.detect(mode);
    for (const EchoPoint& e : waves[0]->echoes) {
      EXPECT_TRUE(std::isfinite(e.amplitude) && e.amplitude > 0) << getNameOfModus(mode);
      EXPECT_NE(e.pointType, TYPE_SATURATED) << getNameOfModus(mode);
    }
    if (mode == FWF_GAUSSIAN_DECOMPOSITION) continue;  // may fit the wide top as two echoes
    ASSERT_EQ(waves[0]->size(), 2u) << getNameOfModus(mode);
    EXPECT_NEAR(waves[0]->echoes[0].samplePosition, 20.0, 0.05) << getNameOfModus(mode);
    EXPECT_EQ(waves[0]->echoes[0].amplitude, 200.0f) << getNameOfModus(mode);
  }
}

TEST(PeakDetection, NoiseOnlyAndShortRows) {
  std::vector<SyntheticRow> noiseOnly(200);
  Rows rows(noiseOnly, {}, 7);
  std::size_t echoes = 0;
  for (const auto& w : rows.detect(FWF_GAUSSIAN_DECOMPOSITION)) echoes += w->size();
  EXPECT_EQ(echoes, 0u);

  Rows late({{{{50.0, 400.0, 3.0}}}, {{{50.0, 400.0, 3.0}}}});
  late.lengths = {40, 1000};  // the echo lies beyond the first row's valid samples
  auto waves = late.detect(FWF_FAST_PEAKS);
  EXPECT_EQ(waves[0]->size(), 0u);
  EXPECT_EQ(waves[1]->size(), 1u);
  EXPECT_EQ(waves[0]->timeOffset, 0.0);
}

TEST(PeakDetection, StridedInputArrays) {
  Rows rows({{{{20.0, 400.0, 3.0}}}, {{{40.0, 400.0, 3.0}}}});
  ScannerDevice scanner = scannerWithInterval(1e-9);
  PeakDetectionFamily<unsigned short> d(FWF_FAST_PEAKS, scanner, {}, {}, 64);
  auto waves = d.apply(rows.samples, makeStridedArray<std::uint16_t>(rows.lengths, 1, 2),
                       makeStridedArray<double>({7.0, 8.0}, 2, 3),
                       makeStridedArray<double>({0.0, 1e-6}, 1, 2),
                       makeStridedArray<std::uint8_t>({0, 1}, 0, 2), 0, "");
  ASSERT_EQ(waves.size(), 2u);
  EXPECT_EQ(waves[1]->waveTime, 8.0);
  EXPECT_EQ(waves[1]->channel, 1);
  EXPECT_NEAR(waves[1]->echoes[0].time, 1e-6 + 40e-9, 0.2e-9);

  // The samples themselves as a strided view and as computed elements: the same echoes.
  using Samples = Tessal::MemArray<2, std::uint16_t>;
  const auto& plain = *rows.samples;
  auto block = Vorlap::makeStrong<Tessal::DataBlock<std::uint16_t>>();
  block->values.assign((plain.size() + 3) * 2, 65535);
  for (std::size_t k = 0; k < plain.size(); ++k) block->values[(k + 3) * 2] = plain.get(k);
  const auto strided = Vorlap::makeStrong<Samples>(plain.extents(), block, 3, 2);
  const auto computed = Vorlap::makeStrong<Samples>(
      plain.extents(), [&plain](std::size_t k) { return plain.get(k); });
  const auto reference = rows.detect(FWF_FAST_PEAKS);
  for (const auto& view : {strided, computed}) {
    const auto again = d.apply(view, makeArray(rows.lengths), makeArray(rows.times),
                               makeArray(rows.sbl), makeArray(rows.channels), 0, "");
    for (std::size_t r = 0; r < 2; ++r) {
      ASSERT_EQ(again[r]->size(), 1u);
      EXPECT_EQ(again[r]->echoes[0].samplePosition, reference[r]->echoes[0].samplePosition);
      EXPECT_EQ(again[r]->echoes[0].amplitude, reference[r]->echoes[0].amplitude);
      EXPECT_EQ(again[r]->maxSample, reference[r]->maxSample);
    }
  }
}

TEST(PeakDetection, ConstructorErrorsNameTheirCause) {
  ScannerDevice scanner = scannerWithInterval(1e-9);
  EXPECT_NE(PeakDetectionFamily<unsigned short>(FWFModus(9), scanner, {}, {}, 64)
                .errorText()
                .find("unknown mode"),
            std::string::npos);
  EXPECT_NE(PeakDetectionFamily<unsigned short>(FWF_FAST_PEAKS, scanner, {}, {}, 0)
                .errorText()
                .find("no samples"),
            std::string::npos);
  EXPECT_NE(PeakDetectionFamily<unsigned short>(FWF_FAST_PEAKS, scannerWithInterval(0), {}, {}, 64)
                .errorText()
                .find("sample interval"),
            std::string::npos);
  TempDir dir;
  auto settingsError = [&](const std::string& text) {
    std::ofstream(dir.file("p.txt")) << text;
    return PeakDetectionFamily<unsigned short>(FWF_FAST_PEAKS, scanner, dir.file("p.txt"), {}, 64)
        .errorText();
  };
  EXPECT_EQ(settingsError("# comment\nthreshold = 6\nmax_echoes = 4\n"), "");
  EXPECT_NE(settingsError("threshold 6\n").find("line 1: expected"), std::string::npos);
  EXPECT_NE(settingsError("\nspeed = 6\n").find("line 2: unknown key \"speed\""),
            std::string::npos);
  EXPECT_NE(settingsError("max_echoes = 2.5\n").find("whole number"), std::string::npos);
  EXPECT_NE(settingsError("threshold = 1\nthreshold = 2\n").find("twice"), std::string::npos);
  EXPECT_NE(settingsError("threshold = abc\n").find("not a number"), std::string::npos);
  EXPECT_NE(
      PeakDetectionFamily<unsigned short>(FWF_FAST_PEAKS, scanner, dir.file("missing.txt"), {}, 64)
          .errorText()
          .find("cannot be read"),
      std::string::npos);
}
