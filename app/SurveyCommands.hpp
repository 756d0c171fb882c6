// Commands around simulated surveys: `quillo simulate` and `quillo score`.
#pragma once

#include <CLI/CLI.hpp>

namespace quillo::cli {

void addSimulateCommand(CLI::App& app);
void addScoreCommand(CLI::App& app);

}  // namespace quillo::cli
