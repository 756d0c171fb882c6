// Hand-made waves for tests of the stages that read WavePoints.
#pragma once

#include <cstdint>
#include <vector>

#include "vorlap/StrongPtr.hpp"
#include "waveform/WavePoints.hpp"

namespace quillo::test {

using Wave = FullWaveform::WavePoints<unsigned short>;
using WavePtr = Vorlap::StrongPtr<Wave>;

struct WaveSpec {
  double waveTime = 0.0;
  double timeOffset = 1.0e-6;
  float amplitude = 100.0f;
  std::uint8_t channel = 1;
  bool exempt = false;
  unsigned short maxSample = 100;
  std::vector<double> echoTimes;  // default: one echo at timeOffset
};

inline WavePtr makeWave(const WaveSpec& s) {
  auto w = Vorlap::makeStrong<Wave>();
  w->waveTime = s.waveTime;
  w->timeOffset = s.timeOffset;
  w->amplitude = s.amplitude;
  w->channel = s.channel;
  w->amplitudeExempt = s.exempt;
  w->maxSample = s.maxSample;
  for (double t : s.echoTimes.empty() ? std::vector<double>{s.timeOffset} : s.echoTimes) {
    FullWaveform::EchoPoint e;
    e.time = t;
    e.amplitude = s.amplitude;
    w->echoes.push_back(e);
  }
  return w;
}

}  // namespace quillo::test
