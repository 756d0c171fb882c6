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

// Reads the whole dataset into `out`, `components` values of t's component type; the empty
// text on success, else which value does not fit.
std::string readConverted(hid_t set, ElementType t, void* out, std::size_t components);

}  // namespace Tessal::kq
