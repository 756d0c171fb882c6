// Block zone scoring: the zone of a block of waves is the one whose candidate travel times
// change most smoothly along the block. A block straddling a zone change is scored a second
// time with the waves below a jump of the zone-0 travel times moved one zone up.
#pragma once

#include <cmath>
#include <cstdint>
#include <span>
#include <vector>

#include "store/FatBoy.hpp"

namespace FullWaveform {

// Candidate travel times of a buffer's waves, one row per buffer entry: column c is the
// travel time if the pulse left c shots before the row's reference shot. A row moved one
// zone up (shift -1) reads from one column further, so there is one column beyond the
// scored zones.
struct CandidateRows {
  std::vector<double> values;
  std::uint32_t columns = 0;

  double at(std::size_t row, std::int32_t shift, std::uint32_t zone) const {
    return values[row * columns + zone - shift];
  }
};

struct ZoneScore {
  double ratio = 0.0;
  std::int32_t zone = -1;
  double score = 0.0;
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

// What scoring a block needs besides the store, kept from block to block so that the block
// pass allocates nothing once the first block has sized it. `waveRows` holds the candidates
// of every wave of the fragment (row = wave index), walked once: a wave takes part in the
// blocks of up to four scan lines.
struct BlockWorkspace {
  CandidateRows waveRows;
  CandidateRows rows;
  std::vector<double> sortedLengths;
  std::vector<std::int32_t> shift;
  BlockResult result;
};

// Rows of maxZone + 1 candidates for the buffer's waves.
void fillCandidateRows(const std::vector<std::uint32_t>& buffer, std::uint32_t maxZone,
                       const FatBoy<unsigned short>& fatBoy, CandidateRows& rows);

// Rows of `columns` candidates for every wave of the fragment, for evaluateBlock.
void fillWaveRows(const FatBoy<unsigned short>& fatBoy, std::uint32_t columns,
                  CandidateRows& waveRows);

// Scores zones minZone to maxZone - 1 over the first `count` rows; `shift` holds 0 or -1
// per row (empty: all 0).
ZoneScore scoreZones(const CandidateRows& rows, std::size_t count, std::uint32_t minZone,
                     std::uint32_t maxZone, std::span<const std::int32_t> shift);

// -1 for the rows whose zone-0 travel time lies below the last jump of more than
// `threshold` in their sorted order, else 0.
void transitionShift(const CandidateRows& rows, std::size_t count, double threshold,
                     std::vector<double>& sortedLengths, std::vector<std::int32_t>& shift);

// Scores the block with and without the transition shift and gives the zones of the better
// one; the result lives in the workspace until its next use. Reads the workspace's wave rows
// when they have more than maxZone columns, else walks the buffer's waves.
const BlockResult& evaluateBlock(const std::vector<std::uint32_t>& buffer,
                                 FatBoy<unsigned short>& fatBoy, std::uint32_t minZone,
                                 std::uint32_t maxZone, BlockWorkspace& workspace);

// One-off forms of the above for a single buffer.
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
