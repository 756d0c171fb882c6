// Storage of the refinement's large arrays (per shot, per echo, per cell): blocks of 4 MB
// and more are asked for on huge pages where the system offers them. Each such array is
// touched once, fresh, and with 4 KB pages the page faults alone cost about as much as the
// refinement's own work (on a virtual machine 0.9 s of processor time per 256 MB).
#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>
#include <vector>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace FullWaveform {

template <class T>
struct LargeAllocator {
  using value_type = T;
  static constexpr std::size_t kLarge = std::size_t(4) << 20;
  static constexpr std::size_t kHugePage = std::size_t(2) << 20;

  LargeAllocator() = default;
  template <class U>
  LargeAllocator(const LargeAllocator<U>&) noexcept {}

  static std::size_t rounded(std::size_t bytes) {
    return (bytes + kHugePage - 1) / kHugePage * kHugePage;
  }

  T* allocate(std::size_t n) {
    const std::size_t bytes = n * sizeof(T);
    if (bytes < kLarge) return static_cast<T*>(::operator new(bytes));
    void* p = std::aligned_alloc(kHugePage, rounded(bytes));
    if (!p) throw std::bad_alloc();
#if defined(__linux__) && defined(MADV_HUGEPAGE)
    madvise(p, rounded(bytes), MADV_HUGEPAGE);  // only advice: ignored where not offered
#endif
    return static_cast<T*>(p);
  }
  void deallocate(T* p, std::size_t n) noexcept {
    if (n * sizeof(T) < kLarge)
      ::operator delete(p);
    else
      std::free(p);
  }
  template <class U>
  bool operator==(const LargeAllocator<U>&) const noexcept {
    return true;
  }
};

template <class T>
using LargeVector = std::vector<T, LargeAllocator<T>>;

// Reserves room for `n` with an eighth as much again to spare: arrays reused by blocks of
// different sizes would otherwise move to fresh pages, faulted in and zeroed again, whenever a
// slightly larger block came. No more: the heap hands out pages other work touched, so room
// held costs memory much as room used.
template <class V>
void reserveWithRoom(V& v, std::size_t n) {
  if (v.capacity() < n) v.reserve(n + n / 8);
}

}  // namespace FullWaveform
