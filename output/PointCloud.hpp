// Point-cloud assembly: every echo of the listed waves becomes one point of the output
// grid's "ScannerCoordinateSystem" representation, stored as the current fragment.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "store/FatBoy.hpp"

namespace FullWaveform {

// Returns the empty text, or the error that ends the run (a shot with over 255 echoes).
std::string makePointCloud(FatBoy<unsigned short>& fatBoy,
                           const std::vector<std::uint32_t>& waveIndices,
                           const Vorlap::StrongPtr<Tessal::Grid>& outputGrid,
                           std::uint32_t& pointIdCounter, const Input& input);

}  // namespace FullWaveform
