// The survey simulator per preset (tiny, demo; large with --large): shots per second of
// writing the .kq file (CPU time of this process, so other load on the machine does not
// count), file size per million shots, the true zone distribution (share of waveform rows
// per zone) and the share of scan lines in which the true zone changes.
#include <malloc.h>

#include <cmath>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <map>
#include <string>

#include "sim/FragmentSimulation.hpp"
#include "sim/SurveyBundle.hpp"
#include "support/TempDir.hpp"

using namespace quillo::sim;

namespace {

double cpuSeconds() {
  return double(std::clock()) / CLOCKS_PER_SEC;
}

struct ZoneFigures {
  std::map<int, std::uint64_t> rowsPerZone;
  std::uint64_t rows = 0, scanLines = 0, changing = 0;
};

// Scan line of shot k: its flight line and the sweep (or turn) within it.
std::pair<std::uint64_t, std::uint64_t> scanLineOf(const Survey& s, std::uint64_t k) {
  const auto line = std::uint32_t(k / s.shotsPerLine());
  const double elapsed = s.shotTime(k) - s.line(line).startTime;
  return {line, std::uint64_t(std::floor(elapsed * s.config().scanRate))};
}

ZoneFigures zoneFigures(const Survey& s) {
  ZoneFigures f;
  std::map<std::pair<std::uint64_t, std::uint64_t>, std::pair<int, int>> zoneRange;
  for (std::uint32_t fragment = 0; fragment < s.fragmentCount(); ++fragment) {
    const FragmentData d = simulateFragment(s, fragment);
    for (std::size_t i = 0; i < d.rowZone.size(); ++i) {
      if (d.rowChannel[i] != 0) continue;  // one of the two channels' twin rows
      ++f.rows, ++f.rowsPerZone[d.rowZone[i]];
      if (d.rowTarget[i] == std::uint8_t(Target::Bird)) continue;
      const int z = d.rowZone[i];
      auto [it, fresh] = zoneRange.try_emplace(scanLineOf(s, d.rowEmitter[i]), z, z);
      if (!fresh) it->second = {std::min(it->second.first, z), std::max(it->second.second, z)};
    }
  }
  f.scanLines = zoneRange.size();
  for (const auto& [line, range] : zoneRange) f.changing += range.first != range.second;
  return f;
}

void benchPreset(const std::string& preset) {
  SurveyConfig c;
  presetConfig(preset, c);
  quillo::test::TempDir dir;
  const std::string file = dir.file(preset + "_210315_093000.kq");
  const double start = cpuSeconds();
  const std::string error = writeSurvey(c, file);
  const double seconds = cpuSeconds() - start;
  if (!error.empty()) {
    std::printf("%-6s failed: %s\n", preset.c_str(), error.c_str());
    return;
  }
  const double megabytes = double(std::filesystem::file_size(file)) / 1e6;
  std::printf("%-6s %10llu shots  %6.2f s CPU  %8.0f k shots/s  %6.1f MB per million shots\n",
              preset.c_str(), (unsigned long long)c.shots, seconds, c.shots / seconds / 1e3,
              megabytes / (double(c.shots) / 1e6));
  const ZoneFigures z = zoneFigures(Survey(c));
  std::printf("       true zones (share of rows):");
  for (const auto& [zone, n] : z.rowsPerZone)
    std::printf("  %d: %.2f %%", zone, 100.0 * double(n) / double(z.rows));
  std::printf("\n       scan lines with a zone change: %.1f %% of %llu\n",
              100.0 * double(z.changing) / double(z.scanLines), (unsigned long long)z.scanLines);
}

}  // namespace

int main(int argc, char** argv) {
  // As `quillo simulate` does: keep freed fragment buffers instead of mapping fresh pages.
  mallopt(M_MMAP_THRESHOLD, 1 << 30);
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  const bool large = argc > 1 && std::string(argv[1]) == "--large";
  for (const char* preset : {"tiny", "demo", "large"})
    if (std::string(preset) != "large" || large) benchPreset(preset);
  return 0;
}
