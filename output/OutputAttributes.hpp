// Output attributes: the run's metadata on an output grid after the last fragment.
#pragma once

#include <string>

#include "store/FatBoy.hpp"

namespace FullWaveform {

// The pattern that finds the acquisition date (YYMMDD) and time in an input file's stem.
inline constexpr const char* kDatePattern = "[a-zA-Z]*([0-9]{2})([0-9]{2})([0-9]{2})_[0-9]{6}.*";

std::string addAttributes(const Vorlap::StrongPtr<Tessal::Grid>& outputGrid,
                          FatBoy<unsigned short>& fatBoy);

}  // namespace FullWaveform
