#include "app/FragmentEncoding.hpp"

#include "app/OutputStats.hpp"
#include "tessal/Schema.hpp"

namespace quillo::cli {

namespace schema = Tessal::schema;

namespace {

// The map chart's positions of each scanner-frame positions array, as addMapPositions makes
// them on a grid.
void addMapChart(OutputPart& part, const Transform& toMap) {
  const std::size_t taken = part.arrays.size();
  for (std::size_t i = 0; i < taken; ++i) {
    const FieldArray& a = part.arrays[i];
    if (a.representation != schema::kScannerChart || a.field != schema::kPositions || !a.data)
      continue;
    auto mapped = mapPositionsOf(a.data, toMap);
    if (!mapped) continue;
    FieldArray map{kMapChart, schema::kPositions, a.fragment, mapped, {}, {}, {}};
    part.arrays.push_back(std::move(map));  // `a` is not used past this point
  }
}

}  // namespace

void prepareForSaving(OutputPart& part, const Transform& toMap) {
  addMapChart(part, toMap);
  for (FieldArray& a : part.arrays) {
    if (!a.data) continue;
    if (a.representation == schema::kScannerChart) countArray(a.field, *a.data, part.counts);
    if (a.field == schema::kPointID) continue;
    a.encoded = std::make_shared<Tessal::EncodedArray>(Tessal::rawArray(*a.data));
    a.data.reset();
  }
}

}  // namespace quillo::cli
