#include "app/ScanAngles.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

namespace quillo::cli {

namespace {

using point = ScanAngles::point;
using vector = ScanAngles::vector;

constexpr double kUnitsPerDegree = 1.0 / 0.006;
constexpr long kMaxUnits = 15000;  // 90 degrees: LAS keeps scan angles within -90 to +90
// Half the time over which the trajectory gives a point's flight direction: long enough to see
// the aircraft move, short enough to follow a turn.
constexpr double kWindowSeconds = 0.5;
// A longer pause between two points starts another pass (the turn between two lines).
constexpr double kGapSeconds = 1.0;
// Less horizontal movement than this over a window tells no direction.
constexpr double kMinMetres = 0.05;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

vector unit(const vector& v) {
  const double n = std::sqrt(v.x * v.x + v.y * v.y + v.z * v.z);
  if (!(n > 0.0) || !std::isfinite(n)) return {kNaN, kNaN, kNaN};
  return {v.x / n, v.y / n, v.z / n};
}

bool finite(const point& p) {
  return std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z);
}

// The horizontal direction from `from` to `to`; NaN when they lie too close.
vector heading(const point& from, const point& to) {
  const double dx = to.x - from.x, dy = to.y - from.y;
  if (!(dx * dx + dy * dy >= kMinMetres * kMinMetres)) return {kNaN, kNaN, kNaN};
  return unit({dx, dy, 0.0});
}

std::int16_t lasUnits(const vector& beam, const vector& flight) {
  // Right of the flight direction (f.y, -f.x); down is -z in the map frame.
  const double across = beam.x * flight.y - beam.y * flight.x, down = -beam.z;
  const double degrees = std::atan2(across, down) * 180.0 / std::numbers::pi;
  if (!std::isfinite(degrees)) return 0;
  return static_cast<std::int16_t>(
      std::clamp(std::lround(degrees * kUnitsPerDegree), -kMaxUnits, kMaxUnits));
}

constexpr std::int16_t kNotYet = std::numeric_limits<std::int16_t>::min();

}  // namespace

const std::vector<std::int16_t>& ScanAngles::fragment(const Beams& b) {
  findOrigins(b);
  orderByTime(b);
  angles_.assign(b.size, kNotYet);
  anglesAlongTheTrajectory(b);
  // Points without a time or an origin take the last direction of the fragment.
  const vector flight = lastFlight_.value_or(fallbackDirection());
  for (std::size_t k = 0; k < b.size; ++k)
    if (angles_[k] == kNotYet) angles_[k] = lasUnits(beam(b, k), flight);
  return angles_;
}

ScanAngles::vector ScanAngles::beam(const Beams& b, std::size_t k) const {
  return unit(rotateToMap(toMap_, b.steps->get(k)));
}

void ScanAngles::findOrigins(const Beams& b) {
  origins_.resize(b.size);
  for (std::size_t k = 0; k < b.size; ++k) {
    const vector u = beam(b, k);
    const point p = b.positions->get(k);
    const double r = b.ranges->get(k);
    origins_[k] = {p.x - r * u.x, p.y - r * u.y, p.z - r * u.z};
  }
}

void ScanAngles::orderByTime(const Beams& b) {
  order_.clear();
  for (std::size_t k = 0; k < b.size; ++k)
    if (std::isfinite(b.times->get(k)) && finite(origins_[k]))
      order_.push_back(static_cast<std::uint32_t>(k));
  auto earlier = [&](std::uint32_t a, std::uint32_t c) {
    return b.times->get(a) < b.times->get(c);
  };
  if (!std::is_sorted(order_.begin(), order_.end(), earlier))
    std::stable_sort(order_.begin(), order_.end(), earlier);
}

// Per point, the direction between the origins of the earliest and latest point within the
// window around it (not across a pause); where the aircraft barely moved, the last one found.
void ScanAngles::anglesAlongTheTrajectory(const Beams& b) {
  auto time = [&](std::size_t i) { return b.times->get(order_[i]); };
  vector current = lastFlight_.value_or(fallbackDirection());
  std::size_t lo = 0, hi = 0;
  for (std::size_t i = 0; i < order_.size(); ++i) {
    if (i > 0 && time(i) - time(i - 1) > kGapSeconds) lo = i;
    while (time(lo) < time(i) - kWindowSeconds) ++lo;
    hi = std::max(hi, i);
    while (hi + 1 < order_.size() && time(hi + 1) <= time(i) + kWindowSeconds &&
           time(hi + 1) - time(hi) <= kGapSeconds)
      ++hi;
    const vector flight = heading(origins_[order_[lo]], origins_[order_[hi]]);
    if (std::isfinite(flight.x)) current = flight;
    angles_[order_[i]] = lasUnits(beam(b, order_[i]), current);
  }
  if (!order_.empty()) lastFlight_ = current;
}

// Without any movement (a scanner standing still) the scanner frame's y axis, along which the
// simulator flies, stands in for the flight direction.
vector ScanAngles::fallbackDirection() const {
  const vector y = rotateToMap(toMap_, {0.0, 1.0, 0.0});
  const vector level = unit({y.x, y.y, 0.0});
  return std::isfinite(level.x) ? level : vector{0.0, 1.0, 0.0};
}

}  // namespace quillo::cli
