// Block zone scoring: the zone of a block of waves is the one whose candidate travel times
// change most smoothly along the block. A block straddling a zone change is scored a second
// time with the waves below a jump of the zone-0 travel times moved one zone up.
#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

#include "store/FatBoy.hpp"

namespace FullWaveform {

struct ZoneScore {
  double ratio = 0.0;
  // Candidate travel times, one row per buffer entry, `columns` per row: column c is the
  // travel time if the pulse left c shots before the row's reference shot.
  std::vector<double> table;
  std::uint32_t columns = 0;
  std::int32_t zone = -1;
  double score = 0.0;

  double at(std::size_t row, std::uint32_t column) const { return table[row * columns + column]; }
};

struct BlockResult {
  double ratio = 0.0;
  std::int32_t zone = -1;
  std::vector<std::int32_t> zones;  // per buffer entry, -1 where no zone is given
};

// Remembers the last position at which successive sorted travel times jump by more than
// the threshold.
struct TransitionTest {
  double threshold;
  std::int32_t transition = -1;
  void operator()(double previous, double current, std::int32_t position) {
    if (std::abs(current - previous) > threshold) transition = position;
  }
};

ZoneScore scoreMTAZones(const std::vector<std::uint32_t>& buffer, const std::uint32_t& minZone,
                        const std::uint32_t& maxZone, FatBoy<unsigned short>& fatBoy,
                        const std::vector<std::int32_t>& shift);

std::vector<std::int32_t> mtaTransition(const std::vector<std::uint32_t>& buffer,
                                        const std::int32_t& block, FatBoy<unsigned short>& fatBoy,
                                        const std::uint32_t& minZone, const std::uint32_t& maxZone);

BlockResult evaluateBlockMTA(const std::vector<std::uint32_t>& buffer, const std::int32_t& block,
                             FatBoy<unsigned short>& fatBoy, const std::uint32_t& minZone,
                             const std::uint32_t& maxZone);

}  // namespace FullWaveform
