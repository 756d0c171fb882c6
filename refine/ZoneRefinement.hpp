// The optional zone refinement a host runs after the module: reads the input's shot table
// and the module's output grids (held in memory), moves echoes whose zone puts them off the
// surface their neighbours form, classifies echoes that fit no surface as noise, and adds
// the "Refined" field. The module's entry function does not call it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "refine/SurfaceFit.hpp"
#include "tessal/Bundle.hpp"

namespace FullWaveform {

struct RefinementSummary {
  std::uint64_t points = 0;       // points of the outputs
  std::uint64_t judged = 0;       // points with a zone the refinement could place
  std::uint64_t moved = 0;        // points whose zone changed
  std::uint64_t markedNoise = 0;  // points classified as noise by the refinement
  std::string error;              // empty on success
};

// Refines every fragment held in the given outputs (empty handles are skipped).
QUILLO_API RefinementSummary
refineZones(Tessal::BundlePtr& input, const std::vector<Vorlap::StrongPtr<Tessal::Grid>>& outputs,
            const RefineSettings& settings = {});

// The arrays the refinement works on (every shot in time order, every echo it can place), for
// tools that study the rule on stored scans; returns an error text, empty on success.
QUILLO_API std::string refinementArrays(Tessal::BundlePtr& input,
                                        const std::vector<Vorlap::StrongPtr<Tessal::Grid>>& outputs,
                                        ShotTable& table, RefineEchoes& echoes);

}  // namespace FullWaveform
