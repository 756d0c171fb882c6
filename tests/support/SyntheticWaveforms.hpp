// Seeded synthetic waveform rows: Gaussian echoes of known position, amplitude and width on
// a baseline with Gaussian noise, clipped at a saturation level. Shared by tests and benchmarks.
#pragma once

#include <cstdint>
#include <random>
#include <vector>

#include "tessal/MemArray.hpp"

namespace quillo::test {

struct SyntheticEcho {
  double position;   // samples
  double amplitude;  // counts above the baseline
  double fwhm;       // samples
};

struct SyntheticRow {
  std::vector<SyntheticEcho> echoes;
};

struct SyntheticSettings {
  std::uint32_t samples = 64;
  double baseline = 20.0;
  double noiseSigma = 2.0;
  double clipLevel = 65535.0;
};

// Rows (extents: samples, rows) rendering `rows` with noise from `seed`.
Vorlap::StrongPtr<Tessal::MemArray<2, std::uint16_t>> renderRows(
    const std::vector<SyntheticRow>& rows, const SyntheticSettings& settings, std::uint64_t seed);

}  // namespace quillo::test
