// One task of a batch plan, run so that running it again is safe: a task whose outputs are
// complete conversion results is skipped, anything else is redone from scratch. Writes the
// task's report (the run's `--report` JSON plus host, times, exit status and peak memory)
// beside its outputs: once with state "running" at the start, then the final one.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "app/BatchPlan.hpp"

namespace quillo::cli {

enum class TaskOutcome { Skipped, Done, Failed };

struct TaskResult {
  TaskOutcome outcome = TaskOutcome::Failed;
  std::string message;  // why it failed
};

// THREADS: threads for the task's fragments (any count writes the same bytes).
TaskResult runTask(const BatchPlan& plan, const BatchTask& task, unsigned threads = 1);

// Empty when every output of the task is a complete conversion result, else why not.
std::string outputsIncomplete(const BatchTask& task);

// The task's report, or null when there is none (or it cannot be read).
nlohmann::json readTaskReport(const BatchTask& task);

}  // namespace quillo::cli
