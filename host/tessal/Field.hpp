// Fields hold one array per fragment. Each fragment has a FragmentID (its name) and a
// creator that yields the fragment's array: either data stored in memory
// (setPersistentData) or data produced on demand, e.g. read from a .kq file when asked.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "tessal/MemArray.hpp"
#include "vorlap/Attributes.hpp"
#include "vorlap/Cache.hpp"

namespace Tessal {

class FieldID {
 public:
  explicit FieldID(std::string name) : name_(std::move(name)) {}
  const std::string& getName() const { return name_; }

 private:
  std::string name_;
};

class FragmentID {
 public:
  explicit FragmentID(std::string name) : name_(std::move(name)) {}
  const std::string& getName() const { return name_; }

 private:
  friend class FragmentIDCollection;
  std::string name_;
  // Where the collection that made it keeps it, so that a look-up by identifier is one
  // comparison instead of a search.
  std::size_t position_ = ~std::size_t(0);
};

// The fragment identifiers of a field, in creation order. A strip may hold tens of thousands
// of fragments and every field is asked for each of them, so a look-up by identifier reads
// the position the identifier carries, and one by name probes a flat table of positions (no
// node, no copy of the name per fragment).
class FragmentIDCollection {
 public:
  Vorlap::StrongPtr<FragmentID> findFragmentIDByName(const std::string& name) const;
  // The identifier of that name, made when missing.
  Vorlap::StrongPtr<FragmentID> makeFragmentID(const std::string& name);
  // The identifier of `id`'s name, made when missing: `id` itself when it would sit at the
  // place it has in its own collection. Fields of one grid name the same fragments in the
  // same order, and one identifier object for all of them spares an allocation and a name
  // look-up per fragment and field.
  Vorlap::StrongPtr<FragmentID> adoptFragmentID(const Vorlap::StrongPtr<FragmentID>& id);
  std::size_t size() const { return ids_.size(); }
  const Vorlap::StrongPtr<FragmentID>& at(std::size_t i) const { return ids_[i]; }
  // Position of the identifier, or size() when it is not in this collection.
  std::size_t indexOf(const FragmentID* id) const {
    const std::size_t i = id ? id->position_ : ids_.size();
    return i < ids_.size() && ids_[i].get() == id ? i : ids_.size();
  }
  // Position of the identifier of that name, or size() when there is none.
  std::size_t indexOfName(const std::string& name) const;
  // Makes this empty collection hold `other`'s identifiers, the same objects in the same order.
  void shareIdentifiersOf(const FragmentIDCollection& other);

 private:
  // A name's hash and its identifier's position + 1 (0: free). A probe compares hashes
  // before it reads a name, and a grown table places its slots without hashing again.
  struct Slot {
    std::uint32_t hash = 0, position = 0;
  };
  std::size_t indexOfName(const std::string& name, std::uint32_t hash) const;
  void placeInTable(Slot slot);
  // Appends an identifier whose name is not in the collection yet.
  void append(Vorlap::StrongPtr<FragmentID> id, std::uint32_t hash);
  // Whether `name` comes after every name so far in shortlex order (Fragment_9 before
  // Fragment_10, as fragments are numbered), so that it cannot be one of them.
  bool followsAll(const std::string& name) const;
  std::vector<Vorlap::StrongPtr<FragmentID>> ids_;
  // Open addressing by the name's hash; its size is a power of two, at least twice the
  // identifiers. Shared with the collections made alike (shareIdentifiersOf) until one of
  // them grows: the fields of a grid name the same fragments, and a table per field of
  // thousands of fragments is most of the memory a load takes before any data.
  std::shared_ptr<std::vector<Slot>> table_;
  std::vector<Slot>& ownTable();
  bool increasing_ = true;  // every name so far came after the ones before it
};

// Per component minimum and maximum of a fragment's values.
struct ValueRange {
  std::vector<double> min, max;
};

// Yields a fragment's array; keeps it while caching is enabled.
class CreativeArrayBase : public Vorlap::Creature, public Vorlap::ReferenceBase<CreativeArrayBase> {
 public:
  // What the creator holds now (empty when nothing is held).
  Vorlap::StrongPtr<MemBase> heldData() const { return held_; }
  // Produces the array (or gives the held one); keeps it when caching is enabled.
  Vorlap::StrongPtr<MemBase> create();
  // Lets later readers share an array produced for a reader that does not cache it, for as
  // long as someone else holds it: a second reader of the fragment then need not decode it
  // again, and the creator keeps no memory alive. The array must not change afterwards.
  void lend(const Vorlap::StrongPtr<MemBase>& data);
  // The held array, else a lent one still alive (empty when neither).
  Vorlap::StrongPtr<MemBase> sharedData() const;
  // Element type and extents without producing the data.
  virtual ElementType elementType() const = 0;
  virtual std::vector<std::size_t> extents() const = 0;

  // A creator that produces the same array anew and holds nothing: for a copy of the bundle
  // that another thread reads. Empty when the array cannot be produced again that way.
  virtual Vorlap::StrongPtr<CreativeArrayBase> unheldCopy() const { return {}; }

  Vorlap::StrongPtr<ValueRange> range() const { return range_; }
  void setRange(Vorlap::StrongPtr<ValueRange> r) { range_ = std::move(r); }

 protected:
  virtual Vorlap::StrongPtr<MemBase> produce() = 0;
  void dropCachedData() override;
  // Persistent creators keep their data whatever the caching setting.
  virtual bool isPersistent() const { return false; }
  Vorlap::StrongPtr<MemBase> held_;

 private:
  // Taken only to copy lent_: the module's thread lends while the writer's borrows. A flag
  // rather than a mutex, as every fragment of every field has a creator (a mutex is 40 bytes).
  class LentLock;
  Vorlap::StrongPtr<ValueRange> range_;
  Vorlap::WeakPtr<MemBase> lent_;
  mutable std::atomic<bool> lentBusy_{false};
};

// A creator holding an array given to it.
class PersistentCreator final : public CreativeArrayBase {
 public:
  explicit PersistentCreator(const Vorlap::StrongPtr<MemBase>& data) { held_ = data; }
  ElementType elementType() const override { return held_->elementType(); }
  std::vector<std::size_t> extents() const override;

 protected:
  Vorlap::StrongPtr<MemBase> produce() override { return held_; }
  bool isPersistent() const override { return true; }
};

class Field : public Vorlap::Ageable {
 public:
  explicit Field(std::string name);
  const std::string& getName() const { return name_; }

  Vorlap::StrongPtr<FragmentIDCollection> getFragmentIDCollection() const { return fragments_; }
  std::size_t getNumberOfFragments() const { return fragments_->size(); }
  Vorlap::StrongPtr<FragmentID> makeFragmentID(const std::string& name);
  // The identifier of `id`'s name here, made when missing (FragmentIDCollection::adoptFragmentID).
  Vorlap::StrongPtr<FragmentID> adoptFragmentID(const Vorlap::StrongPtr<FragmentID>& id);
  // Gives a field without fragments those of `ids`, the same identifiers in the same order;
  // false (and nothing done) when the field has fragments already.
  bool shareFragmentIDs(const FragmentIDCollection& ids);

  // Stores an array as the fragment's data, without copying it.
  void setPersistentData(const Vorlap::StrongPtr<MemBase>& data,
                         const Vorlap::StrongPtr<FragmentID>& fragment,
                         const Vorlap::StrongPtr<Vorlap::Cache>& cache, const std::string& note);
  // Installs a creator (used by loaders that produce data on demand).
  void setCreator(const Vorlap::StrongPtr<FragmentID>& fragment,
                  const Vorlap::StrongPtr<CreativeArrayBase>& creator);
  Vorlap::StrongPtr<CreativeArrayBase> getCreator(
      const Vorlap::StrongPtr<FragmentID>& fragment) const;

  // Every setCreator is logged by fragment position, so that a consumer that comes back after
  // each fragment (a streaming save, output statistics) visits only what changed.
  std::size_t creatorChanges() const { return changeLog_.size(); }
  // Positions whose creator was set since the log held `mark` entries, ascending, each once.
  std::vector<std::size_t> fragmentsChangedSince(std::size_t mark) const;

  Vorlap::Attributes& attributes() { return attributes_; }
  const Vorlap::Attributes& attributes() const { return attributes_; }

  // The empty field handle that lookups return when nothing is found.
  static Vorlap::StrongPtr<Field> NullPtrField() { return {}; }

 private:
  std::string name_;
  Vorlap::StrongPtr<FragmentIDCollection> fragments_;
  std::vector<Vorlap::StrongPtr<CreativeArrayBase>> creators_;  // parallel to fragments_
  // Positions, in setCreator order; 32 bits, as a fragment's creator is set a few times.
  std::vector<std::uint32_t> changeLog_;
  Vorlap::Attributes attributes_;
};

// Where a consumer stands in the change logs of the fields it visits again and again.
class FragmentChangeCursor {
 public:
  // Positions of `field` whose creator was set since this cursor last asked about it
  // (all of them on the first call), ascending.
  std::vector<std::size_t> newlyChanged(const Field& field);

 private:
  std::unordered_map<const Field*, std::size_t> marks_;
};

// Value range of a fragment: the creator's known range, else computed from `data` or from
// what the creator holds (or, when `produce` is set, from newly produced data); `recompute`
// ignores a known range. Empty when nothing is at hand.
Vorlap::StrongPtr<ValueRange> getFragmentRange(CreativeArrayBase& creator, bool recompute,
                                               bool produce,
                                               const Vorlap::StrongPtr<MemBase>& data);
// Union of the known fragment ranges of a field; empty when none is known.
Vorlap::StrongPtr<ValueRange> getBoundingBox(const Vorlap::StrongPtr<Field>& field);

}  // namespace Tessal
