// Small hand-made input bundles for store and driver tests: a "Shots" grid with scanner
// attributes and fragments of given shot times, and optional "Waveforms" and "OPP" grids.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tessal/Bundle.hpp"

namespace quillo::test {

struct ShotFragment {
  std::vector<double> times;                               // positions (0, 0, 500 + k) follow
  std::vector<Gemwold::PhysicalSpace::vector> directions;  // default (0, 0, -1)
};

struct WaveformFragment {
  std::vector<double> times;  // one row per time
  std::uint32_t samples = 8;
  std::vector<std::uint16_t> lengths;  // default: samples for every row
  std::vector<std::uint8_t> channels;  // default: 1
  std::vector<double> sblTimes;        // default: 0
};

struct OnlineFragment {
  std::vector<double> times, ranges;
  std::vector<float> amplitudes;
  std::vector<std::uint8_t> channels;
  bool withReflectance = true;
};

// A bundle whose "Shots" grid holds one fragment per entry (named Fragment_0, ...), with a
// usable scanner description (1 MHz, line-wise) unless `pulseRate` is 0.
Tessal::BundlePtr makeShotsBundle(const std::vector<ShotFragment>& fragments,
                                  double pulseRate = 1.0e6);

Vorlap::StrongPtr<Tessal::Representation> gridRepresentation(Tessal::BundlePtr& bundle,
                                                             const std::string& grid);
void addWaveformFragment(Tessal::BundlePtr& bundle, std::uint32_t fragNr,
                         const WaveformFragment& fragment);
void addOnlineFragment(Tessal::BundlePtr& bundle, std::uint32_t fragNr,
                       const OnlineFragment& fragment);

}  // namespace quillo::test
