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

// Sorts by insertion while that moves no more than `budget` values in all; false when it
// stopped early, with a sorted start and the rest as it was. Stable: equal values never
// pass each other, so a stable sort of what it leaves gives the same order as of the input.
template <class T, class Less>
bool insertionSortWithin(std::vector<T>& values, Less less, std::size_t budget) {
  std::size_t moved = 0;
  for (std::size_t i = 1; i < values.size(); ++i) {
    if (!less(values[i], values[i - 1])) continue;
    T value = std::move(values[i]);
    std::size_t j = i;
    for (; j > 0 && less(value, values[j - 1]); --j) values[j] = std::move(values[j - 1]);
    values[j] = std::move(value);
    moved += i - j;
    if (moved > budget) return false;
  }
  return true;
}

// A stable sort for input made of few ascending runs (waves come in time order; their
// shot times step back where the zone changes): values a few places from theirs are
// inserted there; longer runs are merged pairwise, so the cost grows with the log of the run
// count, not of the size. Sorted input costs one pass; many runs take std::stable_sort. A
// stable sort has one result, so all give the same order.
template <class T, class Less>
void stableSortRuns(std::vector<T>& values, Less less) {
  const std::size_t n = values.size();
  if (insertionSortWithin(values, less, 8 * n + 64)) return;
  std::vector<std::size_t> bounds{0};
  for (std::size_t i = 1; i < n; ++i)
    if (less(values[i], values[i - 1])) bounds.push_back(i);
  if (bounds.size() == 1) return;
  if (bounds.size() > n / 16) {
    std::stable_sort(values.begin(), values.end(), less);
    return;
  }
  bounds.push_back(n);
  std::vector<T> buffer(n);
  T* from = values.data();
  T* to = buffer.data();
  std::vector<std::size_t> merged;
  while (bounds.size() > 2) {
    merged.assign(1, 0);
    for (std::size_t r = 0; r + 1 < bounds.size(); r += 2) {
      const std::size_t mid = bounds[r + 1];
      const std::size_t end = r + 2 < bounds.size() ? bounds[r + 2] : mid;
      std::merge(from + bounds[r], from + mid, from + mid, from + end, to + bounds[r], less);
      merged.push_back(end);
    }
    bounds.swap(merged);
    std::swap(from, to);
  }
  if (from != values.data()) std::copy(from, from + n, values.data());
}

// Orders by key; equal keys keep their order.
template <class V>
void stableOrderByKey(std::vector<Keyed<V>>& entries) {
  stableSortRuns(entries, keyedLess<V>);
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
