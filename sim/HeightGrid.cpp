// Gridding of terrain points: cell size from density, per-cell mean height, breadth-first
// filling of empty cells (each takes the mean of its already filled neighbours), bilinear
// lookup.
#include "sim/HeightGrid.hpp"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace quillo::sim {

HeightGrid::HeightGrid(const TerrainPoints& p, const std::string& name) {
  if (p.x.empty()) throw std::runtime_error(name + ": no terrain points");
  extent_ = {p.x[0], p.y[0], p.x[0], p.y[0]};
  for (std::size_t k = 0; k < p.x.size(); ++k) {
    if (!std::isfinite(p.x[k]) || !std::isfinite(p.y[k]) || !std::isfinite(p.z[k]))
      throw std::runtime_error(name + ": point " + std::to_string(k) + " is not a number");
    extent_.minX = std::min(extent_.minX, p.x[k]), extent_.maxX = std::max(extent_.maxX, p.x[k]);
    extent_.minY = std::min(extent_.minY, p.y[k]), extent_.maxY = std::max(extent_.maxY, p.y[k]);
  }
  chooseCells(p.x.size());
  average(p);
  std::vector<float> sorted = heights_;
  std::nth_element(sorted.begin(), sorted.begin() + std::ptrdiff_t(sorted.size() / 2),
                   sorted.end());
  groundLevel_ = sorted[sorted.size() / 2];
  lowest_ = *std::min_element(heights_.begin(), heights_.end());
  highest_ = *std::max_element(heights_.begin(), heights_.end());
}

// About four points per cell; a line or a single spot of points still gets a usable grid.
void HeightGrid::chooseCells(std::size_t pointCount) {
  const double w = extent_.width(), d = extent_.depth();
  const double span = std::max(w, d);
  const double area = w > 0 && d > 0 ? w * d : span * span;
  cell_ = span > 0 ? 2.0 * std::sqrt(area / double(pointCount)) : 1.0;
  cell_ = std::max(cell_, span * 1e-6);
  auto count = [&](double length) { return std::size_t(length / cell_) + 1; };
  while (double(count(w)) * double(count(d)) > double(kMaxCells)) cell_ *= 1.25;
  nx_ = count(w), ny_ = count(d);
}

void HeightGrid::average(const TerrainPoints& p) {
  std::vector<double> sum(nx_ * ny_, 0.0);
  std::vector<std::uint32_t> n(nx_ * ny_, 0);
  for (std::size_t k = 0; k < p.x.size(); ++k) {
    const auto i = std::min(nx_ - 1, std::size_t((p.x[k] - extent_.minX) / cell_));
    const auto j = std::min(ny_ - 1, std::size_t((p.y[k] - extent_.minY) / cell_));
    sum[j * nx_ + i] += p.z[k];
    ++n[j * nx_ + i];
  }
  heights_.assign(nx_ * ny_, 0.0f);
  std::vector<bool> filled(nx_ * ny_, false);
  for (std::size_t c = 0; c < sum.size(); ++c)
    if (n[c]) heights_[c] = float(sum[c] / n[c]), filled[c] = true;
  fillEmptyCells(filled);
}

// Layer by layer outwards from the cells with points, so a hole is closed from its rim
// inwards and every empty cell is reached once.
void HeightGrid::fillEmptyCells(std::vector<bool>& filled) {
  std::vector<std::size_t> layer;
  for (std::size_t c = 0; c < filled.size(); ++c)
    if (filled[c]) layer.push_back(c);
  std::vector<std::size_t> next;
  std::vector<bool> queued = filled;
  while (!layer.empty()) {
    next.clear();
    for (std::size_t c : layer) {
      const std::size_t i = c % nx_, j = c / nx_;
      for (std::size_t jj = j ? j - 1 : 0; jj <= std::min(ny_ - 1, j + 1); ++jj)
        for (std::size_t ii = i ? i - 1 : 0; ii <= std::min(nx_ - 1, i + 1); ++ii)
          if (!queued[jj * nx_ + ii]) queued[jj * nx_ + ii] = true, next.push_back(jj * nx_ + ii);
    }
    for (std::size_t c : next) {
      const std::size_t i = c % nx_, j = c / nx_;
      double sum = 0.0;
      int n = 0;
      for (std::size_t jj = j ? j - 1 : 0; jj <= std::min(ny_ - 1, j + 1); ++jj)
        for (std::size_t ii = i ? i - 1 : 0; ii <= std::min(nx_ - 1, i + 1); ++ii)
          if (filled[jj * nx_ + ii]) sum += heights_[jj * nx_ + ii], ++n;
      heights_[c] = float(sum / n);
    }
    for (std::size_t c : next) filled[c] = true;
    layer.swap(next);
  }
}

double HeightGrid::height(double x, double y) const {
  const double fx = std::clamp((x - extent_.minX) / cell_ - 0.5, 0.0, double(nx_ - 1));
  const double fy = std::clamp((y - extent_.minY) / cell_ - 0.5, 0.0, double(ny_ - 1));
  const auto i = std::size_t(fx), j = std::size_t(fy);
  const std::size_t i1 = std::min(i + 1, nx_ - 1), j1 = std::min(j + 1, ny_ - 1);
  const double tx = fx - double(i), ty = fy - double(j);
  const double low = cellHeight(i, j) * (1 - tx) + cellHeight(i1, j) * tx;
  const double high = cellHeight(i, j1) * (1 - tx) + cellHeight(i1, j1) * tx;
  return low * (1 - ty) + high * ty;
}

std::shared_ptr<const HeightGrid> loadTerrain(const std::string& path) {
  return std::make_shared<const HeightGrid>(readLasFile(path), path);
}

}  // namespace quillo::sim
