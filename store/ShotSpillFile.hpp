// Where the shot-time index keeps packed blocks it is unlikely to read again: an unlinked
// temporary file in the system's temporary folder ($TMPDIR), gone when the run ends or dies.
// Writes append; reads come back whole. A folder that cannot hold the file only means the
// blocks stay in memory.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "run/Export.hpp"

namespace FullWaveform {

class QUILLO_API ShotSpillFile {
 public:
  // Null when no temporary file can be made.
  static std::unique_ptr<ShotSpillFile> open();
  ~ShotSpillFile();
  ShotSpillFile(const ShotSpillFile&) = delete;
  ShotSpillFile& operator=(const ShotSpillFile&) = delete;

  // Appends the bytes and returns where they start; -1 when they could not all be written.
  std::int64_t append(const std::vector<std::uint8_t>& bytes);
  // Reads `count` bytes written at `offset`; throws std::runtime_error when it cannot.
  std::vector<std::uint8_t> read(std::int64_t offset, std::size_t count) const;

 private:
  explicit ShotSpillFile(int descriptor) : descriptor_(descriptor) {}
  int descriptor_;
  std::int64_t end_ = 0;
};

}  // namespace FullWaveform
