// `quillo batch local`: every task of a plan on this machine, `jobs` at a time, each as its own
// `quillo batch run` process (as under Slurm) with its output in the task's log file.
#pragma once

#include "app/BatchPlan.hpp"

namespace quillo::cli {

// THREADS: threads in all; each of the JOBS tasks running at a time gets THREADS / JOBS (at
// least one). Returns the number of tasks that failed.
std::size_t runLocally(const BatchPlan& plan, unsigned jobs, unsigned threads, bool quiet);

}  // namespace quillo::cli
