// `quillo check`: validates input files without running them.
#pragma once

#include <CLI/CLI.hpp>

namespace quillo::cli {

void addCheckCommand(CLI::App& app);

}  // namespace quillo::cli
