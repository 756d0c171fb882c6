// The survey simulator: a high-pulse-rate airborne survey over a procedural scene, written as
// the module's input ("Shots", "Waveforms", "OPP") plus the truth ("Truth"). Every shot is
// computed from its index (counter-based random numbers), so any fragment can be simulated
// on its own and a seed always gives the same data.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "gemwold/PhysicalSpace.hpp"

namespace quillo::sim {

enum class Pattern { LineWise, Radial };

struct SurveyConfig {
  std::uint64_t seed = 1;
  std::uint64_t shots = 200000;
  std::uint32_t fragmentShots = 50000;
  double pulseRate = 1.0e6;    // Hz, nominal
  double ppmSpread = 0.03;     // shot interval varies by up to +-3 %
  double altitude = 500.0;     // m above the datum
  double speed = 60.0;         // m/s along +y
  double scanRate = 100.0;     // lines (or turns) per second
  double maxScanAngle = 0.52;  // rad, line-wise half sweep; radial cone half angle
  Pattern pattern = Pattern::LineWise;
  std::uint32_t samplesPerRow = 96;
  double sampleInterval = 1.0e-9;
  double lightSpeed = 299702547.0;
  double onlineShare = 0.5;            // share of echoes that also get an online record
  std::string date = "210315_093000";  // YYMMDD_HHMMSS; sets the GPS week time
};

// Presets: "tiny" (tests), "demo", "large". False for an unknown name.
bool presetConfig(const std::string& name, SurveyConfig& config);

enum class Target : std::uint8_t { Ground = 0, Building = 1, Water = 2, Vegetation = 3, Noise = 4 };

struct Return {
  double range;  // m along the beam
  double reflectivity;
  Target target;
};

// Shot k: emission time, beam origin and unit direction.
struct Shot {
  double time;
  Gemwold::PhysicalSpace::point origin;
  Gemwold::PhysicalSpace::vector direction;
};

class Survey {
 public:
  explicit Survey(const SurveyConfig& config);
  const SurveyConfig& config() const { return config_; }

  double shotTime(std::uint64_t k) const;
  Shot shot(std::uint64_t k) const;
  // The echoes of shot k, nearest first.
  std::vector<Return> returns(std::uint64_t k) const;
  // The shot after which an echo arriving at `arrival` is recorded (from emitting shot k).
  std::uint64_t recordingShot(std::uint64_t k, double arrival) const;
  double terrainHeight(double x, double y) const;
  std::uint32_t fragmentCount() const;

 private:
  double gpsStart_ = 0.0;
  SurveyConfig config_;
};

// Counter-based random numbers in [0, 1): the same (seed, index, purpose) always give the same.
double uniformAt(std::uint64_t seed, std::uint64_t index, std::uint64_t purpose);

}  // namespace quillo::sim
