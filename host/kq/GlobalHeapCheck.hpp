// A check of a file's HDF5 global heap collections (where variable-length strings live)
// before HDF5 parses them: HDF5 1.10 loops forever on a collection holding an empty
// free-space object, and reads past a collection whose objects overrun it.
#pragma once

#include <string>

namespace Tessal::kq {

// The empty text when every collection in `fileName` is sound (or the file holds none),
// else which collection is damaged and how.
std::string damagedGlobalHeap(const std::string& fileName);

}  // namespace Tessal::kq
