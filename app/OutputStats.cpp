#include "app/OutputStats.hpp"

#include "waveform/WavePoints.hpp"

namespace quillo::cli {

namespace {

using ByteArray = Tessal::MemArray<1, std::uint8_t>;

// Calls `visit` with each fragment's array of the named byte field that is still in memory
// (fragments already written by a streaming save are skipped: they were counted before).
template <class Visit>
void eachFragment(const Tessal::Grid& grid, const std::string& name, Visit visit) {
  auto field = grid(name, "ScannerCoordinateSystem");
  if (!field) return;
  auto ids = field->getFragmentIDCollection();
  for (std::size_t f = 0; f < ids->size(); ++f) {
    auto creator = field->getCreator(ids->at(f));
    auto data = creator ? Vorlap::dynamicPtrCast<ByteArray>(creator->heldData()) : nullptr;
    if (data) visit(*data);
  }
}

}  // namespace

void addToSummary(const Tessal::Grid& grid, OutputSummary& s) {
  eachFragment(grid, "MTA", [&](const ByteArray& zones) {
    s.points += zones.size();
    for (std::size_t k = 0; k < zones.size(); ++k) s.pointsPerZone[zones.get(k)] += 1;
  });
  eachFragment(grid, "Classification", [&](const ByteArray& classes) {
    for (std::size_t k = 0; k < classes.size(); ++k)
      if (classes.get(k) == Quorvane::DrelmClass::noise) s.noisePoints += 1;
  });
}

}  // namespace quillo::cli
