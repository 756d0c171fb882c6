// `quillo run INPUT.kq... [options]`: resolves the MTA zones of recordings into point clouds.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "app/RunJob.hpp"

namespace quillo::cli {

void addRunCommand(CLI::App& app);
// The `--report` JSON of runs: the parameters and, per input, result, stage times and outputs.
std::string runReportJson(const std::vector<RunSummary>& runs, const RunSettings& settings);

}  // namespace quillo::cli
