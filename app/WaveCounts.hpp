// Number of recorded waves per input fragment (waveform rows plus online records), read from
// the fragments' extents without loading their data. The progress bar turns fragments done
// into waves per second with it, and `quillo demo` prints the total.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "tessal/Bundle.hpp"

namespace quillo::cli {

struct WaveCounts {
  std::map<std::string, std::uint64_t> perFragment;  // by fragment name ("Fragment_3")
  std::uint64_t total = 0;
  // Waves in the fragments numbered below `fragment`.
  std::uint64_t before(unsigned fragment) const;
};

WaveCounts countWaves(const Tessal::BundlePtr& input);

}  // namespace quillo::cli
