#include "app/OutputStats.hpp"

#include <array>
#include <cmath>

#include "tessal/Schema.hpp"
#include "waveform/WavePoints.hpp"

namespace quillo::cli {

namespace {

using ByteArray = Tessal::MemArray<1, std::uint8_t>;
using PointArray = Tessal::MemArray<1, Gemwold::PhysicalSpace::point>;
namespace schema = Tessal::schema;

// Calls `f` with every element, read straight from the storage when the array is one plain
// block: a get() per element checks for an accessor and a stride every time.
template <class T, class F>
void forEach(const Tessal::MemArray<1, T>& a, F&& f) {
  const std::size_t n = a.size();
  if (const T* v = a.contiguousData()) {
    for (std::size_t k = 0; k < n; ++k) f(v[k]);
    return;
  }
  for (std::size_t k = 0; k < n; ++k) f(a.get(k));
}

void countZones(const ByteArray& zones, OutputSummary& s) {
  s.points += zones.size();
  // Counted in an array, then merged: one map look-up per zone, not per point.
  std::array<std::uint64_t, 256> perZone{};
  forEach(zones, [&](std::uint8_t zone) { perZone[zone] += 1; });
  for (std::size_t zone = 0; zone < perZone.size(); ++zone)
    if (perZone[zone]) s.pointsPerZone[int(zone)] += perZone[zone];
}

void countNoise(const ByteArray& classes, OutputSummary& s) {
  std::uint64_t noise = 0;
  forEach(classes, [&](std::uint8_t c) { noise += c == Quorvane::DrelmClass::noise; });
  s.noisePoints += noise;
}

// Waves whose shot points nowhere or whose echo time is not a number keep their points.
void countWithoutPosition(const PointArray& positions, OutputSummary& s) {
  std::uint64_t without = 0;
  forEach(positions, [&](const Gemwold::PhysicalSpace::point& p) {
    without += !(std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z));
  });
  s.pointsWithoutPosition += without;
}

}  // namespace

void countArray(const std::string& field, const Tessal::MemBase& data, OutputSummary& s) {
  const auto* bytes = dynamic_cast<const ByteArray*>(&data);
  if (bytes && field == schema::kMTA) countZones(*bytes, s);
  if (bytes && field == schema::kClassification) countNoise(*bytes, s);
  const auto* points = dynamic_cast<const PointArray*>(&data);
  if (points && field == schema::kPositions) countWithoutPosition(*points, s);
}

void addCounts(OutputSummary& into, const OutputSummary& from) {
  into.points += from.points;
  into.noisePoints += from.noisePoints;
  into.pointsWithoutPosition += from.pointsWithoutPosition;
  for (const auto& [zone, count] : from.pointsPerZone) into.pointsPerZone[zone] += count;
}

void addToSummary(const Tessal::Grid& grid, OutputSummary& s, Tessal::FragmentChangeCursor& seen) {
  // Fragments already written by a streaming save are no longer held: they were counted.
  for (const char* name : {schema::kMTA, schema::kClassification, schema::kPositions}) {
    auto field = grid(name, schema::kScannerChart);
    if (!field) continue;
    auto ids = field->getFragmentIDCollection();
    for (std::size_t f : seen.newlyChanged(*field)) {
      auto creator = field->getCreator(ids->at(f));
      auto data = creator ? creator->heldData() : nullptr;
      if (data) countArray(name, *data, s);
    }
  }
}

}  // namespace quillo::cli
