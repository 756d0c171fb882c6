// Commands around simulated surveys: `quillo simulate` and `quillo score`.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "sim/Survey.hpp"
#include "tessal/Bundle.hpp"

namespace quillo::cli {

void addSimulateCommand(CLI::App& app);
// The OGC WKT of the built-in scene's coordinates: a local system in metres (east, north).
std::string proceduralSceneCoordinateSystem();
// Writes the simulated survey to `out` with a progress line (none when `quiet`); throws
// CliError when the folder is missing or the file cannot be written.
void simulateSurvey(const sim::SurveyConfig& config, const std::string& out, bool quiet,
                    Tessal::KqLayout layout = Tessal::KqLayout::DatasetPerField);
void addScoreCommand(CLI::App& app);

}  // namespace quillo::cli
