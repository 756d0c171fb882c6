// Scan lines and angle bins of the shots: reads their directions and origins.
#include "refine/ScanLines.hpp"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace FullWaveform {

namespace {

constexpr double kLineJump = std::numbers::pi / 4;
constexpr double kFlightJump = 5.0;  // m between two shots' origins

double squaredGap(const Gemwold::PhysicalSpace::point& a, const Gemwold::PhysicalSpace::point& b) {
  const double dx = a.x - b.x, dy = a.y - b.y, dz = a.z - b.z;
  return dx * dx + dy * dy + dz * dz;
}

}  // namespace

double scanAngleOf(const Gemwold::PhysicalSpace::vector& d, bool radial, double previous) {
  double a = radial ? std::atan2(d.y, d.x) : std::atan2(d.x, d.z);
  if (!std::isfinite(a)) a = previous;
  return a <= 0.0 ? a + 2 * std::numbers::pi : a;
}

bool startsScanLine(double previousAngle, double angle,
                    const Gemwold::PhysicalSpace::point& previousOrigin,
                    const Gemwold::PhysicalSpace::point& origin) {
  return std::abs(angle - previousAngle) > kLineJump ||
         squaredGap(origin, previousOrigin) > kFlightJump * kFlightJump;
}

void ShotCells::cut(const ShotTable& t, double binDegrees) {
  line.resize(t.time.size()), bin.resize(t.time.size()), angle.resize(t.time.size());
  lineOrigin.clear();
  double previous = 0.0;
  std::uint32_t current = 0;
  std::int32_t lo = 0, hi = 0;
  const bool known = t.angle.size() == t.time.size();
  for (std::size_t s = 0; s < t.time.size(); ++s) {
    const double a = known ? t.angle[s] : scanAngleOf(t.direction[s], t.radial, previous);
    if (s > 0 && startsScanLine(previous, a, t.origin[s - 1], t.origin[s])) ++current;
    if (current == lineOrigin.size()) lineOrigin.push_back(t.origin[s]);
    previous = a;
    line[s] = current;
    angle[s] = float(a);
    bin[s] = std::int32_t(std::floor(a * 180.0 / std::numbers::pi / binDegrees));
    lo = s ? std::min(lo, bin[s]) : bin[s], hi = s ? std::max(hi, bin[s]) : bin[s];
  }
  firstBin = lo - 1, binCount = hi - lo + 3;  // a spare bin each side for the +-1 search
}

}  // namespace FullWaveform
