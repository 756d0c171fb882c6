// Arrays as stored datasets (see EncodedDataset.cpp): the stored shape of an array and the
// writing of a dataset from chunks already shuffled and deflated.
#pragma once

#include <string>
#include <vector>

#include "kq/Hdf5.hpp"
#include "tessal/EncodedArray.hpp"

namespace Tessal::kq {

// Dataset shape: (n) or (n, 3) for 1-D arrays; (rows, samples) for 2-D arrays.
std::vector<hsize_t> storedShape(const MemBase& data);

// Creates dataset `name` under `parent` from `encoded` with its element type and rank as
// attributes; false where HDF5 refuses.
bool writeEncodedDataset(hid_t parent, const std::string& name, const EncodedArray& encoded);

}  // namespace Tessal::kq
