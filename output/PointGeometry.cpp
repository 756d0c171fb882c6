// Point geometry: echo placement, scan-angle rank, sample step and return numbering.
#include "output/PointGeometry.hpp"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "store/KeyedOrder.hpp"

namespace FullWaveform {

std::int16_t scanAngleRankOf(const Gemwold::PhysicalSpace::vector& dir) {
  return scanAngleRankFromAtan2(std::atan2(dir.z, dir.x));
}

std::int16_t scanAngleRankFromAtan2(double atan2ZX) {
  const double angle = atan2ZX * 180.0 / std::numbers::pi / 0.006;
  if (!(std::fabs(angle) < 2147483648.0)) return 0;  // NaN or out of 32-bit range
  return static_cast<std::int16_t>(static_cast<std::uint16_t>(static_cast<std::int32_t>(angle)));
}

double sampleRangeStep(double sampleInterval, double lightSpeed) {
  const double step = sampleInterval * lightSpeed * 0.5;
  return step == 0.0 ? 1.0 : step;
}

namespace {

bool earlierReturn(const ShotReturn& a, const ShotReturn& b) {
  return a.time < b.time || (a.time == b.time && a.range < b.range);
}

// Points come in wave order: by shot time but for a few waves moved to an earlier shot by
// their zone, and a shot's echoes not always nearest first. Insertion finds each point's
// place a few steps back, where a general sort would take log n steps per point. It is
// stable too, so the order is the same; a pass that has moved too far hands over to
// std::stable_sort, which keeps what the insertions did (they never swap equal points).
// NaN makes the order no strict weak order, and only std::stable_sort says where it goes.
void sortReturns(ShotReturns& returns) {
  for (const ShotReturn& r : returns)
    if (std::isnan(r.time) || std::isnan(r.range)) {
      if (!std::is_sorted(returns.begin(), returns.end(), earlierReturn))
        std::stable_sort(returns.begin(), returns.end(), earlierReturn);
      return;
    }
  if (!insertionSortWithin(returns, earlierReturn, 8 * returns.size() + 64))
    std::stable_sort(returns.begin(), returns.end(), earlierReturn);
}

// Numbers one shot's returns [begin, end), sorted by range.
bool numberShot(const ShotReturn* begin, const ShotReturn* end,
                Tessal::MemArray<1, std::uint8_t>& returnNumber,
                Tessal::MemArray<1, std::uint8_t>& numberOfReturns) {
  std::size_t distinct = 0;
  for (const ShotReturn* r = begin; r != end; ++r)
    if (r + 1 == end || r[1].range != r->range) ++distinct;
  if (distinct > 255) return false;
  std::uint32_t k = 1;
  for (const ShotReturn* r = begin; r != end; ++r) {
    if (r + 1 != end && r[1].range == r->range) continue;
    returnNumber.set(r->point, std::uint8_t(k++));
    numberOfReturns.set(r->point, std::uint8_t(distinct));
  }
  return true;
}

}  // namespace

bool numberReturns(ShotReturns& returns, Tessal::MemArray<1, std::uint8_t>& returnNumber,
                   Tessal::MemArray<1, std::uint8_t>& numberOfReturns) {
  // Stable: points of one shot at one range stay in writing order.
  sortReturns(returns);
  const ShotReturn* all = returns.data();
  for (std::size_t first = 0, next = 0; first < returns.size(); first = next) {
    next = first + 1;
    while (next < returns.size() && returns[next].time == returns[first].time) ++next;
    if (!numberShot(all + first, all + next, returnNumber, numberOfReturns)) return false;
  }
  return true;
}

}  // namespace FullWaveform
