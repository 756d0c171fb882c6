// libFuzzer target: .kq loading followed by a module run on what loaded.
// Body: quillo::fuzz::loadAndRunKq in tests/support, shared with the regression replay.
#include <cstddef>
#include <cstdint>

#include "support/FuzzEntries.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  quillo::fuzz::loadAndRunKq(data, size);
  return 0;
}
