// Wraps tcmalloc's system allocator: every region it takes is a whole number of 2 MB pages,
// aligned to one, and marked for huge pages (see HugePageHeap.hpp).
#include "app/HugePageHeap.hpp"

#if defined(QUILLO_WITH_TCMALLOC) && defined(__linux__)
#include <gperftools/malloc_extension.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <new>

namespace quillo::cli {

namespace {

constexpr std::size_t kHugePage = std::size_t(2) << 20;

std::atomic<bool> adviseHugePages{true};

class HugePageSysAllocator : public SysAllocator {
 public:
  explicit HugePageSysAllocator(SysAllocator* system) : system_(system) {}

  void* Alloc(std::size_t size, std::size_t* actualSize, std::size_t alignment) override {
    if (!adviseHugePages.load(std::memory_order_relaxed))
      return system_->Alloc(size, actualSize, alignment);
    // Rounding up costs nothing: the allocator is told the size it got and uses all of it.
    const std::size_t whole = (size + kHugePage - 1) / kHugePage * kHugePage;
    void* p = system_->Alloc(whole, actualSize, std::max(alignment, kHugePage));
    if (p == nullptr) return system_->Alloc(size, actualSize, alignment);
    madvise(p, *actualSize, MADV_HUGEPAGE);  // only advice: ignored where not offered
    return p;
  }

 private:
  SysAllocator* system_;
};

}  // namespace

void useHugePagesForHeap() {
  static bool done = false;
  if (done) return;
  done = true;
  MallocExtension* heap = MallocExtension::instance();
  SysAllocator* system = heap->GetSystemAllocator();
  if (system == nullptr) return;
  // Never destroyed: the allocator may grow the heap until the process has ended.
  alignas(HugePageSysAllocator) static unsigned char storage[sizeof(HugePageSysAllocator)];
  heap->SetSystemAllocator(new (storage) HugePageSysAllocator(system));
}

void stopHugePagesForHeap() {
  adviseHugePages.store(false, std::memory_order_relaxed);
}

void trimFreeHeap() {}

}  // namespace quillo::cli

#else

#include <malloc.h>

namespace quillo::cli {

void useHugePagesForHeap() {}

void stopHugePagesForHeap() {}

void trimFreeHeap() {
  malloc_trim(0);
}

}  // namespace quillo::cli

#endif
