// libFuzzer start-up shared by the targets that feed bad files to the data model: its console
// messages are expected here and would only slow the fuzzer down.
#include <string>

#include "vorlap/Console.hpp"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  Vorlap::Console::setSink([](const std::string&) {});
  return 0;
}
