// Peak detection accuracy and throughput on synthetic rows (SNR = amplitude / noise sigma):
// detection rate, false echoes per 1000 noise-only rows, RMS position error, resolution of
// overlapping pairs by separation, and rows per second per mode on one core.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <random>

#include "support/Arrays.hpp"
#include "support/SyntheticWaveforms.hpp"
#include "waveform/PeakDetection.hpp"
#include "waveform/PulseShape.hpp"

using namespace FullWaveform;
using namespace quillo::test;

namespace {

constexpr double kFwhm = 3.0;  // samples (3 ns at 1 ns sampling)

struct Batch {
  Vorlap::StrongPtr<Tessal::MemArray<2, std::uint16_t>> samples;
  Vorlap::StrongPtr<Tessal::MemArray<1, std::uint16_t>> lengths;
  Vorlap::StrongPtr<Tessal::MemArray<1, double>> times, sbl;
  Vorlap::StrongPtr<Tessal::MemArray<1, std::uint8_t>> channels;
};

Batch makeBatch(const std::vector<SyntheticRow>& rows, const SyntheticSettings& s,
                std::uint64_t seed) {
  Batch b;
  b.samples = renderRows(rows, s, seed);
  b.lengths = makeArray(std::vector<std::uint16_t>(rows.size(), std::uint16_t(s.samples)));
  b.times = makeArray(std::vector<double>(rows.size(), 1.0));
  b.sbl = makeArray(std::vector<double>(rows.size(), 0.0));
  b.channels = makeArray(std::vector<std::uint8_t>(rows.size(), 1));
  return b;
}

PeakDetectionFamily<unsigned short>::WaveList detect(FWFModus mode, const Batch& b) {
  ScannerDevice scanner;
  scanner.sampleInterval = 1e-9;
  PeakDetectionFamily<unsigned short> d(mode, scanner, {}, {}, std::uint32_t(b.samples->extent(0)));
  return d.apply(b.samples, b.lengths, b.times, b.sbl, b.channels, 0, "");
}

// Element (k, k) of the inverse of a symmetric positive definite 4 x 4 matrix (Gauss-Jordan).
double inverseElement(double m[4][4], int k) {
  double inv[4][4] = {};
  for (int i = 0; i < 4; ++i) inv[i][i] = 1.0;
  for (int c = 0; c < 4; ++c) {
    const double pivot = m[c][c];
    for (int j = 0; j < 4; ++j) m[c][j] /= pivot, inv[c][j] /= pivot;
    for (int r = 0; r < 4; ++r) {
      if (r == c) continue;
      const double factor = m[r][c];
      for (int j = 0; j < 4; ++j) m[r][j] -= factor * m[c][j], inv[r][j] -= factor * inv[c][j];
    }
  }
  return inv[k][k];
}

// Cramer-Rao bound of the position of one Gaussian echo with unknown amplitude, position,
// width and background, in samples: no unbiased estimator does better. Averaged over the
// sub-sample phase, in rows of 64 samples with noise sigma 2.
double positionBound(double snr, double fwhm) {
  const double noise = 2.0, amplitude = snr * noise, sigma = fwhm / kFwhmPerSigma;
  double variance = 0.0;
  const int phases = 20;
  for (int p = 0; p < phases; ++p) {
    const double centre = 30.0 + double(p) / phases;
    double f[4][4] = {};
    for (int i = 0; i < 64; ++i) {
      const double u = (i - centre) / sigma, g = std::exp(-0.5 * u * u);
      const double d[4] = {g, amplitude * g * u / sigma, amplitude * g * u * u / sigma, 1.0};
      for (int a = 0; a < 4; ++a)
        for (int b = 0; b < 4; ++b) f[a][b] += d[a] * d[b] / (noise * noise);
    }
    variance += inverseElement(f, 1) / phases;
  }
  return std::sqrt(variance);
}

void singleEchoes(FWFModus mode, double snr, double fwhm = kFwhm) {
  std::mt19937_64 random(11);
  std::uniform_real_distribution<double> where(15.0, 49.0);
  std::vector<SyntheticRow> rows(5000);
  for (auto& r : rows) r.echoes = {{where(random), snr * 2.0, fwhm}};
  const auto waves = detect(mode, makeBatch(rows, {}, 3));
  std::size_t found = 0, extra = 0;
  double sq = 0.0;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const double truth = rows[i].echoes[0].position;
    bool hit = false;
    for (const auto& e : waves[i]->echoes) {
      if (!hit && std::fabs(e.samplePosition - truth) < 1.5) {
        hit = true;
        sq += (e.samplePosition - truth) * (e.samplePosition - truth);
      } else {
        ++extra;
      }
    }
    found += hit;
  }
  std::printf(
      "  %-22s SNR %4.0f FWHM %.0f: detected %6.2f %%, RMS position error %.3f samples "
      "(bound %.3f), extra echoes %zu\n",
      getNameOfModus(mode).c_str(), snr, fwhm, 100.0 * found / rows.size(),
      std::sqrt(sq / std::max<std::size_t>(found, 1)), positionBound(snr, fwhm), extra);
}

void noiseOnly(FWFModus mode) {
  const auto waves = detect(mode, makeBatch(std::vector<SyntheticRow>(20000), {}, 5));
  std::size_t echoes = 0;
  for (const auto& w : waves) echoes += w->size();
  std::printf("  %-22s false echoes per 1000 noise-only rows: %.3f\n", getNameOfModus(mode).c_str(),
              1000.0 * echoes / waves.size());
}

void pairs(FWFModus mode, double separationFwhm) {
  std::vector<SyntheticRow> rows(2000);
  std::mt19937_64 random(17);
  std::uniform_real_distribution<double> where(20.0, 30.0);
  for (auto& r : rows) {
    const double a = where(random);
    r.echoes = {{a, 200.0, kFwhm}, {a + separationFwhm * kFwhm, 160.0, kFwhm}};
  }
  const auto waves = detect(mode, makeBatch(rows, {}, 9));
  std::size_t resolved = 0;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    int hits = 0;
    for (const auto& truth : rows[i].echoes)
      for (const auto& e : waves[i]->echoes)
        hits += std::fabs(e.samplePosition - truth.position) < 0.5 * kFwhm;
    resolved += waves[i]->size() == 2 && hits == 2;
  }
  std::printf("  %-22s pair at %.1f FWHM: resolved %6.2f %%\n", getNameOfModus(mode).c_str(),
              separationFwhm, 100.0 * resolved / rows.size());
}

void accuracyTable() {
  std::printf(
      "Peak detection accuracy (rows of 64 samples, FWHM %.0f samples, noise sigma 2 counts)\n",
      kFwhm);
  for (FWFModus mode : allModes()) {
    for (double snr : {5.0, 10.0, 20.0, 50.0}) singleEchoes(mode, snr);
    singleEchoes(mode, 10.0, 2.0);  // a shorter pulse: the bound falls with the width
    noiseOnly(mode);
    for (double sep : {0.5, 1.0, 1.5, 2.0, 3.0}) pairs(mode, sep);
  }
  std::fflush(stdout);
}

void BM_Rows(benchmark::State& state) {
  const auto mode = FWFModus(state.range(0));
  std::vector<SyntheticRow> rows(10000);
  for (std::size_t i = 0; i < rows.size(); ++i)
    rows[i].echoes = i % 3 ? std::vector<SyntheticEcho>{{30.0, 200.0, kFwhm}}
                           : std::vector<SyntheticEcho>{{25.0, 200.0, kFwhm}, {40.0, 120.0, kFwhm}};
  const Batch b = makeBatch(rows, {}, 1);
  for (auto _ : state) benchmark::DoNotOptimize(detect(mode, b));
  state.SetItemsProcessed(state.iterations() * std::int64_t(rows.size()));
  state.SetLabel(getNameOfModus(mode));
}
BENCHMARK(BM_Rows)->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  accuracyTable();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
