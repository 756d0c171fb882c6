// The plan of a batch: one task per input strip, the run options checked once, the files each
// task writes and the version of quillo that made it. Read from and written to a JSON file
// (layout in docs/cluster.md); every path in it is absolute so that any node can run a task.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "app/RunOptions.hpp"

namespace quillo::cli {

struct BatchTask {
  std::size_t index = 0;
  std::string input;
  std::vector<std::string> outputs;
  std::string report;  // the task's JSON report, beside its outputs
  std::string log;     // stdout and stderr of the task when run by `batch local` or Slurm
};

struct BatchPlan {
  std::string path;  // where the plan was read from or written to
  std::string quilloVersion;
  std::string created;  // UTC, ISO 8601
  std::string outDir;
  ModuleOptions module;
  std::string date;         // YYMMDD_HHMMSS for inputs whose names carry none
  bool waveCounts = false;  // also count uncertain and repaired waves (a second pass)
  std::vector<BatchTask> tasks;
};

// What `batch plan` takes besides the inputs.
struct PlanRequest {
  std::vector<std::string> inputs;
  std::string outDir, planPath, date;
  ModuleOptions module;
  bool waveCounts = false;
};

// Checks the options and every input, then lists the tasks; throws CliError naming every
// input that cannot be read or whose outputs would clash with another's.
BatchPlan makePlan(const PlanRequest& request);
void savePlan(const BatchPlan& plan);
// Throws CliError naming the file and what is wrong with it.
BatchPlan loadPlan(const std::string& path);

// The run settings of every task of the plan (output folder, date, quiet).
RunSettings planSettings(const BatchPlan& plan);
const BatchTask& taskOf(const BatchPlan& plan, long index);

std::string quilloVersion();
std::string utcNow();
// The folder of the task logs.
std::string logDir(const BatchPlan& plan);

}  // namespace quillo::cli
