// `quillo run INPUT.kq... [options]`: resolves the MTA zones of recordings into point clouds.
#pragma once

#include <CLI/CLI.hpp>

namespace quillo::cli {

void addRunCommand(CLI::App& app);

}  // namespace quillo::cli
