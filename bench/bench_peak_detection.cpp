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

void singleEchoes(FWFModus mode, double snr) {
  std::mt19937_64 random(11);
  std::uniform_real_distribution<double> where(15.0, 49.0);
  std::vector<SyntheticRow> rows(5000);
  for (auto& r : rows) r.echoes = {{where(random), snr * 2.0, kFwhm}};
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
      "  %-22s SNR %4.0f: detected %6.2f %%, RMS position error %.3f samples, extra echoes %zu\n",
      getNameOfModus(mode).c_str(), snr, 100.0 * found / rows.size(),
      std::sqrt(sq / std::max<std::size_t>(found, 1)), extra);
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
