// Entry functions of the fuzz targets. Each takes one input of arbitrary bytes, must neither
// crash nor hang on it, and discards what it makes. The libFuzzer programs in fuzz/ and the
// regression replay in tests/regressions/ call the same functions.
#pragma once

#include <cstddef>
#include <cstdint>

namespace quillo::fuzz {

// The bytes as a .kq file: loaded with the bundle loader, then a module run on what loaded
// (at most a few fragments, the peak-detection mode picked by the input's size).
void loadAndRunKq(const std::uint8_t* data, std::size_t size);

// The bytes as a peak-detection settings file; settings that read cleanly then drive peak
// detection on a few fixed rows in every mode.
void readPeakSettingsThenDetect(const std::uint8_t* data, std::size_t size);

// The bytes decoded as a mode, a row length, rows of samples and their FWFLength values,
// and a noise level, then run through peak detection.
void detectPeaksInRows(const std::uint8_t* data, std::size_t size);

// The bytes as a LAS file for the simulator's terrain reader; a rejection is expected, any
// other failure is not.
void readLasTerrain(const std::uint8_t* data, std::size_t size);

}  // namespace quillo::fuzz
