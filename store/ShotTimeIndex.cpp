// The run's shot-time index (see header): ordered insertion, merging and lookups.
#include "store/ShotTimeIndex.hpp"

#include <algorithm>
#include <limits>

namespace FullWaveform {

namespace {

bool earlier(const ShotTimeIndex::value_type& a, const ShotTimeIndex::value_type& b) {
  return a.first < b.first;
}

bool earlierThan(const ShotTimeIndex::value_type& a, double time) {
  return a.first < time;
}

// Sorts by time, keeping of each run of equal times only the one inserted last.
void orderAndKeepLast(std::vector<ShotTimeIndex::value_type>& batch) {
  if (!std::is_sorted(batch.begin(), batch.end(), earlier))
    std::stable_sort(batch.begin(), batch.end(), earlier);
  std::size_t kept = 0;
  for (std::size_t k = 0; k < batch.size(); ++k) {
    if (kept > 0 && batch[kept - 1].first == batch[k].first)
      batch[kept - 1] = batch[k];
    else
      batch[kept++] = batch[k];
  }
  batch.resize(kept);
}

}  // namespace

std::size_t ShotTimeIndex::blockSize(std::size_t b) const {
  return std::min(kBlockSize, size_ - (b << kBlockShift));
}

double ShotTimeIndex::firstTime(std::size_t b) const {
  return blocks_[b].first;
}

// A block that cannot be read back stands in as entries later than any shot, so that every
// search still ends; failure() tells the caller that the run cannot go on.
PackedShotBlock ShotTimeIndex::readBack(const Block& block) const {
  std::vector<std::uint8_t> bytes;
  std::string error;
  if (spill_->read(block.spilledAt, block.spilledBytes, bytes, error))
    return PackedShotBlock::fromBytes(bytes);
  if (failure_.empty())
    failure_ = "the shot-time index could not read back its scratch data (" + error + ")";
  const std::size_t count = std::size_t(&block - blocks_.data()) + 1 < blocks_.size()
                                ? kBlockSize
                                : blockSize(std::size_t(&block - blocks_.data()));
  const std::vector<value_type> placeholders(
      count, {std::numeric_limits<double>::infinity(), std::uint32_t(0)});
  return PackedShotBlock(placeholders.data(), count);
}

void ShotTimeIndex::append(const value_type& e) {
  if ((size_ & (kBlockSize - 1)) == 0) {
    Block& block = blocks_.emplace_back();
    block.first = e.first;
    block.plain = std::make_unique_for_overwrite<value_type[]>(kBlockSize);
  }
  blocks_.back().plain[size_ & (kBlockSize - 1)] = e;
  ++size_;
}

void ShotTimeIndex::pack(std::size_t b) {
  Block& block = blocks_[b];
  if (!block.plain) return;
  block.packed = PackedShotBlock(block.plain.get(), blockSize(b));
  block.plain.reset();
}

void ShotTimeIndex::spill(std::size_t b) {
  Block& block = blocks_[b];
  if (block.plain || block.spilledAt >= 0 || spillFailed_) return;
  if (!spill_) spill_ = Tessal::openScratchFile();
  const std::vector<std::uint8_t> bytes = block.packed.toBytes();
  const std::int64_t at = spill_ ? spill_->append(bytes) : -1;
  if (at < 0) {
    spillFailed_ = true;
    return;
  }
  block.spilledAt = at;
  block.spilledBytes = std::uint32_t(bytes.size());
  scratchBytes_ += bytes.size();
  block.packed = PackedShotBlock();
}

void ShotTimeIndex::packSettledBlocks() {
  const std::size_t fullBlocks = size_ >> kBlockShift;
  for (std::size_t b = 0; b + 1 < fullBlocks; ++b) {
    pack(b);
    if (b + 1 + packedBlocksInMemory_ < fullBlocks) spill(b);
  }
}

void ShotTimeIndex::insert(std::vector<value_type> batch) {
  orderAndKeepLast(batch);
  if (batch.empty()) return;
  packSettledBlocks();
  if (size_ == 0 || entry(size_ - 1).first < batch.front().first) {
    for (const auto& e : batch) append(e);
    return;
  }
  merge(std::move(batch));
}

// Merges a batch that reaches back among the held times. Old blocks are released once copied
// and merged blocks outside the batch's time span are packed once full, so the merge holds
// about one plain copy of the batch's span on top of the packed index.
void ShotTimeIndex::merge(std::vector<value_type> batch) {
  ShotTimeIndex merged(packedBlocksInMemory_);
  const double spanBegin = batch.front().first, spanEnd = batch.back().first;
  std::vector<value_type> unpacked(kBlockSize);
  const value_type* old = nullptr;  // the entries of the old block holding entry i
  std::size_t oldBlock = blocks_.size();
  std::size_t i = 0, j = 0;  // next old entry, next new one
  while (i < size_ || j < batch.size()) {
    if (i < size_ && (i >> kBlockShift) != oldBlock)
      old = plainEntries(oldBlock = i >> kBlockShift, unpacked);
    const value_type* oldEntry = i < size_ ? &old[i & (kBlockSize - 1)] : nullptr;
    if (j < batch.size() && (!oldEntry || !(oldEntry->first < batch[j].first))) {
      const bool replacesOld = oldEntry && oldEntry->first == batch[j].first;
      merged.append(batch[j++]);
      if (!replacesOld) {
        merged.packIfOutside(spanBegin, spanEnd);
        continue;
      }
    } else {
      merged.append(*oldEntry);
    }
    merged.packIfOutside(spanBegin, spanEnd);
    if ((++i & (kBlockSize - 1)) == 0) blocks_[(i >> kBlockShift) - 1] = {};  // all copied
  }
  merged.failure_ = std::move(failure_);
  *this = std::move(merged);
}

// The entries of block b, unpacked into `scratch` when packed.
const ShotTimeIndex::value_type* ShotTimeIndex::plainEntries(
    std::size_t b, std::vector<value_type>& scratch) const {
  const Block& block = blocks_[b];
  if (block.plain) return block.plain.get();
  readPacked(block, [&scratch](const PackedShotBlock& packed) { packed.unpack(scratch.data()); });
  return scratch.data();
}

// Packs the last block when it has just filled and holds no time of [begin, end].
void ShotTimeIndex::packIfOutside(double begin, double end) {
  if ((size_ & (kBlockSize - 1)) != 0) return;
  const std::size_t b = blocks_.size() - 1;
  if (blocks_[b].plain[kBlockSize - 1].first < begin || end < blocks_[b].plain[0].first) pack(b);
}

std::size_t ShotTimeIndex::lowerBoundIn(std::size_t b, double time) const {
  const Block& block = blocks_[b];
  if (!block.plain)
    return readPacked(block,
                      [time](const PackedShotBlock& packed) { return packed.lowerBound(time); });
  const value_type* first = block.plain.get();
  return std::size_t(std::lower_bound(first, first + blockSize(b), time, earlierThan) - first);
}

ShotTimeIndex::const_iterator ShotTimeIndex::lower_bound(double time) const {
  std::size_t lo = 0, hi = blocks_.size();  // first block whose first time is not less
  while (lo < hi) {
    const std::size_t mid = lo + (hi - lo) / 2;
    if (firstTime(mid) < time)
      lo = mid + 1;
    else
      hi = mid;
  }
  if (lo == 0) return begin();
  return {this, ((lo - 1) << kBlockShift) + lowerBoundIn(lo - 1, time)};
}

// Times are strictly increasing: every entry before `from` is less than `time`. Gallops
// forward, then halves the last step.
ShotTimeIndex::const_iterator ShotTimeIndex::lowerBoundFrom(const_iterator from,
                                                            double time) const {
  std::size_t lo = from.at_;
  if (from.index_ != this || lo >= size_ || !(entry(lo).first <= time)) return lower_bound(time);
  if (!(entry(lo).first < time)) return {this, lo};
  std::size_t step = 1, hi = lo + 1;  // entry(lo) < time; the answer lies in (lo, hi]
  while (hi < size_ && entry(hi).first < time) {
    lo = hi;
    hi = std::min(size_, lo + (step *= 2));
  }
  while (hi - lo > 1) {
    const std::size_t mid = lo + (hi - lo) / 2;
    if (entry(mid).first < time)
      lo = mid;
    else
      hi = mid;
  }
  return {this, hi};
}

std::size_t ShotTimeIndex::memoryBytes() const {
  std::size_t bytes = blocks_.capacity() * sizeof(Block);
  for (const Block& block : blocks_)
    bytes += block.plain ? kBlockSize * sizeof(value_type)
                         : block.packed.memoryBytes() - sizeof(PackedShotBlock);  // 0 if spilled
  return bytes;
}

ShotTimeIndex::const_iterator ShotTimeIndex::find(double time) const {
  const auto it = lower_bound(time);
  return it != end() && it->first == time ? it : end();
}

}  // namespace FullWaveform
