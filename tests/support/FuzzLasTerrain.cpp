// Fuzz entry: arbitrary bytes as a LAS file for the simulator's terrain reader.
#include <stdexcept>

#include "sim/LasTerrain.hpp"
#include "support/FuzzEntries.hpp"

namespace quillo::fuzz {

void readLasTerrain(const std::uint8_t* data, std::size_t size) {
  try {
    const sim::TerrainPoints points = sim::readLasPoints(data, size, "fuzz.las");
    // Coordinates that do not line up would be a silently wrong terrain.
    if (points.x.size() != points.y.size() || points.x.size() != points.z.size())
      throw std::logic_error("readLasPoints: x, y and z differ in length");
  } catch (const std::runtime_error&) {
    // A rejected file, with its reason: the expected outcome for most inputs.
  }
}

}  // namespace quillo::fuzz
