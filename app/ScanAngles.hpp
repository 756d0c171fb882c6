// LAS scan angles of a result's points: the beam's angle from nadir in the map frame, positive
// to the right of the flight direction, in 0.006 degree steps (-90 to +90 degrees). Reads the
// points' map positions, ranges, beam directions ("Waveforms.DirectionDelta", scanner frame)
// and times; the flight direction comes from the trajectory, the beam origins (position minus
// range along the beam) over time, so it holds for any heading and either way along a line.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "app/MapPositions.hpp"
#include "gemwold/PhysicalSpace.hpp"

namespace quillo::cli {

class ScanAngles {
 public:
  using point = Gemwold::PhysicalSpace::point;
  using vector = Gemwold::PhysicalSpace::vector;

  // Each point's fields, by index within one fragment.
  struct Beams {
    std::size_t size = 0;
    const Tessal::MemArray<1, point>* positions;  // map frame
    const Tessal::MemArray<1, double>* times;     // seconds
    const Tessal::MemArray<1, double>* ranges;    // metres
    const Tessal::MemArray<1, vector>* steps;     // along the beam, scanner frame
  };

  explicit ScanAngles(const Transform& scannerToMap) : toMap_(scannerToMap) {}

  // The angles of one fragment's points, in their order, valid until the next call; fragments
  // are given in time order (a fragment too short to show the flight direction takes the one
  // before it).
  const std::vector<std::int16_t>& fragment(const Beams& beams);

 private:
  vector beam(const Beams& b, std::size_t k) const;  // unit, map frame
  void findOrigins(const Beams& b);
  void orderByTime(const Beams& b);
  void anglesAlongTheTrajectory(const Beams& b);
  vector fallbackDirection() const;

  Transform toMap_;
  std::optional<vector> lastFlight_;
  // Per fragment, kept to spare the allocations.
  std::vector<point> origins_;
  std::vector<std::uint32_t> order_;  // points with a time and an origin, by time
  std::vector<std::int16_t> angles_;
};

}  // namespace quillo::cli
