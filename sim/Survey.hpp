// The survey simulator: a high-pulse-rate airborne survey over a procedural scene or a
// gridded terrain, flown in parallel straight lines, written as the module's input ("Shots",
// "Waveforms", "OPP") plus the truth ("Truth"). Every shot is computed from its index
// (counter-based random numbers), so any fragment can be simulated on its own and a seed
// always gives the same data.
#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "gemwold/PhysicalSpace.hpp"
#include "sim/HeightGrid.hpp"

namespace quillo::sim {

enum class Pattern { LineWise, Radial };

struct SurveyConfig {
  std::uint64_t seed = 1;
  std::uint64_t shots = 200000;
  std::uint32_t fragmentShots = 50000;
  double pulseRate = 1.0e6;    // Hz, nominal
  double ppmSpread = 0.03;     // each shot is off its nominal time by up to +-3 % of the interval
  double altitude = 500.0;     // m above the ground level of the scene
  double speed = 60.0;         // m/s
  double scanRate = 100.0;     // lines (or turns) per second
  double maxScanAngle = 0.87;  // rad, line-wise half sweep (the jump back exceeds 90 degrees)
  // Line-wise: share of each scan period the beam spends outside the field of view (turning
  // back); with shotsBetweenLines the laser keeps firing there and those shots have no echo,
  // without it no shot is fired there at all.
  double scanGapShare = 0.2;
  bool shotsBetweenLines = true;
  double coneHalfAngle = 0.35;  // rad, radial scanner: the beam's angle off nadir (20 degrees)
  Pattern pattern = Pattern::LineWise;
  std::uint32_t samplesPerRow = 64;
  double sampleInterval = 1.0e-9;
  double lightSpeed = 299702547.0;
  // The receiver is blind while a pulse leaves: echoes arriving this soon after any shot's
  // emission are not recorded (the truth keeps them, marked unrecorded). 0: never blind.
  double blindWindow = 10.0e-9;   // s
  double dustShare = 0.001;       // share of shots with an isolated echo off any surface (dust)
  double onlineShare = 0.5;       // share of echoes in waveform rows that also get an online record
  double onlineOnlyShare = 0.03;  // share of rows whose echoes get online records only
  std::string date = "210315_093000";  // YYMMDD_HHMMSS; sets the GPS week time
  // Flight lines: parallel, flown alternately forth and back, centred on the scene.
  std::uint32_t lines = 1;
  double lineSpacing = 600.0;                                 // m between neighbouring lines
  double heading = std::numeric_limits<double>::quiet_NaN();  // degrees clockwise from +y;
                                                              // NaN: along the scene's longer side
  double turnSeconds = 60.0;                                  // GPS time between two lines
  std::int32_t onlyLine = -1;    // >= 0: the survey is that one line's shots (a file per line)
  std::int32_t rdbSegment = -1;  // the "Shots" attribute "RDB_Segment"; -1: not written
  std::shared_ptr<const HeightGrid> terrain;  // null: the procedural scene
  std::string coordinateSystem;  // OGC WKT of the scene's coordinates; empty: none written
};

// Presets: "tiny" (tests), "demo", "large". False for an unknown name.
bool presetConfig(const std::string& name, SurveyConfig& config);

// What an echo came from; birds and dust are off any surface.
enum class Target : std::uint8_t {
  Ground = 0,
  Building = 1,
  Water = 2,
  Vegetation = 3,
  Bird = 4,
  Dust = 5
};
inline constexpr int kTargetCount = 6;
const char* targetName(Target t);
inline bool isOffSurface(Target t) {
  return t == Target::Bird || t == Target::Dust;
}

struct Return {
  double range;  // m along the beam
  double reflectivity;
  Target target;
};

// Shot k: emission time, beam origin and unit direction (map frame); a shot fired while the
// beam is outside the field of view has no echo.
struct Shot {
  double time;
  Gemwold::PhysicalSpace::point origin;
  Gemwold::PhysicalSpace::vector direction;
  bool inView = true;
};

// The scanner's frame: x across the first line's track, y along it, z up, with its origin at
// the scene's centre, so that the scan angle atan2(x, z) sweeps across track for any heading.
// map = R * scanner + t; the rows of the 3 x 4 matrix [R | t].
using ScannerToMap = std::array<double, 12>;

// One flight line: where it starts, its direction of flight and the right-hand side.
struct FlightLine {
  double startTime;
  Gemwold::PhysicalSpace::point start;
  Gemwold::PhysicalSpace::vector along, across;
};

class Survey {
 public:
  explicit Survey(const SurveyConfig& config);
  const SurveyConfig& config() const { return config_; }

  double shotTime(std::uint64_t k) const;
  Shot shot(std::uint64_t k) const;
  // The echoes of shot k, nearest first.
  std::vector<Return> returns(std::uint64_t k) const;
  void returns(std::uint64_t k, const Shot& shot, std::vector<Return>& out) const;
  // The shot after which an echo arriving at `arrival` is recorded (from emitting shot k):
  // the latest shot of the survey fired before it.
  std::uint64_t recordingShot(std::uint64_t k, double arrival) const;
  double terrainHeight(double x, double y) const;
  double groundLevel() const { return groundLevel_; }
  std::uint32_t fragmentCount() const;
  std::uint64_t shotsPerLine() const { return shotsPerLine_; }
  FlightLine line(std::uint32_t index) const;
  // A bound on the zone of any echo of the survey: how far back a recording shot may reach.
  std::uint32_t deepestZone() const;
  // Shot slots (pulse intervals) of one scan line or turn, and of them those in the gap.
  std::uint64_t scanPeriodSlots() const { return periodSlots_; }
  std::uint64_t scanGapSlots() const { return gapSlots_; }
  const ScannerToMap& scannerToMap() const { return scannerToMap_; }
  Gemwold::PhysicalSpace::point toScanner(const Gemwold::PhysicalSpace::point& p) const;
  Gemwold::PhysicalSpace::vector toScanner(const Gemwold::PhysicalSpace::vector& v) const;

 private:
  double lineSeconds() const;
  std::uint64_t slotInLine(std::uint64_t inLine) const;
  void aimBeam(const FlightLine& l, double elapsed, std::uint64_t slot, Shot& s) const;
  void surfaceReturns(std::uint64_t k, double x, double y, double range,
                      std::vector<Return>& out) const;
  void addOffSurfaceEchoes(std::uint64_t k, double surfaceRange, std::vector<Return>& out) const;
  double rangeToSurface(const Shot& s) const;
  double marchToSurface(const Shot& s) const;
  static void waterReturn(double range, double u, std::vector<Return>& out);
  static void terrainReturn(Surface surface, double range, double u, std::vector<Return>& out);

  double gpsStart_ = 0.0;
  SurveyConfig config_;
  double groundLevel_ = 0.0, headingRad_ = 0.0;
  double centreX_ = 0.0, centreY_ = 0.0;
  std::uint64_t shotsPerLine_ = 1;
  std::uint64_t periodSlots_ = 1, gapSlots_ = 0;
  ScannerToMap scannerToMap_{};
  std::uint32_t firstLine_ = 0;  // the line of shot 0
};

// Counter-based random numbers in [0, 1): the same (seed, index, purpose) always give the same.
double uniformAt(std::uint64_t seed, std::uint64_t index, std::uint64_t purpose);

}  // namespace quillo::sim
