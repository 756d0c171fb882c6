// Gridding of terrain points: noise left out, cell size from density, per-cell mean height
// and majority surface, breadth-first filling of empty cells, bilinear height lookup.
#include "sim/HeightGrid.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <stdexcept>

namespace quillo::sim {

namespace {

bool isNoiseClass(std::uint8_t asprsClass) {
  return asprsClass == 7 || asprsClass == 18;
}

// The points that are not classed as noise.
TerrainPoints withoutNoise(const TerrainPoints& p) {
  TerrainPoints kept;
  for (std::size_t k = 0; k < p.x.size(); ++k) {
    const std::uint8_t c = k < p.classification.size() ? p.classification[k] : 1;
    if (isNoiseClass(c)) continue;
    kept.x.push_back(p.x[k]), kept.y.push_back(p.y[k]), kept.z.push_back(p.z[k]);
    kept.classification.push_back(c);
  }
  return kept;
}

}  // namespace

Surface surfaceOfClass(std::uint8_t asprsClass) {
  switch (asprsClass) {
    case 3:
    case 4:
    case 5:
      return Surface::Vegetation;
    case 6:
      return Surface::Building;
    case 9:
      return Surface::Water;
    default:
      return Surface::Ground;
  }
}

HeightGrid::HeightGrid(const TerrainPoints& all, const std::string& name) {
  const TerrainPoints p = withoutNoise(all);
  if (p.x.empty())
    throw std::runtime_error(name + ": no terrain points" +
                             (all.x.empty() ? "" : " (all are classed as noise, 7 or 18)"));
  extent_ = {p.x[0], p.y[0], p.x[0], p.y[0]};
  for (std::size_t k = 0; k < p.x.size(); ++k) {
    if (!std::isfinite(p.x[k]) || !std::isfinite(p.y[k]) || !std::isfinite(p.z[k]))
      throw std::runtime_error(name + ": point " + std::to_string(k) + " is not a number");
    extent_.minX = std::min(extent_.minX, p.x[k]), extent_.maxX = std::max(extent_.maxX, p.x[k]);
    extent_.minY = std::min(extent_.minY, p.y[k]), extent_.maxY = std::max(extent_.maxY, p.y[k]);
  }
  chooseCells(p.x.size());
  average(p);
  classify(p);
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
    const std::size_t c = cellOf(p.x[k], p.y[k]);
    sum[c] += p.z[k];
    ++n[c];
  }
  heights_.assign(nx_ * ny_, 0.0f);
  std::vector<bool> filled(nx_ * ny_, false);
  for (std::size_t c = 0; c < sum.size(); ++c)
    if (n[c]) heights_[c] = float(sum[c] / n[c]), filled[c] = true;
  fillEmptyCells(filled);
}

// The surface most points of a cell are; an empty cell takes its nearest classified cell's,
// found in the same layers outwards as the heights.
void HeightGrid::classify(const TerrainPoints& p) {
  std::vector<std::array<std::uint32_t, 4>> votes(nx_ * ny_, {0, 0, 0, 0});
  for (std::size_t k = 0; k < p.x.size(); ++k)
    ++votes[cellOf(p.x[k], p.y[k])][std::size_t(surfaceOfClass(p.classification[k]))];
  surfaces_.assign(nx_ * ny_, Surface::Ground);
  std::vector<bool> known(nx_ * ny_, false);
  for (std::size_t c = 0; c < votes.size(); ++c) {
    const auto most = std::max_element(votes[c].begin(), votes[c].end());
    if (*most == 0) continue;
    surfaces_[c] = Surface(most - votes[c].begin());
    known[c] = true;
  }
  spreadOutwards(known, [&](std::size_t c) {
    bool taken = false;
    forNeighbours(c, [&](std::size_t m) {
      if (known[m] && !taken) surfaces_[c] = surfaces_[m], taken = true;
    });
  });
}

template <class Visit>
void HeightGrid::forNeighbours(std::size_t c, Visit visit) const {
  const std::size_t i = c % nx_, j = c / nx_;
  for (std::size_t jj = j ? j - 1 : 0; jj <= std::min(ny_ - 1, j + 1); ++jj)
    for (std::size_t ii = i ? i - 1 : 0; ii <= std::min(nx_ - 1, i + 1); ++ii) visit(jj * nx_ + ii);
}

// Layer by layer outwards from the filled cells, so a hole is closed from its rim inwards
// and every empty cell is reached once; fill(c) sees the cells filled in earlier layers.
template <class Fill>
void HeightGrid::spreadOutwards(std::vector<bool>& filled, Fill fill) {
  std::vector<std::size_t> layer, next;
  for (std::size_t c = 0; c < filled.size(); ++c)
    if (filled[c]) layer.push_back(c);
  std::vector<bool> queued = filled;
  while (!layer.empty()) {
    next.clear();
    for (std::size_t c : layer)
      forNeighbours(c, [&](std::size_t n) {
        if (!queued[n]) queued[n] = true, next.push_back(n);
      });
    for (std::size_t c : next) fill(c);
    for (std::size_t c : next) filled[c] = true;
    layer.swap(next);
  }
}

// Each empty cell takes the mean of its already filled neighbours.
void HeightGrid::fillEmptyCells(std::vector<bool>& filled) {
  spreadOutwards(filled, [&](std::size_t c) {
    double sum = 0.0;
    int n = 0;
    forNeighbours(c, [&](std::size_t m) {
      if (filled[m]) sum += heights_[m], ++n;
    });
    heights_[c] = float(sum / n);
  });
}

std::size_t HeightGrid::cellOf(double x, double y) const {
  const double fx = std::clamp((x - extent_.minX) / cell_, 0.0, double(nx_ - 1));
  const double fy = std::clamp((y - extent_.minY) / cell_, 0.0, double(ny_ - 1));
  return std::size_t(fy) * nx_ + std::size_t(fx);
}

Surface HeightGrid::surface(double x, double y) const {
  return surfaces_[cellOf(x, y)];
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
