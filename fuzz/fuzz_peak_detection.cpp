// libFuzzer target: peak detection on arbitrary sample rows and FWFLength values.
// Body: quillo::fuzz::detectPeaksInRows in tests/support, shared with the regression replay.
#include <string>

#include "support/FuzzEntries.hpp"
#include "vorlap/Console.hpp"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Bad input is expected here; its messages would only slow the fuzzer down.
  Vorlap::Console::setSink([](const std::string&) {});
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  quillo::fuzz::detectPeaksInRows(data, size);
  return 0;
}
