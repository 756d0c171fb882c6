// Compares two .kq files through the reader, whatever their layout: the same grids, charts,
// fields and fragments (in the same order), each fragment of the same type, extents and values.
#pragma once

#include <string>

#include "tessal/Bundle.hpp"

namespace quillo::test {

// The first difference found, as text naming the object; empty when none.
std::string firstDifference(const Tessal::BundlePtr& a, const Tessal::BundlePtr& b);
// The same for two files; a file that does not load is a difference.
std::string firstFileDifference(const std::string& a, const std::string& b);

}  // namespace quillo::test
