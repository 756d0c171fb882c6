// Commands that look at files: `quillo info`, `quillo verify`, `quillo hist`.
#pragma once

#include <CLI/CLI.hpp>

namespace quillo::cli {

void addInfoCommand(CLI::App& app);
void addVerifyCommand(CLI::App& app);
void addHistCommand(CLI::App& app);

}  // namespace quillo::cli
