#include "tessal/Bundle.hpp"

#include <cmath>

namespace Tessal {

using Vorlap::StrongPtr;

StrongPtr<Grid> Slice::operator()(const std::string& name) const {
  for (const auto& g : grids_) {
    if (g->getName() == name) return g;
  }
  return {};
}

StrongPtr<Grid> Slice::makeGrid(const std::string& name) {
  if (auto g = (*this)(name)) return g;
  grids_.push_back(Vorlap::makeStrong<Grid>(name));
  return grids_.back();
}

void Slice::adoptGrid(const StrongPtr<Grid>& grid) {
  for (auto& g : grids_) {
    if (g->getName() == grid->getName()) {
      g = grid;
      return;
    }
  }
  grids_.push_back(grid);
}

StrongPtr<Slice> Bundle::operator()(double& time) const {
  if (slices_.empty()) return {};
  auto best = slices_.begin();
  for (auto it = slices_.begin(); it != slices_.end(); ++it) {
    if (std::fabs(it->first - time) < std::fabs(best->first - time)) best = it;
  }
  time = best->first;
  return best->second;
}

StrongPtr<Slice> Bundle::operator[](double time) {
  auto& slot = slices_[time];
  if (!slot) slot = Vorlap::makeStrong<Slice>();
  return slot;
}

StrongPtr<Bundle> BundlePtr::create() {
  if (!bundle_) bundle_ = Vorlap::makeStrong<Bundle>();
  return bundle_;
}

}  // namespace Tessal
