// The one error type of the command line: thrown by commands, caught once in main, turned
// into a message on stderr and the exit code it carries.
#pragma once

#include <stdexcept>
#include <string>

namespace quillo::cli {

enum ExitCode : int { kOk = 0, kFailure = 1, kUsage = 2, kInput = 3, kOutput = 4 };

class CliError : public std::runtime_error {
 public:
  CliError(ExitCode code, const std::string& message) : std::runtime_error(message), code_(code) {}
  ExitCode code() const { return code_; }

 private:
  ExitCode code_;
};

}  // namespace quillo::cli
