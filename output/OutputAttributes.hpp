// Output attributes: the run's metadata on an output grid after the last fragment.
#pragma once

#include <string>

#include "store/FatBoy.hpp"

namespace FullWaveform {

std::string addAttributes(const Vorlap::StrongPtr<Tessal::Grid>& outputGrid,
                          FatBoy<unsigned short>& fatBoy);

}  // namespace FullWaveform
