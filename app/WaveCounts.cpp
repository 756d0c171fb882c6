#include "app/WaveCounts.hpp"

#include "tessal/Schema.hpp"

namespace quillo::cli {

namespace schema = Tessal::schema;

namespace {

void addFragmentSizes(const Vorlap::StrongPtr<Tessal::Grid>& grid, WaveCounts& counts) {
  auto times = grid ? (*grid)(schema::kGPSTime, "") : Vorlap::StrongPtr<Tessal::Field>();
  if (!times) return;
  auto ids = times->getFragmentIDCollection();
  for (std::size_t f = 0; f < ids->size(); ++f) {
    auto creator = times->getCreator(ids->at(f));
    if (!creator) continue;
    const auto extents = creator->extents();
    const std::uint64_t n = extents.empty() ? 0 : extents[0];
    counts.perFragment[ids->at(f)->getName()] += n;
    counts.total += n;
  }
}

}  // namespace

std::uint64_t WaveCounts::before(unsigned fragment) const {
  std::uint64_t sum = 0;
  for (unsigned f = 0; f < fragment; ++f) {
    auto it = perFragment.find(schema::fragmentName(f));
    if (it != perFragment.end()) sum += it->second;
  }
  return sum;
}

WaveCounts countWaves(const Tessal::BundlePtr& input) {
  WaveCounts counts;
  double t = 0.0;
  auto slice = (*input.get())(t);
  if (!slice) return counts;
  addFragmentSizes((*slice)(schema::kWaveformsGrid), counts);
  addFragmentSizes((*slice)(schema::kOnlineGrid), counts);
  return counts;
}

}  // namespace quillo::cli
