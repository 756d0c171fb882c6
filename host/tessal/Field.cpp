#include "tessal/Field.hpp"

#include <algorithm>
#include <cmath>
#include <functional>
#include <string_view>
#include <thread>

namespace Tessal {

using Vorlap::StrongPtr;

namespace {

std::uint32_t hashOf(const std::string& name) {
  return std::uint32_t(std::hash<std::string_view>{}(name));
}

}  // namespace

std::size_t FragmentIDCollection::indexOfName(const std::string& name, std::uint32_t hash) const {
  if (!table_ || table_->empty()) return ids_.size();
  const std::vector<Slot>& table = *table_;
  const std::size_t mask = table.size() - 1;
  for (std::size_t s = hash & mask;; s = (s + 1) & mask) {
    const Slot slot = table[s];
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
  std::vector<Slot>& table = ownTable();
  const std::size_t mask = table.size() - 1;
  std::size_t s = slot.hash & mask;
  while (table[s].position != 0) s = (s + 1) & mask;
  table[s] = slot;
}

std::vector<FragmentIDCollection::Slot>& FragmentIDCollection::ownTable() {
  // Another collection may read a shared table at any time: it is copied, never changed.
  if (table_.use_count() > 1) table_ = std::make_shared<std::vector<Slot>>(*table_);
  return *table_;
}

void FragmentIDCollection::shareIdentifiersOf(const FragmentIDCollection& other) {
  if (&other == this) return;
  ids_ = other.ids_;
  table_ = other.table_;
  increasing_ = other.increasing_;
}

bool FragmentIDCollection::followsAll(const std::string& name) const {
  if (ids_.empty()) return true;
  if (!increasing_) return false;
  const std::string& last = ids_.back()->getName();
  return name.size() != last.size() ? name.size() > last.size() : name > last;
}

void FragmentIDCollection::append(StrongPtr<FragmentID> id, std::uint32_t hash) {
  increasing_ = followsAll(id->getName());
  ids_.push_back(std::move(id));
  const Slot added{hash, std::uint32_t(ids_.size())};
  const std::size_t slots = table_ ? table_->size() : 0;
  if (2 * ids_.size() <= slots) return placeInTable(added);
  // Grown: the slots carry their hashes, so no name is hashed again.
  auto old = std::move(table_);
  table_ = std::make_shared<std::vector<Slot>>(std::max<std::size_t>(16, 2 * slots));
  if (old)
    for (const Slot& slot : *old)
      if (slot.position != 0) placeInTable(slot);
  placeInTable(added);
}

StrongPtr<FragmentID> FragmentIDCollection::makeFragmentID(const std::string& name) {
  const std::uint32_t hash = hashOf(name);
  // Names that come in order need no search for an earlier one of the same spelling.
  if (!followsAll(name))
    if (const std::size_t i = indexOfName(name, hash); i < ids_.size()) return ids_[i];
  // A fragment's arrays are stored field after field, each field naming the fragment at the
  // same place: the identifier this thread made last serves them all.
  thread_local StrongPtr<FragmentID> lastMade;
  if (!lastMade || lastMade->position_ != ids_.size() || lastMade->getName() != name) {
    lastMade = Vorlap::makeStrong<FragmentID>(name);
    lastMade->position_ = ids_.size();
  }
  append(lastMade, hash);
  return lastMade;
}

StrongPtr<FragmentID> FragmentIDCollection::adoptFragmentID(const StrongPtr<FragmentID>& id) {
  if (id.isEmpty()) return {};
  if (indexOf(id.get()) < ids_.size()) return id;
  const std::string& name = id->getName();
  const std::uint32_t hash = hashOf(name);
  if (!followsAll(name))
    if (const std::size_t i = indexOfName(name, hash); i < ids_.size()) return ids_[i];
  if (id->position_ != ids_.size()) {
    auto own = Vorlap::makeStrong<FragmentID>(name);
    own->position_ = ids_.size();
    append(own, hash);
    return own;
  }
  append(id, hash);
  return id;
}

StrongPtr<MemBase> CreativeArrayBase::create() {
  if (held_) return held_;
  StrongPtr<MemBase> data = produce();
  if (data && cachingEnabled()) held_ = data;
  return data;
}

class CreativeArrayBase::LentLock {
 public:
  explicit LentLock(std::atomic<bool>& busy) : busy_(busy) {
    while (busy_.exchange(true, std::memory_order_acquire))
      while (busy_.load(std::memory_order_relaxed)) std::this_thread::yield();
  }
  ~LentLock() { busy_.store(false, std::memory_order_release); }
  LentLock(const LentLock&) = delete;
  LentLock& operator=(const LentLock&) = delete;

 private:
  std::atomic<bool>& busy_;
};

void CreativeArrayBase::lend(const StrongPtr<MemBase>& data) {
  Vorlap::WeakPtr<MemBase> lent(data);
  {
    LentLock lock(lentBusy_);
    std::swap(lent_, lent);
  }
  // The handle given up is let go outside the lock: it may free a control block.
}

StrongPtr<MemBase> CreativeArrayBase::sharedData() const {
  if (held_) return held_;
  LentLock lock(lentBusy_);
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

StrongPtr<FragmentID> Field::adoptFragmentID(const StrongPtr<FragmentID>& id) {
  auto own = fragments_->adoptFragmentID(id);
  if (creators_.size() < fragments_->size()) creators_.resize(fragments_->size());
  return own;
}

bool Field::shareFragmentIDs(const FragmentIDCollection& ids) {
  if (fragments_->size() > 0) return false;
  fragments_->shareIdentifiersOf(ids);
  creators_.resize(fragments_->size());
  return true;
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
  // An identifier of another field: adopt it (or its name) here.
  if (i == fragments_->size()) i = fragments_->indexOf(fragments_->adoptFragmentID(fragment).get());
  if (creators_.size() < fragments_->size()) creators_.resize(fragments_->size());
  creators_[i] = creator;
  changeLog_.push_back(std::uint32_t(i));
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
