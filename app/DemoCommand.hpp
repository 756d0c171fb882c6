// `quillo demo`: simulates a preset survey, runs the module on it, scores the zones against
// the truth, exports LAS, draws quick-looks and prints a short table with what it wrote.
#pragma once

#include <CLI/CLI.hpp>

namespace quillo::cli {

void addDemoCommand(CLI::App& app);

}  // namespace quillo::cli
