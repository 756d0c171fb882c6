// `quillo batch plan|run|local|slurm|status|report`: many strips, one task each, on this
// machine or as a Slurm job array, resumable.
#pragma once

#include <CLI/CLI.hpp>

namespace quillo::cli {

void addBatchCommand(CLI::App& app);

}  // namespace quillo::cli
