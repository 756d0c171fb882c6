// What the run-long shot-time index costs per hour of flight: inserts fragments of 100 000
// steady shots (with nanosecond jitter) at 1 and 2 MHz and measures the largest heap it held
// in the first and in the second half of the shots, and the scratch bytes set aside. The heap
// steps up and down with the plain blocks of the newest fragment, so peaks are compared: their
// growth is what each further shot costs, and an hour adds that to the first half's peak.
// Argument: shots to insert per rate (default 20 million).
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "store/ShotTimeIndex.hpp"

using FullWaveform::ShotTimeIndex;

namespace {

struct Figures {
  double heapHalf, heapAll, scratchHalf, scratchAll, seconds;
};

Figures insertShots(double rateHz, std::size_t shots) {
  std::mt19937_64 random(7);
  std::normal_distribution<double> jitter(0.0, 1e-9);
  ShotTimeIndex index;
  const std::size_t perFragment = 100000;
  const auto start = std::chrono::steady_clock::now();
  std::vector<ShotTimeIndex::value_type> batch;
  Figures f{};
  for (std::size_t first = 0; first < shots; first += perFragment) {
    const bool firstHalf = first < shots / 2 / perFragment * perFragment;
    if (firstHalf) f.scratchHalf = double(index.scratchBytes());
    batch.clear();
    for (std::size_t s = 0; s < perFragment; ++s)
      batch.emplace_back(345600.0 + double(first + s) / rateHz + jitter(random), std::uint32_t(s));
    index.insert(batch);
    double& peak = firstHalf ? f.heapHalf : f.heapAll;
    peak = std::max(peak, double(index.memoryBytes()));
  }
  f.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  f.scratchAll = double(index.scratchBytes());
  return f;
}

}  // namespace

int main(int argc, char** argv) {
  const std::size_t shots = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 20000000;
  std::printf("shot-time index, %zu shots per rate, fragments of 100000 shots\n", shots);
  std::printf("%-6s %12s %14s %14s %16s %12s\n", "rate", "heap (MB)", "heap B/kshot",
              "heap MB/hour", "scratch GB/hour", "M shots/s");
  for (double rate : {1e6, 2e6}) {
    const Figures f = insertShots(rate, shots);
    const double half = double(shots - shots / 2 / 100000 * 100000);
    const double heapPerShot = std::max(0.0, f.heapAll - f.heapHalf) / half;
    const double scratchPerShot = (f.scratchAll - f.scratchHalf) / half;
    const double hour = rate * 3600.0;
    std::printf("%-6s %12.1f %14.2f %14.1f %16.2f %12.2f\n", rate == 1e6 ? "1 MHz" : "2 MHz",
                f.heapAll / 1e6, heapPerShot * 1e3, (f.heapHalf + heapPerShot * hour) / 1e6,
                scratchPerShot * hour / 1e9, double(shots) / f.seconds / 1e6);
  }
}
