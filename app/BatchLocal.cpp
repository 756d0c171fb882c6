// Runs a plan's tasks as child processes on this machine. Reads: the plan. Writes: the task
// logs; the tasks write their outputs and reports themselves.
#include "app/BatchLocal.hpp"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <vector>

#include "app/CliError.hpp"
#include "app/Progress.hpp"

extern char** environ;

namespace quillo::cli {

namespace fs = std::filesystem;

namespace {

// Starts `quillo batch run PLAN --task N` with its output going to the task's log.
pid_t startTask(const BatchPlan& plan, const BatchTask& task, const std::string& quillo,
                unsigned threads) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, task.log.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  const std::string index = std::to_string(task.index);
  std::vector<std::string> args = {quillo,   "batch", "run",       plan.path,
                                   "--task", index,   "--threads", std::to_string(threads)};
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_t pid = 0;
  const int error = posix_spawn(&pid, quillo.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0)
    throw CliError(kFailure, "cannot start task " + index + ": " + std::strerror(error));
  return pid;
}

// Waits for one child; true when it ended with exit status 0.
bool waitForOne(std::map<pid_t, std::size_t>& running) {
  int status = 0;
  pid_t pid;
  while ((pid = waitpid(-1, &status, 0)) < 0 && errno == EINTR) {
  }
  running.erase(pid);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

std::size_t runLocally(const BatchPlan& plan, unsigned jobs, unsigned threads, bool quiet) {
  std::error_code ec;
  fs::create_directories(logDir(plan), ec);
  if (ec) throw CliError(kOutput, logDir(plan) + ": cannot create the folder: " + ec.message());
  const std::string quillo = fs::read_symlink("/proc/self/exe").string();
  ProgressBar bar(fs::path(plan.path).filename().string(), quiet);
  bar.setUnit("strip");
  std::map<pid_t, std::size_t> running;
  std::size_t next = 0, finished = 0, failed = 0;
  const unsigned threadsPerTask = std::max(1u, threads / std::max(1u, jobs));
  const std::size_t total = plan.tasks.size();
  bar.report("", 0, unsigned(total));
  while (finished < total) {
    while (next < total && running.size() < std::max(1u, jobs)) {
      running[startTask(plan, plan.tasks[next], quillo, threadsPerTask)] = next;
      ++next;
    }
    failed += waitForOne(running) ? 0 : 1;
    bar.report("", unsigned(++finished), unsigned(total));
  }
  bar.finish();
  return failed;
}

}  // namespace quillo::cli
