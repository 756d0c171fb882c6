// Attribute sets of grids and fields as HDF5 attributes of an "attributes" group, element
// types kept (int, unsigned int, float, double, variable-length UTF-8 text).
#pragma once

#include <string>

#include "kq/Hdf5.hpp"
#include "vorlap/Attributes.hpp"

namespace Tessal::kq {

// Writes every attribute of `attributes` onto the object `owner`; false on failure.
bool writeAttributes(hid_t owner, const Vorlap::Attributes& attributes, std::string& error);
// Reads every attribute of `owner`; false (with `error` naming the attribute) on failure.
bool readAttributes(hid_t owner, Vorlap::Attributes& attributes, std::string& error);

}  // namespace Tessal::kq
