#include "tessal/Field.hpp"

#include <algorithm>
#include <cmath>

namespace Tessal {

using Vorlap::StrongPtr;

StrongPtr<FragmentID> FragmentIDCollection::findFragmentIDByName(const std::string& name) const {
  const auto found = byName_.find(name);
  return found == byName_.end() ? StrongPtr<FragmentID>() : ids_[found->second];
}

StrongPtr<FragmentID> FragmentIDCollection::makeFragmentID(const std::string& name) {
  if (auto found = findFragmentIDByName(name)) return found;
  ids_.push_back(Vorlap::makeStrong<FragmentID>(name));
  byName_.emplace(name, ids_.size() - 1);
  byId_.emplace(ids_.back().get(), ids_.size() - 1);
  return ids_.back();
}

std::size_t FragmentIDCollection::indexOf(const FragmentID* id) const {
  const auto found = byId_.find(id);
  return found == byId_.end() ? ids_.size() : found->second;
}

StrongPtr<MemBase> CreativeArrayBase::create() {
  if (held_) return held_;
  StrongPtr<MemBase> data = produce();
  if (data && cachingEnabled()) held_ = data;
  return data;
}

void CreativeArrayBase::dropCachedData() {
  if (!isPersistent()) held_.reset();
}

std::vector<std::size_t> PersistentCreator::extents() const {
  std::vector<std::size_t> e;
  for (unsigned d = 0; d < held_->rank(); ++d) e.push_back(held_->extent(d));
  return e;
}

Field::Field(std::string name)
    : name_(std::move(name)), fragments_(Vorlap::makeStrong<FragmentIDCollection>()) {}

StrongPtr<FragmentID> Field::makeFragmentID(const std::string& name) {
  auto id = fragments_->makeFragmentID(name);
  if (creators_.size() < fragments_->size()) creators_.resize(fragments_->size());
  return id;
}

void Field::setPersistentData(const StrongPtr<MemBase>& data, const StrongPtr<FragmentID>& fragment,
                              const StrongPtr<Vorlap::Cache>& cache, const std::string&) {
  if (data.isEmpty() || fragment.isEmpty()) return;
  setCreator(fragment, Vorlap::makeStrong<PersistentCreator>(data));
  if (cache) cache->add(data);
}

void Field::setCreator(const StrongPtr<FragmentID>& fragment,
                       const StrongPtr<CreativeArrayBase>& creator) {
  if (fragment.isEmpty()) return;
  std::size_t i = fragments_->indexOf(fragment.get());
  if (i == fragments_->size()) {
    // An identifier of another field: adopt its name here.
    makeFragmentID(fragment->getName());
    i = fragments_->indexOf(fragments_->findFragmentIDByName(fragment->getName()).get());
  }
  creators_.resize(fragments_->size());
  creators_[i] = creator;
  changeLog_.push_back(i);
  touch();
}

std::vector<std::size_t> Field::fragmentsChangedSince(std::size_t mark) const {
  std::vector<std::size_t> changed(
      changeLog_.begin() + std::ptrdiff_t(std::min(mark, changeLog_.size())), changeLog_.end());
  std::sort(changed.begin(), changed.end());
  changed.erase(std::unique(changed.begin(), changed.end()), changed.end());
  return changed;
}

std::vector<std::size_t> FragmentChangeCursor::newlyChanged(const Field& field) {
  std::size_t& mark = marks_[&field];
  auto changed = field.fragmentsChangedSince(mark);
  mark = field.creatorChanges();
  return changed;
}

StrongPtr<CreativeArrayBase> Field::getCreator(const StrongPtr<FragmentID>& fragment) const {
  if (fragment.isEmpty()) return {};
  std::size_t i = fragments_->indexOf(fragment.get());
  if (i == fragments_->size()) {
    auto byName = fragments_->findFragmentIDByName(fragment->getName());
    if (!byName) return {};
    i = fragments_->indexOf(byName.get());
  }
  return i < creators_.size() ? creators_[i] : StrongPtr<CreativeArrayBase>();
}

namespace {

StrongPtr<ValueRange> rangeOf(const MemBase& data) {
  const unsigned nc = componentCount(data.elementType());
  auto r = Vorlap::makeStrong<ValueRange>();
  r->min.assign(nc, INFINITY);
  r->max.assign(nc, -INFINITY);
  data.widenRange(r->min.data(), r->max.data());
  return r;
}

}  // namespace

StrongPtr<ValueRange> getFragmentRange(CreativeArrayBase& creator, bool recompute, bool produce,
                                       const StrongPtr<MemBase>& data) {
  if (!recompute && creator.range()) return creator.range();
  StrongPtr<MemBase> source = data ? data : creator.heldData();
  if (!source && produce) source = creator.create();
  if (!source) return {};
  auto r = rangeOf(*source);
  creator.setRange(r);
  return r;
}

StrongPtr<ValueRange> getBoundingBox(const StrongPtr<Field>& field) {
  if (!field) return {};
  StrongPtr<ValueRange> box;
  auto ids = field->getFragmentIDCollection();
  for (std::size_t i = 0; i < ids->size(); ++i) {
    auto creator = field->getCreator(ids->at(i));
    if (!creator) continue;
    auto r = getFragmentRange(*creator, false, false, {});
    if (!r) continue;
    if (!box) {
      box = Vorlap::makeStrong<ValueRange>(*r);
      continue;
    }
    for (std::size_t c = 0; c < box->min.size() && c < r->min.size(); ++c) {
      box->min[c] = std::min(box->min[c], r->min[c]);
      box->max[c] = std::max(box->max[c], r->max[c]);
    }
  }
  return box;
}

}  // namespace Tessal
