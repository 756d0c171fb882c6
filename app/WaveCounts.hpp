// Number of recorded waves per input fragment (waveform rows plus online records), read from
// the fragments' extents without loading their data. The progress bar turns fragments done
// into waves per second with it, and `quillo demo` prints the total.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tessal/Bundle.hpp"

namespace quillo::cli {

struct WaveCounts {
  std::map<std::string, std::uint64_t> perFragment;  // by fragment name ("Fragment_3")
  std::uint64_t total = 0;
  // Waves in the fragments numbered below `fragment`. Looked up, not summed: the progress bar
  // asks for every fragment, and a sum over thousands of fragments each time was quadratic.
  std::uint64_t before(unsigned fragment) const;
  // Fills the sums `before` reads from `perFragment`; countWaves calls it.
  void sumByNumber();

 private:
  struct Numbered {
    std::uint32_t number;
    std::uint64_t wavesUpTo;  // of this fragment and those numbered below it
  };
  std::vector<Numbered> numbered_;  // by number: the fragments the module names
};

WaveCounts countWaves(const Tessal::BundlePtr& input);

}  // namespace quillo::cli
