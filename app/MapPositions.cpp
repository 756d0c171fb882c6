#include "app/MapPositions.hpp"

#include <cmath>

#include "app/CliError.hpp"
#include "tessal/Schema.hpp"

namespace quillo::cli {

namespace schema = Tessal::schema;

using Gemwold::PhysicalSpace::point;
using PointArray = Tessal::MemArray<1, point>;

Transform scannerToMap(const Tessal::BundlePtr& input) {
  double t = 0.0;
  auto slice = (*input.get())(t);
  auto shots = slice ? (*slice)(schema::kShotsGrid) : Vorlap::StrongPtr<Tessal::Grid>();
  if (!shots) return Transform{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
  return scannerToMapOf(*shots, schema::kShotsGrid);
}

Transform scannerToMapOf(const Tessal::Grid& grid, const std::string& where) {
  Transform m{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
  auto raw = grid.attributes().getAttribute(kScannerToMapAttribute);
  if (!raw) return m;
  auto chunk = Vorlap::dynamicPtrCast<Vorlap::Chunk<double>>(raw);
  const std::string name = where + " attribute \"" + kScannerToMapAttribute + "\"";
  if (!chunk || chunk->size() != 12)
    throw CliError(kInput, name + " must hold 12 doubles (a 3 x 4 matrix)");
  for (int i = 0; i < 12; ++i) {
    m[i] = (*chunk)[i];
    if (!std::isfinite(m[i])) throw CliError(kInput, name + " holds a value that is not finite");
  }
  return m;
}

Gemwold::PhysicalSpace::vector rotateToMap(const Transform& m,
                                           const Gemwold::PhysicalSpace::vector& v) {
  return {m[0] * v.x + m[1] * v.y + m[2] * v.z, m[4] * v.x + m[5] * v.y + m[6] * v.z,
          m[8] * v.x + m[9] * v.y + m[10] * v.z};
}

namespace {

point transformPoint(const Transform& m, const point& p) {
  return {m[0] * p.x + m[1] * p.y + m[2] * p.z + m[3], m[4] * p.x + m[5] * p.y + m[6] * p.z + m[7],
          m[8] * p.x + m[9] * p.y + m[10] * p.z + m[11]};
}

}  // namespace

Vorlap::StrongPtr<Tessal::MemBase> mapPositions(const Tessal::MemBase& positions,
                                                const Transform& transform) {
  const auto* data = dynamic_cast<const PointArray*>(&positions);
  if (!data) return {};
  const std::size_t n = data->size();
  auto mapped = Vorlap::makeStrong<PointArray>(PointArray::Extents{n}, Tessal::Uninitialised{});
  // Straight from storage to storage when the source is one plain block (a fresh array is).
  const point* from = data->contiguousData();
  point* to = mapped->contiguousData();
  if (from && to) {
    for (std::size_t k = 0; k < n; ++k) to[k] = transformPoint(transform, from[k]);
    return mapped;
  }
  for (std::size_t k = 0; k < n; ++k) mapped->set(k, transformPoint(transform, data->get(k)));
  return mapped;
}

Vorlap::StrongPtr<Tessal::MemBase> mapPositionsOf(
    const Vorlap::StrongPtr<Tessal::MemBase>& positions, const Transform& transform) {
  constexpr Transform identity{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
  if (transform == identity && dynamic_cast<const PointArray*>(positions.get())) return positions;
  return mapPositions(*positions, transform);
}

void addMapPositions(Tessal::Grid& grid, const Transform& transform,
                     Tessal::FragmentChangeCursor& seen) {
  auto scanner = grid.getCartesianRepresentation(schema::kScannerChart);
  if (!scanner) return;
  auto source = scanner->findFieldByName(schema::kPositions);
  if (!source) return;
  auto map = grid.makeCartesianRepresentation(3, kMapChart, 0);
  Vorlap::StrongPtr<Tessal::Field> target =
      map->makeField(map->makeFieldID(schema::kPositions), {}, {});
  auto ids = source->getFragmentIDCollection();
  for (std::size_t f : seen.newlyChanged(*source)) {
    auto creator = source->getCreator(ids->at(f));
    auto data = creator ? creator->heldData() : nullptr;
    if (!data || target->getFragmentIDCollection()->findFragmentIDByName(ids->at(f)->getName()))
      continue;
    auto mapped = mapPositionsOf(data, transform);
    if (!mapped) continue;
    target->setPersistentData(mapped, target->makeFragmentID(ids->at(f)->getName()),
                              Vorlap::Cache::MemCache(), "");
  }
}

}  // namespace quillo::cli
