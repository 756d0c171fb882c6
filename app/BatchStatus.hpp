// Where the tasks of a plan stand (done, failed, running, missing), from their reports, their
// outputs and the queue, and the summary over all strips that `batch report` prints.
#pragma once

#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "app/BatchPlan.hpp"

namespace quillo::cli {

enum class TaskState { Done, Failed, Running, Missing };

struct TaskStatus {
  std::size_t task = 0;
  TaskState state = TaskState::Missing;
  std::string detail;  // the failure's message, the queue state, or why it counts as missing
  nlohmann::json report;
};

const char* stateName(TaskState state);

// `queue`: task -> Slurm state of the tasks the queue lists (see queueStates).
std::vector<TaskStatus> collectStatus(const BatchPlan& plan,
                                      const std::map<std::size_t, std::string>& queue);
std::string statusText(const BatchPlan& plan, const std::vector<TaskStatus>& statuses);

// The summary over all strips: per strip and in total points, points per zone, noise points,
// uncertain and repaired waves (when counted), time; the slowest strips; failures.
nlohmann::json batchSummary(const BatchPlan& plan, const std::vector<TaskStatus>& statuses);
std::string summaryText(const nlohmann::json& summary);

}  // namespace quillo::cli
