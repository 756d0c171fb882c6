// Command-line options shared by the commands that run the module (run, hist, demo, batch).
#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "app/RunJob.hpp"

namespace quillo::cli {

struct ModuleOptions {
  std::string mta = "auto";
  std::string mode = "gaussian";
  double noiseLevel = 0.0;
  bool exportFWF = false, skipFWF = false, skipOnline = false;
  int segment = -2;  // -2: from the input's "RDB_Segment" attribute
  std::string fragments;
  std::string peakSettings;
  bool refine = false;  // the zone refinement (see addRefineOption, which sets its default)
};

void addModuleOptions(CLI::App& command, ModuleOptions& options);
// --refine / --no-refine, for the commands that write point clouds (run, demo, batch plan);
// sets the option to its default first.
void addRefineOption(CLI::App& command, ModuleOptions& options);
// Fills the run parameters from the options; throws CliError naming a bad value.
RunSettings settingsFrom(const ModuleOptions& options);
// The CPUs this process may run on (its affinity, as taskset or a Slurm allocation limits
// it), at least 1: the default thread count of the commands that run the module.
unsigned usableCores();

}  // namespace quillo::cli
