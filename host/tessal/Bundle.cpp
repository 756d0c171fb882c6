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

namespace {

bool copyField(const Field& from, Representation& to) {
  StrongPtr<Field> field = to.makeField(to.makeFieldID(from.getName()), {}, {});
  field->attributes() = from.attributes();
  auto ids = from.getFragmentIDCollection();
  field->shareFragmentIDs(*ids);
  for (std::size_t f = 0; f < ids->size(); ++f) {
    auto id = field->adoptFragmentID(ids->at(f));
    auto creator = from.getCreator(ids->at(f));
    if (!creator) continue;
    auto copy = creator->unheldCopy();
    if (!copy) return false;
    copy->enableCaching(creator->cachingEnabled());
    copy->setRange(creator->range());
    field->setCreator(id, copy);
  }
  return true;
}

bool copyGrid(const Grid& from, Grid& to) {
  to.replaceAttributes(from.attributes());
  for (const auto& rep : from.representations()) {
    auto target =
        to.makeCartesianRepresentation(rep->getChart()->getDimensions(), rep->getName(), 0);
    for (const auto& entry : rep->fields()) {
      if (!entry.field) {
        target->makeFieldID(entry.id->getName());
        continue;
      }
      if (!copyField(*entry.field, *target)) return false;
    }
  }
  return true;
}

}  // namespace

BundlePtr copyForAnotherThread(const BundlePtr& bundle) {
  BundlePtr copy = BundlePtr::make();
  if (!bundle) return copy;
  for (const auto& [time, slice] : bundle->slices())
    for (const auto& grid : slice->grids())
      if (!copyGrid(*grid, *(*copy.create())[time]->makeGrid(grid->getName()))) return {};
  return copy;
}

}  // namespace Tessal
