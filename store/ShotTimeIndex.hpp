// The run's shot-time index: the GPS time of a shot -> the shot's index within the fragment
// that inserted it, in time order, for the shots of every fragment processed in the run.
// It lives as long as the run, so it is kept compact: blocks of 65536 shots that fill in time
// order, plain (16 bytes a shot) while the fragment that inserted them is being resolved, and
// packed to about 3 bytes a shot (PackedShotBlock) once a later fragment arrives, and moved
// to a scratch file of the host's data model once a million newer shots are held, as only
// merges of fragments that go back in time read them again. Memory then stays flat however
// long the run. Reads give entries by value, so iterators work the same over every kind of
// block. A scratch file that cannot be read back is recorded in failure() (the run must end:
// the entries read from it are placeholders).
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "run/Export.hpp"
#include "store/PackedShotBlock.hpp"
#include "tessal/Scratch.hpp"

namespace FullWaveform {

class QUILLO_API ShotTimeIndex {
 public:
  using value_type = std::pair<double, std::uint32_t>;  // shot time, shot index

  // Holds an entry read by value for `it->first`.
  struct EntryPointer {
    value_type entry;
    const value_type* operator->() const { return &entry; }
  };

  class const_iterator {
   public:
    using iterator_category = std::bidirectional_iterator_tag;
    using value_type = ShotTimeIndex::value_type;
    using difference_type = std::ptrdiff_t;
    using pointer = EntryPointer;
    using reference = value_type;

    const_iterator() = default;
    reference operator*() const { return index_->entry(at_); }
    pointer operator->() const { return {index_->entry(at_)}; }
    const_iterator& operator++() { return ++at_, *this; }
    const_iterator& operator--() { return --at_, *this; }
    const_iterator operator++(int) { return {index_, at_++}; }
    const_iterator operator--(int) { return {index_, at_--}; }
    bool operator==(const const_iterator&) const = default;

   private:
    friend class ShotTimeIndex;
    const_iterator(const ShotTimeIndex* index, std::size_t at) : index_(index), at_(at) {}
    const ShotTimeIndex* index_ = nullptr;
    std::size_t at_ = 0;
  };
  using iterator = const_iterator;

  // Packed blocks beyond the newest `packedBlocksInMemory` go to the scratch file.
  explicit ShotTimeIndex(std::size_t packedBlocksInMemory = 16)
      : packedBlocksInMemory_(packedBlocksInMemory) {}

  // Inserts the pairs as if one after another: a time already present takes the new index.
  // Times must not be NaN. Packs the blocks of earlier batches first (all but the last full
  // one, which the new batch's first shots walk back into). Batches later than everything
  // held are appended; an earlier one merges, releasing old blocks as it goes.
  void insert(std::vector<value_type> batch);

  bool empty() const { return size_ == 0; }
  std::size_t size() const { return size_; }
  const_iterator begin() const { return {this, 0}; }
  const_iterator end() const { return {this, size_}; }
  const_iterator cbegin() const { return begin(); }
  const_iterator cend() const { return end(); }
  // The first entry whose time is not less than `time` (end() when none).
  const_iterator lower_bound(double time) const;
  const_iterator find(double time) const;
  // lower_bound(time), searched forward from `from` when its time is not after `time` (else
  // from the start): times that come in order cost a step or two each.
  const_iterator lowerBoundFrom(const_iterator from, double time) const;
  // Up to `count` entries ending at `it` (fewer when the index starts sooner) as one array
  // whose last element is it's entry, when they lie in one plain block; else nullptr.
  // `count` becomes how many. Walks back over a fragment's own shots read them in place.
  const value_type* plainEntriesUpTo(const_iterator it, std::size_t& count) const {
    const std::size_t at = it.at_;
    if (at >= size_) return nullptr;
    count = std::min(count, at + 1);
    const std::size_t first = at + 1 - count;
    const Block& block = blocks_[at >> kBlockShift];
    if (count == 0 || (first >> kBlockShift) != (at >> kBlockShift) || !block.plain) return nullptr;
    return block.plain.get() + (first & (kBlockSize - 1));
  }
  // Heap bytes held (not counting the scratch file), for memory accounting.
  std::size_t memoryBytes() const;
  // Bytes set aside in the scratch file.
  std::size_t scratchBytes() const { return scratchBytes_; }
  // Why scratch data could not be read back; empty while every read succeeded.
  const std::string& failure() const { return failure_; }

 private:
  static constexpr std::size_t kBlockShift = 16, kBlockSize = std::size_t(1) << kBlockShift;

  struct Block {
    double first = 0.0;                   // the first entry's time, for searches without reads
    std::unique_ptr<value_type[]> plain;  // while the fragment that inserted it is resolved
    PackedShotBlock packed;               // then packed
    std::int64_t spilledAt = -1;          // then, when old, in the scratch file
    std::uint32_t spilledBytes = 0;
  };

  // Calls `read` with a packed block, read back from the scratch file when it is there.
  template <class Read>
  auto readPacked(const Block& block, Read read) const {
    return block.spilledAt < 0 ? read(block.packed) : read(readBack(block));
  }

  value_type entry(std::size_t k) const {
    const Block& block = blocks_[k >> kBlockShift];
    const std::size_t at = k & (kBlockSize - 1);
    if (block.plain) return block.plain[at];
    return readPacked(block, [at](const PackedShotBlock& packed) { return packed.at(at); });
  }
  PackedShotBlock readBack(const Block& block) const;
  std::size_t blockSize(std::size_t b) const;
  double firstTime(std::size_t b) const;
  std::size_t lowerBoundIn(std::size_t b, double time) const;
  void append(const value_type& e);
  void pack(std::size_t b);
  void spill(std::size_t b);
  void packSettledBlocks();
  void packIfOutside(double begin, double end);
  void merge(std::vector<value_type> batch);
  const value_type* plainEntries(std::size_t b, std::vector<value_type>& scratch) const;

  std::vector<Block> blocks_;
  std::size_t size_ = 0;
  std::size_t packedBlocksInMemory_;
  std::unique_ptr<Tessal::ScratchFile> spill_;
  bool spillFailed_ = false;  // no scratch file could be made or filled: keep blocks here
  std::size_t scratchBytes_ = 0;
  mutable std::string failure_;
};

}  // namespace FullWaveform
