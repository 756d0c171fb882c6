#include "support/SyntheticWaveforms.hpp"

#include <algorithm>
#include <cmath>

#include "waveform/PulseShape.hpp"

namespace quillo::test {

Vorlap::StrongPtr<Tessal::MemArray<2, std::uint16_t>> renderRows(
    const std::vector<SyntheticRow>& rows, const SyntheticSettings& s, std::uint64_t seed) {
  using Array = Tessal::MemArray<2, std::uint16_t>;
  auto out = Vorlap::makeStrong<Array>(Array::Extents{s.samples, rows.size()});
  std::mt19937_64 random(seed);
  std::normal_distribution<double> noise(0.0, s.noiseSigma);
  for (std::size_t r = 0; r < rows.size(); ++r) {
    for (std::uint32_t i = 0; i < s.samples; ++i) {
      double v = s.baseline + noise(random);
      for (const auto& e : rows[r].echoes)
        v += FullWaveform::gaussianPulse(i, e.position, e.amplitude, e.fwhm);
      out->set(r * s.samples + i, std::uint16_t(std::clamp(std::round(v), 0.0, s.clipLevel)));
    }
  }
  return out;
}

}  // namespace quillo::test
