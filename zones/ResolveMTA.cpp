// Automatic zone resolution. Reads the waves, directions and candidate travel times;
// writes transitionTables and, through setMTA, zones and certainty.
#include "zones/ResolveMTA.hpp"

#include <cmath>
#include <numbers>

#include "zones/BlockScoring.hpp"

namespace FullWaveform {

namespace {

constexpr std::uint32_t kNoWave = 0xFFFFFFFFu;
constexpr std::uint32_t kAllZones = 8;

// A negative block size is treated like 0: no blocks, no zone changes.
std::uint32_t blockSizeOf(const FatBoy<unsigned short>& fb) {
  return fb.scannerDevice.blockSize > 0 ? std::uint32_t(fb.scannerDevice.blockSize) : 0u;
}

std::int64_t blockCount(std::uint32_t nWaves, std::uint32_t blockSize) {
  if (blockSize == 0) return 0;
  return std::int64_t(std::ceil(double(nWaves) / double(blockSize)));
}

ZoneRange dominantZoneRange(FatBoy<unsigned short>& fb, std::uint32_t bs, std::int64_t nBlocks,
                            BlockWorkspace& workspace) {
  std::array<std::uint32_t, kAllZones> histogram{};
  const std::int64_t step = std::int64_t(std::ceil(double(nBlocks) * 0.01));
  std::vector<std::uint32_t> buffer(bs);
  for (std::int64_t b = 0; b < nBlocks; b += step) {
    for (std::uint32_t k = 0; k < bs; ++k) buffer[k] = std::uint32_t(b) * bs + k;
    const BlockResult& r = evaluateBlock(buffer, fb, 0, kAllZones, workspace);
    if (r.ratio < 0.98 && r.zone >= 0 && r.zone <= 7) histogram[r.zone] += 1;
  }
  return zoneRangeAround(histogram);
}

// A line-wise block ends at the first scan-line break inside it.
bool findLineBreak(FatBoy<unsigned short>& fb, std::uint32_t start, std::uint32_t end,
                   std::uint32_t& at) {
  double previous = scanAngle(fb, start);
  for (std::uint32_t w = start; w < end; ++w) {
    const double angle = scanAngle(fb, w);
    if ((previous != 0.0 && std::abs(angle - previous) > std::numbers::pi / 4) ||
        w == fb.nWaves - 1) {
      at = w;
      return true;
    }
    previous = angle;
  }
  return false;
}

// The block's waves, then their scan-line neighbours; returns how many are block waves.
std::size_t fillBuffer(const FatBoy<unsigned short>& fb, std::uint32_t start, std::uint32_t end,
                       std::vector<std::uint32_t>& buffer) {
  std::fill(buffer.begin(), buffer.end(), kNoWave);
  std::size_t k = 0;
  for (std::uint32_t w = start; w < end; ++w)
    if (w < fb.nWaves) buffer[k++] = w;
  const std::size_t own = k;
  for (const auto& table : fb.transitionTables) {
    for (std::uint32_t w = start; w < end; ++w) {
      if (w >= fb.nWaves) continue;
      if (k > 0 && table[w] == buffer[k - 1]) continue;
      if (k < buffer.size()) buffer[k++] = table[w];
    }
  }
  return own;
}

void blockPass(FatBoy<unsigned short>& fb, std::uint32_t bs, std::int64_t nBlocks, ZoneRange zr,
               BlockWorkspace& workspace) {
  std::vector<std::uint32_t> buffer(4 * std::size_t(bs));
  std::int64_t pending = -1;
  for (std::int64_t b = 0; b < nBlocks; ++b) {
    std::uint32_t start = std::uint32_t(b) * bs, end = start + bs;
    if (fb.scannerDevice.isLineWise()) {
      std::uint32_t at = 0;
      if (pending >= 0) {
        start = std::uint32_t(pending), end = start + bs, pending = -1;
        if (b < nBlocks - 1) b -= 1;
      } else if (findLineBreak(fb, start, end, at)) {
        pending = at, start = at - bs, end = at;
      }
    }
    const std::size_t own = fillBuffer(fb, start, end, buffer);
    const BlockResult& r = evaluateBlock(buffer, fb, zr.minZone, zr.maxZone, workspace);
    for (std::size_t k = 0; k < own; ++k)
      if (r.zones[k] >= 0) fb.setMTA(buffer[k], r.zones[k], r.ratio);
  }
}

}  // namespace

ZoneRange zoneRangeAround(const std::array<std::uint32_t, 8>& histogram) {
  std::uint32_t dominant = 0;
  for (std::uint32_t z = 1; z < histogram.size(); ++z)
    if (histogram[z] > histogram[dominant]) dominant = z;
  return {dominant < 2 ? 0u : dominant - 2, std::min(dominant, 5u) + 3};
}

std::string resolveMTA(FatBoy<unsigned short>& fb) {
  buildTransitionTables(fb);
  const std::uint32_t bs = blockSizeOf(fb);
  const std::int64_t nBlocks = blockCount(fb.nWaves, bs);
  BlockWorkspace workspace;
  // The sampling pass scores every zone: one column more serves the shifted rows.
  if (nBlocks > 0) fillWaveRows(fb, kAllZones + 1, workspace.waveRows);
  const ZoneRange zr =
      nBlocks > 0 ? dominantZoneRange(fb, bs, nBlocks, workspace) : ZoneRange{0, 3};
  blockPass(fb, bs, nBlocks, zr, workspace);
  return "";
}

}  // namespace FullWaveform
