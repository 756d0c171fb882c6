// One scene end to end: simulated into a .kq file, run through the module's entry function
// with outputs kept in memory, and scored echo by echo against its truth.
#pragma once

#include <string>

#include "sim/Scoring.hpp"

namespace quillo::test {

struct SceneResult {
  quillo::sim::ZoneScoreReport score;
  std::string runError;  // the module's result text
  std::size_t pointsPerOutput[2] = {0, 0};
  double simulateSeconds = 0.0, runSeconds = 0.0;
};

// Writes the survey into `folder` (replacing an earlier scene's file there).
SceneResult runScene(const quillo::sim::SurveyConfig& config, const std::string& folder);

}  // namespace quillo::test
