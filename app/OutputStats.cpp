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

// Calls `visit` with each newly given fragment array of the named field that is still in
// memory (fragments already written by a streaming save are skipped: they were counted before).
template <class Array, class Visit>
void eachFragment(const Tessal::Grid& grid, const std::string& name,
                  Tessal::FragmentChangeCursor& seen, Visit visit) {
  auto field = grid(name, schema::kScannerChart);
  if (!field) return;
  auto ids = field->getFragmentIDCollection();
  for (std::size_t f : seen.newlyChanged(*field)) {
    auto creator = field->getCreator(ids->at(f));
    auto data = creator ? Vorlap::dynamicPtrCast<Array>(creator->heldData()) : nullptr;
    if (data) visit(*data);
  }
}

}  // namespace

void addToSummary(const Tessal::Grid& grid, OutputSummary& s, Tessal::FragmentChangeCursor& seen) {
  eachFragment<ByteArray>(grid, schema::kMTA, seen, [&](const ByteArray& zones) {
    s.points += zones.size();
    // Counted in an array, then merged: one map look-up per zone, not per point.
    std::array<std::uint64_t, 256> perZone{};
    for (std::size_t k = 0; k < zones.size(); ++k) perZone[zones.get(k)] += 1;
    for (std::size_t zone = 0; zone < perZone.size(); ++zone)
      if (perZone[zone]) s.pointsPerZone[int(zone)] += perZone[zone];
  });
  eachFragment<ByteArray>(grid, schema::kClassification, seen, [&](const ByteArray& classes) {
    for (std::size_t k = 0; k < classes.size(); ++k)
      if (classes.get(k) == Quorvane::DrelmClass::noise) s.noisePoints += 1;
  });
  // Waves whose shot points nowhere or whose echo time is not a number keep their points.
  eachFragment<PointArray>(grid, schema::kPositions, seen, [&](const PointArray& positions) {
    for (std::size_t k = 0; k < positions.size(); ++k) {
      const auto p = positions.get(k);
      if (!(std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z)))
        s.pointsWithoutPosition += 1;
    }
  });
}

}  // namespace quillo::cli
