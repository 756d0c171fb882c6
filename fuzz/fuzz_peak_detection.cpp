// libFuzzer target: peak detection on arbitrary sample rows and FWFLength values.
// Body: quillo::fuzz::detectPeaksInRows in tests/support, shared with the regression replay.
#include <cstddef>
#include <cstdint>

#include "support/FuzzEntries.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  quillo::fuzz::detectPeaksInRows(data, size);
  return 0;
}
