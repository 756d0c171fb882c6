// Asks the process's allocator to take its memory from the system on huge pages where the
// system offers them (Linux transparent huge pages in "madvise" mode). A run touches a few
// hundred megabytes of fresh memory per input, and on virtual machines each 4 KB page fault
// costs about as much as the work done on the page: 54,000 faults, close to a tenth of a
// one-thread run. Without tcmalloc (sanitizer builds) this does nothing.
#pragma once

namespace quillo::cli {

// Call once, early in main; later calls do nothing.
void useHugePagesForHeap();

// Memory the heap takes from the system from now on gets no huge-page advice. A heap that
// grows well past what it reuses (the refinement's window doubles a run's peak) pays more for
// fresh huge pages than their fewer faults save: on the virtual machines measured, a refined
// one-thread run spent 1.0 s to 1.5 s in the kernel with them and 0.3 s without.
void stopHugePagesForHeap();

// Hands the heap's free pages back to the system. Under tcmalloc this does nothing: it returns
// free pages by itself, and glibc's `malloc_trim` would touch glibc's own arena, which tcmalloc
// leaves uninitialised, so two threads trimming at once raced in its lazy set-up and crashed.
void trimFreeHeap();

}  // namespace quillo::cli
