// Wave objects of the waveform library: one wave is the echoes recorded after one shot on
// one channel, with per-wave attributes (AdditionalAttributesPerWave) and its echo list.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace FullWaveform {

// Point types of echoes; codes 0 to 7 have display names (convertType).
enum TYPE : std::int32_t {
  TYPE_UNKNOWN = 0,
  TYPE_SINGLE = 1,        // the only echo of its waveform
  TYPE_FIRST = 2,         // first of several
  TYPE_INTERMEDIATE = 3,  // neither first nor last
  TYPE_LAST = 4,          // last of several
  TYPE_SATURATED = 5,     // echo with clipped samples
  TYPE_ONLINE = 6,        // detected by the scanner itself (online echo record)
  TYPE_OVERLAPPING = 7    // separated from an overlapping neighbour by decomposition
};

// Display name of a point type; codes outside 0 to 7 give "Undefined".
std::string convertType(TYPE type);

struct EchoPoint {
  float amplitude = 0.0f;       // above background, in digitiser counts
  double samplePosition = 0.0;  // sub-sample position of the peak within the waveform row
  double time = 0.0;            // two-way time of the echo after the wave's waveTime, seconds
  TYPE pointType = TYPE_UNKNOWN;
  double pulseWidth = 0.0;  // full width at half maximum, seconds
  std::uint8_t classification = 0;
  float reflectance = 0.0f;
};

struct AdditionalAttributesPerWave {
  std::uint8_t channel = 0;      // receiver channel that recorded the wave
  double waveTime = 0.0;         // GPS time of the recording shot, seconds
  float damping = 0.0f;          // decay of the waveform after its first echo (see docs)
  float amplitude = 0.0f;        // amplitude of the strongest echo
  double timeOffset = 0.0;       // time of the first echo after waveTime, seconds
  bool amplitudeExempt = false;  // the amplitude test of the zone stages does not apply
};

template <class T>
class WavePoints : public AdditionalAttributesPerWave {
 public:
  std::vector<EchoPoint> echoes;
  T maxSample = 0;  // largest raw sample of the wave's waveform (0 for online waves)

  std::size_t size() const { return echoes.size(); }
  T getMaxAmplitude() const { return maxSample; }
  void setClassification(std::uint8_t code) {
    for (auto& e : echoes) e.classification = code;
  }
};

}  // namespace FullWaveform

namespace Quorvane {
// Classification codes of echoes (the common LiDAR class codes).
struct DrelmClass {
  static constexpr std::uint8_t unclassified = 1;
  static constexpr std::uint8_t ground = 2;
  static constexpr std::uint8_t noise = 7;  // low noise
};
}  // namespace Quorvane
