// Output verification: whether a stored bundle file is a complete conversion result.
#pragma once

#include <string>

#include "run/Export.hpp"

namespace FullWaveform {

// The empty text when the file passes; else a message ending in the file name.
QUILLO_API std::string successfullyConverted(const std::string& fileName,
                                             const bool& compareFragments);

}  // namespace FullWaveform
