// Hand-made run results (grid "FWF" as the module writes it) for export and quick-look tests.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tessal/Bundle.hpp"

namespace quillo::test {

struct ResultPoint {
  double x = 0, y = 0, z = 0;
  double time = 0;
  std::uint8_t mta = 1, returnNumber = 1, numberOfReturns = 1, classification = 1, channel = 0;
  float amplitude = 10.0f, reflectance = -5.0f, damping = 0.5f;
  double range = 100.0, pulseWidth = 3.0;
  std::int16_t scanAngle = 0;
  std::int32_t waveId = 0;
  float wavePosition = 0.0f;
  // "Waveforms.DirectionDelta": the beam's step per waveform sample, scanner frame.
  double step[3] = {0.0, 0.0, -0.15};
};

struct ResultRecipe {
  std::vector<std::vector<ResultPoint>> fragments;  // named Fragment_0, Fragment_1, ...
  std::optional<unsigned> weekNumber;               // "WeekNumber" on the grid
  std::uint32_t waveSamples = 0;                    // > 0: a "Waveforms" field
  double sampleInterval = 1.0e-9;                   // "WaveformSampleInterval" [s]
  bool withPulseWidth = true;
  std::optional<double> mapShift;  // a map chart with positions shifted by this in x, y, z
  // A map chart with the positions taken through this [R | t] (rows), which the grid then
  // carries as "ScannerToMap" (as a run copies it from the input).
  std::optional<std::array<double, 12>> scannerToMap;
  std::string coordinateSystem;  // the grid's "CoordinateSystem" attribute; empty: none
};

// Sample s of the waveform of point k of fragment f (what makeResult stores).
std::uint16_t resultSample(std::size_t f, std::size_t k, std::size_t s);

Tessal::BundlePtr makeResult(const ResultRecipe& recipe);

}  // namespace quillo::test
