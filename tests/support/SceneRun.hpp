// One scene end to end: simulated into a .kq file, run through the module's entry function
// with outputs kept in memory, and scored echo by echo against its truth; optionally refined
// afterwards and scored again.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "refine/ZoneRefinement.hpp"
#include "sim/Scoring.hpp"

namespace quillo::test {

struct SceneResult {
  quillo::sim::ZoneScoreReport score;
  std::string runError;  // the module's result text
  std::size_t pointsPerOutput[2] = {0, 0};
  double simulateSeconds = 0.0, runSeconds = 0.0;
  // Processor time of the run and of the refinement (all threads): on a shared machine the
  // fairer comparison, as waiting for a core does not count.
  double runCpuSeconds = 0.0, refineCpuSeconds = 0.0;
  // With the refinement: the score after it, the points it made wrong that were right
  // (broken) and the reverse (fixed), its own summary and time.
  bool refined = false;
  quillo::sim::ZoneScoreReport refinedScore;
  std::uint64_t broken = 0, fixed = 0;
  FullWaveform::RefinementSummary refinement;
  double refineSeconds = 0.0;
};

// Called after the run, before any refinement, with the input, the outputs and a scorer of
// the truth.
using AfterRun =
    std::function<void(Tessal::BundlePtr&, const std::vector<Vorlap::StrongPtr<Tessal::Grid>>&,
                       const quillo::sim::ZoneScorer&)>;

// Writes the survey into `folder` (replacing an earlier scene's file there).
SceneResult runScene(const quillo::sim::SurveyConfig& config, const std::string& folder,
                     bool refine = false, const AfterRun& afterRun = {});

}  // namespace quillo::test
