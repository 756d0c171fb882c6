// Runs the quillo command line in a test and collects its exit code and output.
#pragma once

#include <string>

namespace quillo::test {

struct CommandResult {
  int exitCode = -1;
  std::string output;  // stdout and stderr together
};

// Runs `quillo ARGUMENTS` (arguments as one shell-quoted string).
CommandResult runQuillo(const std::string& arguments);

}  // namespace quillo::test
