// Shot timing (pulse-position modulation), flight geometry, scan pattern and the procedural
// scene with its returns.
#include "sim/Survey.hpp"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "pelkor/Chronometry.hpp"

namespace quillo::sim {

namespace {

std::uint64_t splitmix(std::uint64_t x) {
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}

double secondsOfWeek(const std::string& date) {
  if (date.size() != 13) return 0.0;
  const Pelkor::Chronometry day(date.substr(4, 2) + date.substr(2, 2) + date.substr(0, 2));
  const int h = std::stoi(date.substr(7, 2)), m = std::stoi(date.substr(9, 2)),
            s = std::stoi(date.substr(11, 2));
  return day.weekDay * 86400.0 + h * 3600.0 + m * 60.0 + s;
}

bool inBuilding(double x, double y) {
  const double bx = std::fmod(std::fabs(x + 200.0), 60.0), by = std::fmod(std::fabs(y), 80.0);
  return x < -80.0 && x > -250.0 && bx < 30.0 && by < 40.0;
}

}  // namespace

double uniformAt(std::uint64_t seed, std::uint64_t index, std::uint64_t purpose) {
  const std::uint64_t h = splitmix(splitmix(seed * 0x100000001B3ull + purpose) ^ index);
  return double(h >> 11) * (1.0 / 9007199254740992.0);
}

bool presetConfig(const std::string& name, SurveyConfig& c) {
  c = SurveyConfig{};
  if (name == "tiny")
    c.shots = 60000, c.fragmentShots = 20000, c.scanRate = 200.0;
  else if (name == "demo")
    c.shots = 2000000, c.fragmentShots = 100000;
  else if (name == "large")
    c.shots = 10000000, c.fragmentShots = 100000;
  else
    return false;
  return true;
}

Survey::Survey(const SurveyConfig& config)
    : gpsStart_(secondsOfWeek(config.date)), config_(config) {}

// Nominal spacing plus a jitter drawn per shot: the modulation that tells zones apart.
double Survey::shotTime(std::uint64_t k) const {
  const double nominal = 1.0 / config_.pulseRate;
  const double jitter = (uniformAt(config_.seed, k, 1) - 0.5) * 2.0 * config_.ppmSpread * nominal;
  return gpsStart_ + double(k) * nominal + jitter;
}

Shot Survey::shot(std::uint64_t k) const {
  const double t = shotTime(k);
  const double elapsed = t - gpsStart_;
  Shot s{t, {0.0, config_.speed * elapsed, config_.altitude}, {}};
  const double phase = std::fmod(elapsed * config_.scanRate, 1.0);
  const double a = config_.maxScanAngle;
  if (config_.pattern == Pattern::LineWise) {
    const double angle = -a + 2.0 * a * phase;  // sweeps across track, then jumps back
    s.direction = {std::sin(angle), 0.0, -std::cos(angle)};
  } else {
    const double turn = 2.0 * std::numbers::pi * phase;
    s.direction = {std::sin(a) * std::cos(turn), std::sin(a) * std::sin(turn), -std::cos(a)};
  }
  return s;
}

// Hills, a cliff, a block of buildings, a lake and a forest.
double Survey::terrainHeight(double x, double y) const {
  double h = 20.0 * std::sin(x / 90.0) * std::cos(y / 120.0) + 10.0 * std::sin(y / 37.0 + 1.0);
  if (x > 120.0) h += 60.0;         // cliff along the track
  if (inBuilding(x, y)) h += 18.0;  // flat-roofed buildings with vertical walls
  return h;
}

std::vector<Return> Survey::returns(std::uint64_t k) const {
  const Shot s = shot(k);
  const auto& d = s.direction;
  double range = (s.origin.z - terrainHeight(s.origin.x, s.origin.y)) / -d.z;
  for (int i = 0; i < 12; ++i) {
    const double x = s.origin.x + d.x * range, y = s.origin.y + d.y * range;
    range = (s.origin.z - terrainHeight(x, y)) / -d.z;
  }
  const double x = s.origin.x + d.x * range, y = s.origin.y + d.y * range;
  const double u = uniformAt(config_.seed, k, 2);
  std::vector<Return> out;
  const bool water = x > -60.0 && x < 40.0 && std::fmod(std::fabs(y), 400.0) < 150.0;
  const bool forest = x > 160.0 && x < 300.0;
  const bool building = inBuilding(x, y);
  if (water) {
    if (u < 0.3) out.push_back({range, 0.05, Target::Water});  // mostly no return at all
  } else if (forest && u < 0.7) {
    const double canopy = 8.0 + 10.0 * uniformAt(config_.seed, k, 3);
    out.push_back({range - canopy, 0.3, Target::Vegetation});
    if (u < 0.5) out.push_back({range, 0.2, Target::Ground});
  } else {
    out.push_back({range, building ? 0.6 : 0.35, building ? Target::Building : Target::Ground});
  }
  if (uniformAt(config_.seed, k, 4) < 0.002)  // a bird or a dust cloud near the aircraft
    out.insert(out.begin(), {40.0 + 60.0 * uniformAt(config_.seed, k, 5), 0.5, Target::Noise});
  return out;
}

std::uint64_t Survey::recordingShot(std::uint64_t k, double arrival) const {
  std::uint64_t j = k;
  while (shotTime(j + 1) <= arrival) ++j;
  return j;
}

std::uint32_t Survey::fragmentCount() const {
  return std::uint32_t((config_.shots + config_.fragmentShots - 1) / config_.fragmentShots);
}

}  // namespace quillo::sim
