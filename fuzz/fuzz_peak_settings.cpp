// libFuzzer target: the peak-detection settings file, then detection with what it sets.
// Body: quillo::fuzz::readPeakSettingsThenDetect in tests/support, shared with the replay test.
#include <cstddef>
#include <cstdint>

#include "support/FuzzEntries.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  quillo::fuzz::readPeakSettingsThenDetect(data, size);
  return 0;
}
