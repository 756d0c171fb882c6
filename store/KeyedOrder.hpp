// Entries keyed by a double, kept in a plain vector instead of an ordered map of lists: one
// stable sort orders them by key, and entries of equal keys keep the order they were added
// in, as the map's lists would. Keys must not be NaN (they cannot be ordered): callers set
// such entries apart before ordering.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <span>
#include <vector>

namespace FullWaveform {

template <class V>
struct Keyed {
  double key;
  V value;
};

template <class V>
bool keyedLess(const Keyed<V>& a, const Keyed<V>& b) {
  return a.key < b.key;
}

// Orders by key; equal keys keep their order. Input that is already in order (the usual
// case: waves and shots come in time order) costs one pass.
template <class V>
void stableOrderByKey(std::vector<Keyed<V>>& entries) {
  if (!std::is_sorted(entries.begin(), entries.end(), keyedLess<V>))
    std::stable_sort(entries.begin(), entries.end(), keyedLess<V>);
}

// Orders entries [0, mid) and [mid, end) as one list added in that order: of equal keys,
// those of the first part come first.
template <class V>
void stableMergeByKey(std::vector<Keyed<V>>& entries, std::size_t mid) {
  const auto middle = entries.begin() + std::ptrdiff_t(mid);
  if (!std::is_sorted(entries.begin(), middle, keyedLess<V>))
    std::stable_sort(entries.begin(), middle, keyedLess<V>);
  if (!std::is_sorted(middle, entries.end(), keyedLess<V>))
    std::stable_sort(middle, entries.end(), keyedLess<V>);
  std::inplace_merge(entries.begin(), middle, entries.end(), keyedLess<V>);
}

// The entries of an ordered list whose key equals `key`, in their order (none for NaN).
template <class V>
std::span<const Keyed<V>> entriesWithKey(const std::vector<Keyed<V>>& entries, double key) {
  if (std::isnan(key)) return {};
  const auto range =
      std::equal_range(entries.begin(), entries.end(), Keyed<V>{key, V{}}, keyedLess<V>);
  return {range.first, range.second};
}

}  // namespace FullWaveform
