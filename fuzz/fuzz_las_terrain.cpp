// libFuzzer target: the LAS terrain reader of the survey simulator.
// Body: quillo::fuzz::readLasTerrain in tests/support, shared with the regression replay.
#include <cstddef>
#include <cstdint>

#include "support/FuzzEntries.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  quillo::fuzz::readLasTerrain(data, size);
  return 0;
}
