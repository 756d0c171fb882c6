// The Slurm side of a batch: the sbatch script of a plan's job array, submitting it, and the
// queue's view of the plan's jobs (squeue). The job ids of every submission are kept beside
// the plan (PLAN.jobs) so that `batch status` can ask the queue about them.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "app/BatchPlan.hpp"

namespace quillo::cli {

struct SlurmRequest {
  std::string partition, time, mem;
  unsigned cpusPerTask = 1, maxParallel = 0;  // 0: as many as the plan has tasks
};

// Memory and time a task of the plan has needed so far (from the tasks' reports).
struct MeasuredNeeds {
  double peakMemoryMiB = 0, slowestSeconds = 0;
  std::size_t tasks = 0;
};
MeasuredNeeds measuredNeeds(const BatchPlan& plan);

// The script's text; throws CliError when no memory is given and none was measured.
std::string sbatchScript(const BatchPlan& plan, const SlurmRequest& request,
                         const std::string& quilloPath);
std::string scriptPathOf(const BatchPlan& plan);
// Writes the script and the log folder; returns the script's path.
std::string writeSbatchScript(const BatchPlan& plan, const SlurmRequest& request);

// Submits the plan's script (for only `tasks` when given); returns the job id.
std::string submit(const BatchPlan& plan, const std::optional<std::vector<std::size_t>>& tasks);

// Queue state (PENDING, RUNNING, ...) of every task of the plan the queue still lists; empty
// when Slurm's squeue is not there or no job was submitted.
std::map<std::size_t, std::string> queueStates(const BatchPlan& plan);

// "0-3%2" style array ranges for sbatch: consecutive tasks merged.
std::string arraySpec(const std::vector<std::size_t>& tasks, unsigned maxParallel);

}  // namespace quillo::cli
