// Commands around simulated surveys: `quillo simulate`, `quillo score` and `quillo demo`.
#pragma once

#include <CLI/CLI.hpp>

namespace quillo::cli {

void addSimulateCommand(CLI::App& app);
void addScoreCommand(CLI::App& app);
void addDemoCommand(CLI::App& app);

}  // namespace quillo::cli
