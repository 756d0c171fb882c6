#include "support/Command.hpp"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <thread>

namespace quillo::test {

CommandResult runQuillo(const std::string& arguments, const std::string& shellPrefix) {
  CommandResult r;
  const std::string command =
      shellPrefix + " " + std::string(QUILLO_CLI_PATH) + " " + arguments + " 2>&1";
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return r;
  char buffer[4096];
  std::size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) r.output.append(buffer, n);
  const int status = pclose(pipe);
  r.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

bool runQuilloKilledAfter(const std::string& arguments, int millis) {
  const std::string command =
      "exec " + std::string(QUILLO_CLI_PATH) + " " + arguments + " >/dev/null 2>&1";
  const pid_t pid = fork();
  if (pid < 0) return false;
  if (pid == 0) {
    execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(millis);
  int status = 0;
  while (std::chrono::steady_clock::now() < deadline) {
    if (waitpid(pid, &status, WNOHANG) == pid) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(500));
  }
  kill(pid, SIGKILL);
  waitpid(pid, &status, 0);
  return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

}  // namespace quillo::test
