#include "tessal/Field.hpp"

#include <algorithm>
#include <cmath>
#include <functional>
#include <string_view>

namespace Tessal {

using Vorlap::StrongPtr;

namespace {

std::uint32_t hashOf(const std::string& name) {
  return std::uint32_t(std::hash<std::string_view>{}(name));
}

}  // namespace

std::size_t FragmentIDCollection::indexOfName(const std::string& name, std::uint32_t hash) const {
  if (table_.empty()) return ids_.size();
  const std::size_t mask = table_.size() - 1;
  for (std::size_t s = hash & mask;; s = (s + 1) & mask) {
    const Slot slot = table_[s];
    if (slot.position == 0) return ids_.size();
    if (slot.hash == hash && ids_[slot.position - 1]->getName() == name) return slot.position - 1;
  }
}

std::size_t FragmentIDCollection::indexOfName(const std::string& name) const {
  return indexOfName(name, hashOf(name));
}

StrongPtr<FragmentID> FragmentIDCollection::findFragmentIDByName(const std::string& name) const {
  const std::size_t i = indexOfName(name);
  return i < ids_.size() ? ids_[i] : StrongPtr<FragmentID>();
}

void FragmentIDCollection::placeInTable(Slot slot) {
  const std::size_t mask = table_.size() - 1;
  std::size_t s = slot.hash & mask;
  while (table_[s].position != 0) s = (s + 1) & mask;
  table_[s] = slot;
}

StrongPtr<FragmentID> FragmentIDCollection::makeFragmentID(const std::string& name) {
  const std::uint32_t hash = hashOf(name);
  if (const std::size_t i = indexOfName(name, hash); i < ids_.size()) return ids_[i];
  auto id = Vorlap::makeStrong<FragmentID>(name);
  id->position_ = ids_.size();
  ids_.push_back(id);
  const Slot added{hash, std::uint32_t(ids_.size())};
  if (2 * ids_.size() <= table_.size()) {
    placeInTable(added);
    return id;
  }
  // Grown: the slots carry their hashes, so no name is hashed again.
  std::vector<Slot> old(std::max<std::size_t>(16, 2 * table_.size()));
  old.swap(table_);
  for (const Slot& slot : old)
    if (slot.position != 0) placeInTable(slot);
  placeInTable(added);
  return id;
}

StrongPtr<MemBase> CreativeArrayBase::create() {
  if (held_) return held_;
  StrongPtr<MemBase> data = produce();
  if (data && cachingEnabled()) held_ = data;
  return data;
}

void CreativeArrayBase::lend(const StrongPtr<MemBase>& data) {
  std::lock_guard lock(lentMutex_);
  lent_ = Vorlap::WeakPtr<MemBase>(data);
}

StrongPtr<MemBase> CreativeArrayBase::sharedData() const {
  if (held_) return held_;
  std::lock_guard lock(lentMutex_);
  return lent_.lock();
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
  // An identifier of another field: adopt its name here.
  if (i == fragments_->size()) i = fragments_->indexOf(makeFragmentID(fragment->getName()).get());
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
  if (i == fragments_->size()) i = fragments_->indexOfName(fragment->getName());
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
