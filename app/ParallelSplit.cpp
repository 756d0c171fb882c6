#include "app/ParallelSplit.hpp"

#include <algorithm>

namespace quillo::cli {

namespace {

// Waves in the fragments below each fragment number up to `end` (index end: all of them).
std::vector<std::uint64_t> wavesBefore(const std::vector<std::uint64_t>& waves, std::uint32_t end) {
  std::vector<std::uint64_t> sums(end + 1, 0);
  for (std::uint32_t f = 0; f < end; ++f) sums[f + 1] = sums[f] + (f < waves.size() ? waves[f] : 0);
  return sums;
}

// A fragment that a range may start after: the module keeps no state from a fragment of
// fewer than three waves, so the range's first fragment would miss what one run carries.
bool cutAfter(const std::vector<std::uint64_t>& before, std::uint32_t fragment) {
  return before[fragment + 1] - before[fragment] >= 3;
}

// The share of the waves before cut r (1 to threads - 1). With two threads: while both
// workers run, the writer takes its share of the first range's output from the cores they
// share; once the first range has ended, it writes the second range's output on the core
// that range left, and both should end together: first = (1 - w) * second. More threads
// split the rest evenly. `leadIn`: the share of the waves each later range runs again.
double shareBeforeCut(unsigned r, unsigned threads, double writer, double leadIn) {
  const double work = 1.0 + (threads - 1) * leadIn;
  const double first = std::max(0.5 / threads, work * (1.0 - writer) / (threads - writer));
  return first + (1.0 - first) * double(r - 1) / double(threads - 1);
}

}  // namespace

double writerShare(FullWaveform::FWFModus mode, std::uint64_t fragments, std::uint64_t waves,
                   bool streamed) {
  const bool gaussian = mode == FullWaveform::FWF_GAUSSIAN_DECOMPOSITION;
  // With the refinement the writer refines, maps and encodes; not measured since the workers
  // encode, so the shares of that time stay.
  if (!streamed) return gaussian ? 0.011 : 0.02;
  // Measured with `--verbose` (writer CPU against the workers'): 0.42 in fast mode on a
  // million shots in 5,000 fragments, so the fixed cost of a fragment is that of about 77
  // waves in fast mode (48 in gaussian mode, whose module takes longer per wave). The part
  // per wave is small since the outputs' byte planes are coded in one pass: with the shares
  // measured before (0.22 fast, 0.15 gaussian) the demo's first range ended 0.5 s before the
  // second; with these both end within 0.1 s to 0.3 s.
  const double perWave = gaussian ? 0.03 : 0.05, fragmentWaves = gaussian ? 48.0 : 77.0;
  const double perFragment = waves ? fragmentWaves * double(fragments) / double(waves) : 0.0;
  return std::min(0.9, perWave + perFragment);
}

std::vector<FragmentRange> splitFragments(FragmentRange all, unsigned threads,
                                          const std::vector<std::uint64_t>& waves, double writer) {
  const std::vector<std::uint64_t> before = wavesBefore(waves, all.end);
  const std::uint64_t base = before[all.begin], total = before[all.end] - base;
  const double leadIn = 1.0 / double(all.end - all.begin);  // an average fragment
  std::vector<FragmentRange> ranges;
  std::uint32_t start = all.begin;
  for (unsigned r = 1; r < threads; ++r) {
    std::uint32_t stop = start + 1;
    const double target = double(total) * shareBeforeCut(r, threads, writer, leadIn);
    while (stop < all.end && double(before[stop] - base) < target) ++stop;
    // The nearer of the fragment boundaries around the target.
    if (stop > start + 1 &&
        target - double(before[stop - 1] - base) < double(before[stop] - base) - target)
      --stop;
    while (stop < all.end && !cutAfter(before, stop - 1)) ++stop;
    if (stop >= all.end) break;
    ranges.push_back({start, stop});
    start = stop;
  }
  ranges.push_back({start, all.end});
  return ranges;
}

}  // namespace quillo::cli
