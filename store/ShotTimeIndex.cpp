// The run's shot-time index (see header): ordered insertion, merging and lookups.
#include "store/ShotTimeIndex.hpp"

#include <algorithm>
#include <stdexcept>

namespace FullWaveform {

namespace {

bool earlier(const ShotTimeIndex::value_type& a, const ShotTimeIndex::value_type& b) {
  return a.first < b.first;
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

void ShotTimeIndex::append(const value_type& e) {
  if ((size_ & (kBlockSize - 1)) == 0)
    blocks_.push_back(std::make_unique_for_overwrite<value_type[]>(kBlockSize));
  blocks_.back()[size_ & (kBlockSize - 1)] = e;
  ++size_;
}

void ShotTimeIndex::insert(std::vector<value_type> batch) {
  orderAndKeepLast(batch);
  if (batch.empty()) return;
  if (size_ == 0 || entry(size_ - 1).first < batch.front().first) {
    for (const auto& e : batch) append(e);
    return;
  }
  ShotTimeIndex merged;
  std::size_t i = 0, j = 0;  // next old entry, next new one
  while (i < size_ || j < batch.size()) {
    if (j < batch.size() && (i == size_ || !(entry(i).first < batch[j].first))) {
      const bool replacesOld = i < size_ && entry(i).first == batch[j].first;
      merged.append(batch[j++]);
      if (!replacesOld) continue;
    } else {
      merged.append(entry(i));
    }
    if ((++i & (kBlockSize - 1)) == 0) blocks_[(i >> kBlockShift) - 1].reset();  // all copied
  }
  *this = std::move(merged);
}

ShotTimeIndex::const_iterator ShotTimeIndex::lower_bound(double time) const {
  std::size_t lo = 0, hi = size_;
  while (lo < hi) {
    const std::size_t mid = lo + (hi - lo) / 2;
    if (entry(mid).first < time)
      lo = mid + 1;
    else
      hi = mid;
  }
  return {this, lo};
}

ShotTimeIndex::const_iterator ShotTimeIndex::find(double time) const {
  const auto it = lower_bound(time);
  return it != end() && it->first == time ? it : end();
}

std::uint32_t ShotTimeIndex::at(double time) const {
  const auto it = find(time);
  if (it == end()) throw std::out_of_range("ShotTimeIndex::at: no shot at that time");
  return it->second;
}

}  // namespace FullWaveform
