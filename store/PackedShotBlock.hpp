// One settled block of the run's shot-time index, packed. Reads a block's time-ordered
// (shot time, shot index) pairs once and answers positional reads and lower-bound searches
// on them without unpacking the block.
//
// Shot times become integers that sort like the doubles (their bit patterns, reordered for the
// sign); each entry then stores how its step from the previous time differs from the previous
// step, and how its shot index differs from previous + 1, as zig-zag variable-length integers.
// A steady pulse rate gives about 2 bytes a shot instead of 16, and the values come back bit
// for bit. A full entry every 64 bounds the decoding a read needs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "run/Export.hpp"

namespace FullWaveform {

class QUILLO_API PackedShotBlock {
 public:
  using Entry = std::pair<double, std::uint32_t>;

  PackedShotBlock() = default;
  // `entries` are in strictly increasing time order, all times finite.
  PackedShotBlock(const Entry* entries, std::size_t count);

  std::size_t size() const { return size_; }
  Entry at(std::size_t position) const;
  // The first position whose time is not less than `time` (size() when none).
  std::size_t lowerBound(double time) const;
  void unpack(Entry* out) const;
  std::size_t memoryBytes() const;

  // The block as bytes and back, for keeping it in a file this process wrote.
  std::vector<std::uint8_t> toBytes() const;
  static PackedShotBlock fromBytes(const std::vector<std::uint8_t>& bytes);

 private:
  struct Mark {  // a full entry, and where the packed steps after it start
    std::uint64_t key;
    std::uint32_t shot;
    std::uint32_t offset;
  };
  static constexpr std::size_t kMarkShift = 6, kMarkEvery = std::size_t(1) << kMarkShift;

  class Cursor;

  std::vector<Mark> marks_;
  std::vector<std::uint8_t> steps_;
  std::size_t size_ = 0;
};

}  // namespace FullWaveform
