// Reads the x, y, z and class of every point of a LAS 1.0-1.4 file (point formats 0-10) as
// terrain for the survey simulator. Everything the layout depends on (header size, offset to point
// data, point record length, legacy or 64-bit point count, scale and offset) is taken from the
// header; a file that contradicts itself or ends early is rejected with a message naming it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace quillo::sim {

struct TerrainPoints {
  std::vector<double> x, y, z;
  std::vector<std::uint8_t> classification;  // ASPRS class codes; empty: all unclassified
};

// Throws std::runtime_error naming `name` and what is wrong; never reads out of bounds.
TerrainPoints readLasPoints(const std::uint8_t* data, std::size_t size, const std::string& name);

// Reads the whole file at `path` and parses it with readLasPoints.
TerrainPoints readLasFile(const std::string& path);

}  // namespace quillo::sim
