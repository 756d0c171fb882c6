// Every command of the quillo command line, registered in the order `--help` lists them.
#pragma once

#include <CLI/CLI.hpp>

namespace quillo::cli {

void addAllCommands(CLI::App& app);

}  // namespace quillo::cli
