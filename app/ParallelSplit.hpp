// Where a run on several threads cuts one input's fragments: contiguous ranges, one per
// thread, of about equal cost. Reads the waves of each fragment and the writer's share of
// the work; writes the ranges. Every range after the first also runs the fragment before it
// (its lead-in), and the first range's worker competes for the cores with the writer, which
// can write a later range's fragments only once the ranges before it have ended: so the
// first range is the shorter one, by as much as keeps the cores busy until the end.
#pragma once

#include <cstdint>
#include <vector>

#include "run/Input.hpp"

namespace quillo::cli {

struct FragmentRange {
  std::uint32_t begin, end;
};

// The writer's CPU time as a share of the module's: a part per wave (mostly deflating the
// outputs' chunks) and a part per fragment (its arrays, creators and table rows).
// `streamed`: the outputs are saved as the run goes (no refinement on the writer).
double writerShare(FullWaveform::FWFModus mode, std::uint64_t fragments, std::uint64_t waves,
                   bool streamed);

// Ranges of `all` for `threads` threads; `waves[f]` is fragment f's wave count (0 past its
// end). Fewer ranges when there are too few fragments to cut.
std::vector<FragmentRange> splitFragments(FragmentRange all, unsigned threads,
                                          const std::vector<std::uint64_t>& waves, double writer);

}  // namespace quillo::cli
