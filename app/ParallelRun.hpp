// One input's run on several threads. The fragments are cut into contiguous ranges, one per
// thread, of about equal work (by wave counts; the first range is shorter, as its thread
// shares a core with the writer); each thread runs the module on its range into grids of
// its own, starting one fragment early so that the zone walks at the range's start see the
// same earlier shots as in one run (that fragment's output is dropped). The calling thread
// replays the one-run sequence on the real outputs: for each fragment in order, the progress
// report (which writes what is finished) and then the fragment's arrays. When the outputs are
// streamed, the workers map, count and encode their fragments (FragmentEncoding), so that the
// calling thread is left with the HDF5 calls. The saved files are byte for byte those of one
// run. Fragments of later ranges wait in a scratch file until their turn (FragmentSpill).
#pragma once

#include <array>
#include <string>

#include "app/StreamedOutput.hpp"
#include "run/Input.hpp"

namespace quillo::cli {

struct ParallelRun {
  std::string inputPath;  // read again by every thread after the first
  Tessal::BundlePtr bundle;
  std::array<StreamedOutput*, 2> outputs{};  // either may be null
  FullWaveform::Input input;                 // its progress sink writes the outputs
  unsigned threads = 1;
  bool verbose = false;   // say how the fragments were shared and each thread's CPU time
  bool streamed = false;  // the outputs are saved as the run goes (not held to be refined)
};

// The module's result text (empty on success); throws CliError when an input cannot be read
// again. With one thread, or one fragment, it is the plain module call.
std::string runModule(const ParallelRun& run);

}  // namespace quillo::cli
