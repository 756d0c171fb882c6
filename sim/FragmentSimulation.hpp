// One simulated fragment: the arrays of "Shots", "Waveforms", "OPP" and "Truth" for the
// shots of the fragment (echoes belong to the fragment of their recording shot). Rows and
// online records are in recording order; a shot may have several rows per channel. Shot
// positions and directions are in the scanner's frame (Survey::toScanner).
#pragma once

#include <cstdint>
#include <vector>

#include "sim/Survey.hpp"

namespace quillo::sim {

struct FragmentData {
  // Shots
  std::vector<double> shotTime;
  std::vector<Gemwold::PhysicalSpace::point> origin;
  std::vector<Gemwold::PhysicalSpace::vector> direction;
  // Waveform rows (samples: row after row) and their truth
  std::vector<std::uint16_t> samples, length;
  std::vector<double> rowTime, sblTime;
  std::vector<std::uint8_t> rowChannel;
  std::vector<std::uint32_t> rowEmitter;
  std::vector<std::uint8_t> rowZone, rowTarget;
  std::vector<double> rowRange;
  // Online echo records and their truth
  std::vector<double> oppTime, oppRange;
  std::vector<float> oppAmplitude, oppReflectance;
  std::vector<std::uint8_t> oppChannel;
  std::vector<std::uint32_t> oppEmitter;
  std::vector<std::uint8_t> oppZone, oppTarget;
  std::vector<double> oppTrueRange;
  // Every echo recorded in the fragment (recording shot in it), in emission order; recorded 0:
  // it arrived while the receiver was blind and is in no row or record.
  std::vector<std::uint32_t> echoEmitter;
  std::vector<std::uint8_t> echoZone, echoTarget, echoRecorded;
  std::vector<double> echoRange;
};

// High-gain channel 0 clips here; its wave is replaced by channel 1 in the module.
inline constexpr double kDigitiserMax = 4095.0;

FragmentData simulateFragment(const Survey& survey, std::uint32_t fragment);

}  // namespace quillo::sim
