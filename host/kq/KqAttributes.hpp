// Attribute sets of grids and fields as HDF5 attributes of an "attributes" group, element
// types kept (int, unsigned int, float, double, variable-length UTF-8 text). Reading takes
// what other writers produce too: integers of any width that fit 32 bits, 16-bit floats and
// fixed-length strings.
#pragma once

#include <string>

#include "kq/Hdf5.hpp"
#include "vorlap/Attributes.hpp"

namespace Tessal::kq {

// Writes every attribute of `attributes` onto the object `owner`; false on failure.
bool writeAttributes(hid_t owner, const Vorlap::Attributes& attributes, std::string& error);
// Reads every attribute of `owner`; false (with `error` naming the attribute) on failure.
bool readAttributes(hid_t owner, Vorlap::Attributes& attributes, std::string& error);

// One value of an attribute, whatever number or string type its writer chose.
enum class Single { Ok, Missing, NotOne, Mistyped };
Single singleInteger(const Vorlap::Attributes& attributes, const std::string& name, long long& out);
Single singleNumber(const Vorlap::Attributes& attributes, const std::string& name, double& out);
Single singleText(const Vorlap::Attributes& attributes, const std::string& name, std::string& out);

}  // namespace Tessal::kq
