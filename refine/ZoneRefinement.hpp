// The zone refinement a host runs after the module: reads the input's shots and the module's
// output fragments, moves echoes whose zone puts them off the surface their neighbours form,
// classifies echoes that fit no surface as noise, and adds the "Refined" field. It refines
// over a moving window of fragments (refine/RefineWindow.hpp), so a host can run it while the
// module goes on and write each fragment once refined. The module's entry function does not
// call it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "refine/RefineWindow.hpp"
#include "tessal/Bundle.hpp"

namespace FullWaveform {

struct RefinementSummary {
  std::uint64_t points = 0;       // points of the outputs
  std::uint64_t judged = 0;       // points with a zone the refinement could place
  std::uint64_t moved = 0;        // points whose zone changed
  std::uint64_t markedNoise = 0;  // points classified as noise by the refinement
  std::string error;              // empty on success
};

// Refines the output fragments as the run finishes them. The outputs' fragments take the
// names of the input's; fragments are visited by number from `firstFragment` on.
class QUILLO_API WindowedRefinement {
 public:
  WindowedRefinement(Tessal::BundlePtr& input,
                     const std::vector<Vorlap::StrongPtr<Tessal::Grid>>& outputs,
                     std::uint32_t firstFragment, const RefineSettings& settings = {},
                     const WindowSettings& window = {});
  ~WindowedRefinement();
  WindowedRefinement(const WindowedRefinement&) = delete;
  WindowedRefinement& operator=(const WindowedRefinement&) = delete;
  // Takes up the fragments below `finishedBelow` (the run has finished them) and refines
  // every block whose look-ahead is in; with `last`, every fragment taken up. Returns the
  // names of the fragments refined now, in fragment order: they are final and the
  // refinement holds no handle to their arrays any more. Nothing once an error is set.
  std::vector<std::string> advance(std::uint32_t finishedBelow, bool last = false);
  // Counts so far; `error` is set once something could not be read or written.
  const RefinementSummary& summary() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// Refines every fragment held in the given outputs (empty handles are skipped), over the
// moving window (blockLines 0: the whole strip at once).
QUILLO_API RefinementSummary
refineZones(Tessal::BundlePtr& input, const std::vector<Vorlap::StrongPtr<Tessal::Grid>>& outputs,
            const RefineSettings& settings = {}, const WindowSettings& window = {});

// The arrays the refinement works on (every shot in time order, every echo it can place), for
// tools that study the rule on stored scans; returns an error text, empty on success.
QUILLO_API std::string refinementArrays(Tessal::BundlePtr& input,
                                        const std::vector<Vorlap::StrongPtr<Tessal::Grid>>& outputs,
                                        ShotTable& table, RefineEchoes& echoes);

}  // namespace FullWaveform
