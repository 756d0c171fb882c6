// A height field gridded from terrain points (see LasTerrain.hpp): the mean height of the
// points in each cell, cells without points filled from their neighbours, heights between
// cell centres interpolated bilinearly; and per cell the surface most of its points are by
// their class. Points classed as noise (7, 18) are left out: a bird in the terrain file
// would otherwise become a tower. The survey's scene when a terrain file is given.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "sim/LasTerrain.hpp"

namespace quillo::sim {

struct GridExtent {
  double minX = 0, minY = 0, maxX = 0, maxY = 0;
  double width() const { return maxX - minX; }
  double depth() const { return maxY - minY; }
};

// What the survey's beam meets in a cell.
enum class Surface : std::uint8_t { Ground, Building, Water, Vegetation };

// The surface of an ASPRS class: 3-5 vegetation, 6 building, 9 water, anything else ground.
Surface surfaceOfClass(std::uint8_t asprsClass);

class HeightGrid {
 public:
  // Cell size from the point density (a few points per cell on average), bounded so the grid
  // stays under kMaxCells. Throws std::runtime_error naming `name` when there are no points
  // or a coordinate is not a number.
  HeightGrid(const TerrainPoints& points, const std::string& name);

  static constexpr std::size_t kMaxCells = std::size_t(1) << 24;

  // Height at (x, y); outside the extent the nearest edge cell's height.
  double height(double x, double y) const;
  // Surface of the cell holding (x, y), or of the nearest edge cell.
  Surface surface(double x, double y) const;
  const GridExtent& extent() const { return extent_; }
  double cellSize() const { return cell_; }
  std::size_t columns() const { return nx_; }
  std::size_t rows() const { return ny_; }
  // The median cell height: the level above which the survey's altitude is measured.
  double groundLevel() const { return groundLevel_; }
  double lowestHeight() const { return lowest_; }
  double highestHeight() const { return highest_; }

 private:
  void chooseCells(std::size_t pointCount);
  void average(const TerrainPoints& points);
  void classify(const TerrainPoints& points);
  void fillEmptyCells(std::vector<bool>& filled);
  template <class Fill>
  void spreadOutwards(std::vector<bool>& filled, Fill fill);
  template <class Visit>
  void forNeighbours(std::size_t c, Visit visit) const;
  double cellHeight(std::size_t i, std::size_t j) const { return heights_[j * nx_ + i]; }

  GridExtent extent_;
  double cell_ = 1.0;
  std::size_t nx_ = 1, ny_ = 1;
  std::size_t cellOf(double x, double y) const;

  std::vector<float> heights_;
  std::vector<Surface> surfaces_;
  double groundLevel_ = 0.0, lowest_ = 0.0, highest_ = 0.0;
};

// Reads the LAS file at `path` and grids it; throws std::runtime_error naming the file.
std::shared_ptr<const HeightGrid> loadTerrain(const std::string& path);

}  // namespace quillo::sim
