// The counts of an output for the report and its map positions, from arrays held as one
// plain block, as a strided view of a block and as computed elements alike.
#include <gtest/gtest.h>

#include <cmath>

#include "app/MapPositions.hpp"
#include "app/OutputStats.hpp"
#include "tessal/Schema.hpp"

using namespace quillo::cli;
using Gemwold::PhysicalSpace::point;

namespace {

namespace schema = Tessal::schema;

// The values as a plain array, as every second element of a block and as an accessor.
template <class T>
std::vector<Vorlap::StrongPtr<Tessal::MemArray<1, T>>> layouts(const std::vector<T>& values) {
  using Array = Tessal::MemArray<1, T>;
  const std::size_t n = values.size();
  auto plain = Vorlap::makeStrong<Array>(n);
  for (std::size_t k = 0; k < n; ++k) plain->set(k, values[k]);
  // A view reads element k at (k + offset) * stride of its block.
  auto block = Vorlap::makeStrong<Tessal::DataBlock<T>>();
  block->values.resize(2 * n + 2);
  for (std::size_t k = 0; k < n; ++k) block->values[(k + 1) * 2] = values[k];
  auto strided = Vorlap::makeStrong<Array>(typename Array::Extents{n}, block, 1, 2);
  auto computed = Vorlap::makeStrong<Array>(typename Array::Extents{n},
                                            [values](std::size_t k) { return values[k]; });
  return {plain, strided, computed};
}

}  // namespace

TEST(OutputCounts, ZonesNoiseAndPointsWithoutPositionWhateverTheLayout) {
  const std::vector<std::uint8_t> zones = {3, 3, 5, 255, 3};
  const std::vector<std::uint8_t> classes = {7, 2, 7, 7, 1};
  const double nan = std::nan("");
  const std::vector<point> positions = {
      {1, 2, 3}, {nan, 0, 0}, {0, INFINITY, 0}, {4, 5, 6}, {7, 8, 9}};
  for (std::size_t l = 0; l < 3; ++l) {
    OutputSummary s;
    countArray(schema::kMTA, *layouts(zones)[l], s);
    countArray(schema::kClassification, *layouts(classes)[l], s);
    countArray(schema::kPositions, *layouts(positions)[l], s);
    EXPECT_EQ(s.points, 5u) << "layout " << l;
    EXPECT_EQ(s.pointsPerZone, (std::map<int, std::uint64_t>{{3, 3}, {5, 1}, {255, 1}}));
    EXPECT_EQ(s.noisePoints, 3u);
    EXPECT_EQ(s.pointsWithoutPosition, 2u);
  }
}

TEST(OutputCounts, MapPositionsWhateverTheLayout) {
  // Rotated a quarter turn about z and shifted.
  const Transform m{0, -1, 0, 100, 1, 0, 0, 200, 0, 0, 1, 300};
  const std::vector<point> positions = {{1, 2, 3}, {-4, 0.5, 6}};
  for (const auto& array : layouts(positions)) {
    auto mapped = Vorlap::dynamicPtrCast<Tessal::MemArray<1, point>>(mapPositions(*array, m));
    ASSERT_TRUE(mapped);
    ASSERT_EQ(mapped->size(), 2u);
    EXPECT_EQ(mapped->get(0).x, 98);
    EXPECT_EQ(mapped->get(0).y, 201);
    EXPECT_EQ(mapped->get(0).z, 303);
    EXPECT_EQ(mapped->get(1).x, 99.5);
    EXPECT_EQ(mapped->get(1).y, 196);
    EXPECT_EQ(mapped->get(1).z, 306);
  }
  EXPECT_FALSE(mapPositions(*layouts(std::vector<double>{1.0})[0], m));
  // The identity keeps the scanner-frame array itself; anything else maps a copy, and
  // arrays that are not points give nothing either way.
  const Transform identity{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
  const auto array = layouts(positions)[0];
  EXPECT_EQ(mapPositionsOf(array, identity).get(), array.get());
  const auto moved = mapPositionsOf(array, m);
  ASSERT_TRUE(moved);
  EXPECT_NE(moved.get(), array.get());
  for (const auto& transform : {identity, m})
    EXPECT_FALSE(mapPositionsOf(layouts(std::vector<double>{1.0})[0], transform));
}
