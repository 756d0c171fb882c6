// A check of a file's HDF5 global heap collections (where variable-length strings live)
// before HDF5 parses them: HDF5 1.10 loops forever on a collection holding an empty
// free-space object, and reads past a collection whose objects overrun it.
#pragma once

#include <string>

namespace Tessal::kq {

// The empty text when every collection in `fileName` is sound (or the file holds none),
// else which collection is damaged and how. A file found sound (or written by this process)
// and unchanged since is not read again: a run loads its input for the check and again for
// the run, and verifies each output it has just written.
std::string damagedGlobalHeap(const std::string& fileName);

// Records `fileName`, as it is now, as sound (a file this process has just written).
void markGlobalHeapSound(const std::string& fileName);

}  // namespace Tessal::kq
