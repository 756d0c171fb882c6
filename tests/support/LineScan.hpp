// A hand-made line-wise scan for the refinement's tests: 12 scan lines of 1,500 shots, one
// shot a microsecond (a zone is about 150 m of range), from 500 m above a surface, and one
// echo per shot on the surface, in the zone its arrival gives.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "refine/SurfaceFit.hpp"

namespace quillo::test {

struct LineScan {
  static constexpr double kLight = 299792458.0;
  static constexpr double kInterval = 1.0e-6;  // s between shots
  static constexpr double kAltitude = 500.0;
  static constexpr int kLines = 12, kPerLine = 1500;
  // The surface's height at (x, y); none: flat ground at 0 m.
  using Surface = std::function<double(double x, double y)>;

  FullWaveform::ShotTable shots;
  FullWaveform::RefineEchoes echoes;
  std::vector<double> groundRange;  // per shot, m

  explicit LineScan(const Surface& surface = {}) {
    shots.lightSpeed = kLight;
    for (int l = 0; l < kLines; ++l)
      for (int s = 0; s < kPerLine; ++s) {
        const double angle = -0.4 + 0.8 * s / (kPerLine - 1);
        const double y = 0.5 * (l + double(s) / kPerLine);
        shots.time.push_back(kInterval * double(shots.time.size()));
        shots.origin.push_back({0.0, y, kAltitude});
        shots.direction.push_back({std::sin(angle), 0.0, -std::cos(angle)});
        groundRange.push_back(surface ? rangeTo(surface, angle, y) : kAltitude / std::cos(angle));
        add(std::uint32_t(shots.time.size() - 1), groundRange.back());
      }
  }
  // An echo of `shot` at `range`, in the zone its arrival gives.
  std::size_t add(std::uint32_t shot, double range, std::uint8_t channel = 0,
                  float amplitude = 0.0f) {
    const auto zone = std::uint8_t(std::floor(2.0 * range / kLight / kInterval));
    echoes.push_back({shot, range / kLight, zone, false, channel, amplitude});
    return echoes.size() - 1;
  }
  static std::uint32_t shotAt(int line, int s) { return std::uint32_t(line * kPerLine + s); }

 private:
  // Where the beam at `angle` in the plane at `y` meets the surface, to a millimetre.
  static double rangeTo(const Surface& surface, double angle, double y) {
    const auto above = [&](double t) {
      return kAltitude - t * std::cos(angle) > surface(t * std::sin(angle), y);
    };
    double t = 0.0;
    while (above(t + 1.0)) t += 1.0;
    for (double step = 0.5; step > 1e-3; step /= 2) t += above(t + step) ? step : 0.0;
    return t;
  }
};

}  // namespace quillo::test
