// Runs the quillo command line in a test and collects its exit code and output.
#pragma once

#include <string>

namespace quillo::test {

struct CommandResult {
  int exitCode = -1;
  std::string output;  // stdout and stderr together
};

// Runs `quillo ARGUMENTS` (arguments as one shell-quoted string). `shellPrefix` runs first in
// the same shell, e.g. "ulimit -f 64;" to cap the size of files it may write.
CommandResult runQuillo(const std::string& arguments, const std::string& shellPrefix = "");

// Starts `quillo ARGUMENTS` (output discarded) and kills it with SIGKILL after `millis`
// milliseconds unless it ended first. True when it was killed.
bool runQuilloKilledAfter(const std::string& arguments, int millis);

}  // namespace quillo::test
