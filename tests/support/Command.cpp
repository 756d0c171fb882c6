#include "support/Command.hpp"

#include <sys/wait.h>

#include <cstdio>

namespace quillo::test {

CommandResult runQuillo(const std::string& arguments) {
  CommandResult r;
  const std::string command = std::string(QUILLO_CLI_PATH) + " " + arguments + " 2>&1";
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return r;
  char buffer[4096];
  std::size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) r.output.append(buffer, n);
  const int status = pclose(pipe);
  r.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

}  // namespace quillo::test
