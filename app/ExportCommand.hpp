// `quillo export RESULT.kq OUT.las [--waveforms]`: a run result as a LAS 1.4 point cloud.
#pragma once

#include <CLI/CLI.hpp>

namespace quillo::cli {

void addExportCommand(CLI::App& app);

}  // namespace quillo::cli
