// Fragment datasets stored with another number type than their element type (numpy's
// int64 for a uint8 field, say): read through a wide type and narrowed, refusing any value
// that does not fit rather than letting HDF5 clip it.
#pragma once

#include <string>

#include "kq/Hdf5.hpp"

namespace Tessal::kq {

// Whether values stored as `stored` can be read by conversion: every element type is made
// of numbers, so any integer or float of up to 64 bits can.
bool convertibleType(hid_t stored);

// Rows `first` to `first + count` of a dataset (its first dimension).
struct RowSelection {
  hsize_t first = 0, count = 0;
};

// Reads the whole dataset (or the selected rows) into `out`, `components` values of t's
// component type; the empty text on success, else which value does not fit.
std::string readConverted(hid_t set, ElementType t, void* out, std::size_t components,
                          const RowSelection* rows = nullptr);

// File and memory dataspaces selecting `rows` of the dataset, for H5Dread.
bool selectRows(hid_t set, const RowSelection& rows, std::size_t components, Hid& fileSpace,
                Hid& memorySpace);

}  // namespace Tessal::kq
