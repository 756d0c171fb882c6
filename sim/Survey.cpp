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

constexpr double kBuildingHeight = 25.0;
constexpr double kHighestProcedural = 30.0 + 60.0 + kBuildingHeight;  // hills, cliff, roofs

bool inBuilding(double x, double y) {
  const double bx = std::fmod(std::fabs(x + 200.0), 60.0), by = std::fmod(std::fabs(y), 80.0);
  return x < -240.0 && x > -420.0 && bx < 30.0 && by < 40.0;
}

// Counter purposes of the random draws per shot.
constexpr std::uint64_t kBirdPurpose = 4, kBirdRangePurpose = 5, kDustPurpose = 6,
                        kDustRangePurpose = 10, kDustReflectivityPurpose = 11;
constexpr double kDustNearest = 50.0;   // m from the aircraft: beyond any bird
constexpr double kDustClearance = 5.0;  // m above the surface: apart from its echo

}  // namespace

const char* targetName(Target t) {
  static constexpr const char* kNames[kTargetCount] = {"ground",     "building", "water",
                                                       "vegetation", "bird",     "dust"};
  const auto i = std::size_t(t);
  return i < std::size_t(kTargetCount) ? kNames[i] : "unknown";
}

double uniformAt(std::uint64_t seed, std::uint64_t index, std::uint64_t purpose) {
  const std::uint64_t h = splitmix(splitmix(seed * 0x100000001B3ull + purpose) ^ index);
  return double(h >> 11) * (1.0 / 9007199254740992.0);
}

bool presetConfig(const std::string& name, SurveyConfig& c) {
  c = SurveyConfig{};
  if (name == "tiny")
    c.shots = 60000, c.fragmentShots = 20000, c.scanRate = 200.0;
  else if (name == "demo")
    c.shots = 2000000, c.fragmentShots = 100000, c.lines = 2;
  else if (name == "large")
    c.shots = 10000000, c.fragmentShots = 100000, c.lines = 4;
  else
    return false;
  return true;
}

Survey::Survey(const SurveyConfig& config)
    : gpsStart_(secondsOfWeek(config.date)), config_(config) {
  config_.lines = std::max<std::uint32_t>(config_.lines, 1);
  shotsPerLine_ = std::max<std::uint64_t>((config_.shots + config_.lines - 1) / config_.lines, 1);
  if (config_.onlyLine >= 0 && std::uint32_t(config_.onlyLine) < config_.lines) {
    firstLine_ = std::uint32_t(config_.onlyLine);
    const std::uint64_t before = firstLine_ * shotsPerLine_;
    config_.shots = std::clamp<std::uint64_t>(config_.shots - std::min(config_.shots, before), 1,
                                              shotsPerLine_);
  }
  double heading = config_.heading;
  if (const auto& grid = config_.terrain) {
    groundLevel_ = grid->groundLevel();
    centreX_ = 0.5 * (grid->extent().minX + grid->extent().maxX);
    centreY_ = 0.5 * (grid->extent().minY + grid->extent().maxY);
    if (std::isnan(heading)) heading = grid->extent().width() > grid->extent().depth() ? 90 : 0;
  }
  if (std::isnan(heading)) heading = 0.0;
  headingRad_ = heading * std::numbers::pi / 180.0;
  const double sinH = std::sin(headingRad_), cosH = std::cos(headingRad_);
  scannerToMap_ = {cosH, sinH, 0.0, centreX_, -sinH, cosH, 0.0, centreY_, 0.0, 0.0, 1.0, 0.0};
  // The mirror turns in step with the pulse clock: a whole number of slots per scan line.
  periodSlots_ = std::max<std::uint64_t>(1, std::llround(config_.pulseRate / config_.scanRate));
  if (config_.pattern == Pattern::LineWise)
    gapSlots_ = std::min<std::uint64_t>(
        periodSlots_ - 1, std::uint64_t(std::llround(double(periodSlots_) *
                                                     std::clamp(config_.scanGapShare, 0.0, 1.0))));
}

Gemwold::PhysicalSpace::point Survey::toScanner(const Gemwold::PhysicalSpace::point& p) const {
  const auto& m = scannerToMap_;
  const double dx = p.x - m[3], dy = p.y - m[7];
  return {m[0] * dx + m[4] * dy, m[1] * dx + m[5] * dy, p.z - m[11]};
}

Gemwold::PhysicalSpace::vector Survey::toScanner(const Gemwold::PhysicalSpace::vector& v) const {
  const auto& m = scannerToMap_;
  return {m[0] * v.x + m[4] * v.y, m[1] * v.x + m[5] * v.y, v.z};
}

// Without shots between lines the slots in the gap are skipped: shot n of a line is fired in
// a later slot.
std::uint64_t Survey::slotInLine(std::uint64_t inLine) const {
  if (config_.shotsBetweenLines || gapSlots_ == 0) return inLine;
  const std::uint64_t fired = periodSlots_ - gapSlots_;
  return inLine / fired * periodSlots_ + inLine % fired;
}

double Survey::lineSeconds() const {
  return double(slotInLine(shotsPerLine_ - 1) + 1) / config_.pulseRate;
}

// Lines are flown alternately forth and back, the first one on the left of the block.
FlightLine Survey::line(std::uint32_t index) const {
  const double sinH = std::sin(headingRad_), cosH = std::cos(headingRad_);
  const double sign = index % 2 ? -1.0 : 1.0;
  const double offset = (double(index) - 0.5 * double(config_.lines - 1)) * config_.lineSpacing;
  const double length = config_.speed * lineSeconds();
  FlightLine l;
  l.startTime = gpsStart_ + double(index) * (lineSeconds() + config_.turnSeconds);
  l.along = {sign * sinH, sign * cosH, 0.0};
  l.across = {sign * cosH, -sign * sinH, 0.0};
  const double cx = centreX_ + cosH * offset, cy = centreY_ - sinH * offset;
  l.start = {cx - l.along.x * 0.5 * length, cy - l.along.y * 0.5 * length,
             groundLevel_ + config_.altitude};
  return l;
}

// Nominal spacing plus a jitter drawn per shot: the modulation that tells zones apart.
double Survey::shotTime(std::uint64_t k) const {
  const double nominal = 1.0 / config_.pulseRate;
  const std::uint64_t lineIndex = firstLine_ + k / shotsPerLine_, inLine = k % shotsPerLine_;
  const double jitter = (uniformAt(config_.seed, k, 1) - 0.5) * 2.0 * config_.ppmSpread * nominal;
  return gpsStart_ + double(lineIndex) * (lineSeconds() + config_.turnSeconds) +
         double(slotInLine(inLine)) * nominal + jitter;
}

Shot Survey::shot(std::uint64_t k) const {
  const FlightLine l = line(firstLine_ + std::uint32_t(k / shotsPerLine_));
  const double t = shotTime(k);
  const double elapsed = t - l.startTime;
  const double travelled = config_.speed * elapsed;
  Shot s{t, {l.start.x + l.along.x * travelled, l.start.y + l.along.y * travelled, l.start.z}, {}};
  aimBeam(l, elapsed, slotInLine(k % shotsPerLine_), s);
  return s;
}

// Line-wise: the angle sweeps across track over the field of view, goes on past it in the
// gap, then jumps back. Radial: a cone around nadir.
void Survey::aimBeam(const FlightLine& l, double elapsed, std::uint64_t slot, Shot& s) const {
  // Measured from the start of the shot's own scan line, so that a shot fired early by its
  // jitter does not wrap round to the end of the previous line.
  const auto lineStart = double(slot - slot % periodSlots_);
  const double phase = (elapsed * config_.pulseRate - lineStart) / double(periodSlots_);
  if (config_.pattern == Pattern::LineWise) {
    const double a = config_.maxScanAngle;
    const double viewShare = double(periodSlots_ - gapSlots_) / double(periodSlots_);
    const double angle = -a + 2.0 * a * phase / viewShare;
    const double across = std::sin(angle);
    s.direction = {l.across.x * across, l.across.y * across, -std::cos(angle)};
    s.inView = slot % periodSlots_ < periodSlots_ - gapSlots_;
  } else {
    const double a = config_.coneHalfAngle, turn = 2.0 * std::numbers::pi * phase;
    const double across = std::sin(a) * std::cos(turn), along = std::sin(a) * std::sin(turn);
    s.direction = {l.across.x * across + l.along.x * along, l.across.y * across + l.along.y * along,
                   -std::cos(a)};
  }
}

// Hills, a cliff, a block of buildings, a lake and a forest; or the gridded terrain.
double Survey::terrainHeight(double x, double y) const {
  if (config_.terrain) return config_.terrain->height(x, y);
  double h = 20.0 * std::sin(x / 90.0) * std::cos(y / 120.0) + 10.0 * std::sin(y / 37.0 + 1.0);
  if (x > 120.0) h += 60.0;                    // cliff along the track
  if (inBuilding(x, y)) h += kBuildingHeight;  // flat-roofed buildings with vertical walls
  return h;
}

// Where the beam meets the surface: fixed-point iteration on the range, which settles within
// a few steps on smooth ground; at walls it does not, and the beam is marched from above the
// highest point of the scene instead, so it stops at the first surface it meets.
double Survey::rangeToSurface(const Shot& s) const {
  const auto& d = s.direction;
  double range = (s.origin.z - terrainHeight(s.origin.x, s.origin.y)) / -d.z;
  for (int i = 0; i < 12; ++i) {
    const double x = s.origin.x + d.x * range, y = s.origin.y + d.y * range;
    const double next = (s.origin.z - terrainHeight(x, y)) / -d.z;
    const bool settled = std::fabs(next - range) < 1e-4;
    range = next;
    if (settled) return range;
  }
  return marchToSurface(s);
}

double Survey::marchToSurface(const Shot& s) const {
  const auto& d = s.direction;
  const double highest = config_.terrain ? config_.terrain->highestHeight() : kHighestProcedural;
  auto above = [&](double t) {
    return s.origin.z + d.z * t > terrainHeight(s.origin.x + d.x * t, s.origin.y + d.y * t);
  };
  constexpr double kStep = 0.25;  // m along the beam: finer than any wall or cell
  double low = std::max(0.0, (s.origin.z - highest) / -d.z), high = low + kStep;
  while (above(high) && high < 1.0e5) low = high, high += kStep;
  for (int i = 0; i < 40; ++i) {
    const double mid = 0.5 * (low + high);
    (above(mid) ? low : high) = mid;
  }
  return high;
}

// Water mirrors the beam away: mostly no return at all, else a weak one.
void Survey::waterReturn(double range, double u, std::vector<Return>& out) {
  if (u < 0.3) out.push_back({range, 0.05, Target::Water});
}

// Over a terrain file each cell gives one echo from the surface its points are classed as.
void Survey::terrainReturn(Surface surface, double range, double u, std::vector<Return>& out) {
  switch (surface) {
    case Surface::Water:
      return waterReturn(range, u, out);
    case Surface::Building:
      return out.push_back({range, 0.6, Target::Building});
    case Surface::Vegetation:
      return out.push_back({range, 0.3, Target::Vegetation});
    case Surface::Ground:
      return out.push_back({range, 0.25 + 0.2 * u, Target::Ground});
  }
}

std::vector<Return> Survey::returns(std::uint64_t k) const {
  std::vector<Return> out;
  returns(k, shot(k), out);
  return out;
}

void Survey::returns(std::uint64_t k, const Shot& s, std::vector<Return>& out) const {
  out.clear();
  if (!s.inView) return;
  const auto& d = s.direction;
  const double range = rangeToSurface(s);
  surfaceReturns(k, s.origin.x + d.x * range, s.origin.y + d.y * range, range, out);
  addOffSurfaceEchoes(k, range, out);
  std::sort(out.begin(), out.end(),
            [](const Return& a, const Return& b) { return a.range < b.range; });
}

void Survey::surfaceReturns(std::uint64_t k, double x, double y, double range,
                            std::vector<Return>& out) const {
  const double u = uniformAt(config_.seed, k, 2);
  if (config_.terrain) return terrainReturn(config_.terrain->surface(x, y), range, u, out);
  const bool water = x > -60.0 && x < 40.0 && std::fmod(std::fabs(y), 400.0) < 150.0;
  const bool forest = x > 160.0 && x < 300.0;
  const bool building = inBuilding(x, y);
  if (water) {
    waterReturn(range, u, out);
  } else if (forest && u < 0.7) {
    const double canopy = 8.0 + 10.0 * uniformAt(config_.seed, k, 3);
    out.push_back({range - canopy, 0.3, Target::Vegetation});
    if (u < 0.5) out.push_back({range, 0.2, Target::Ground});
  } else {
    out.push_back({range, building ? 0.6 : 0.35, building ? Target::Building : Target::Ground});
  }
}

// A bird near the aircraft, and dust anywhere between it and the surface.
void Survey::addOffSurfaceEchoes(std::uint64_t k, double surfaceRange,
                                 std::vector<Return>& out) const {
  const std::uint64_t seed = config_.seed;
  if (uniformAt(seed, k, kBirdPurpose) < 0.002)
    out.push_back({40.0 + 60.0 * uniformAt(seed, k, kBirdRangePurpose), 0.5, Target::Bird});
  const double farthest = surfaceRange - kDustClearance;
  if (farthest > kDustNearest && uniformAt(seed, k, kDustPurpose) < config_.dustShare)
    out.push_back({kDustNearest + (farthest - kDustNearest) * uniformAt(seed, k, kDustRangePurpose),
                   0.05 + 0.25 * uniformAt(seed, k, kDustReflectivityPurpose), Target::Dust});
}

std::uint64_t Survey::recordingShot(std::uint64_t k, double arrival) const {
  std::uint64_t j = k;
  while (j + 1 < config_.shots && shotTime(j + 1) <= arrival) ++j;
  return j;
}

std::uint32_t Survey::deepestZone() const {
  const double lowest = config_.terrain ? config_.terrain->lowestHeight() : -40.0;
  const double height = groundLevel_ + config_.altitude - lowest;
  const double offNadir =
      config_.pattern == Pattern::LineWise ? config_.maxScanAngle : config_.coneHalfAngle;
  const double range = height / std::max(std::cos(offNadir), 0.05) + 50.0;
  return std::uint32_t(std::ceil(2.0 * range / config_.lightSpeed * config_.pulseRate *
                                 (1.0 + config_.ppmSpread))) +
         1;
}

std::uint32_t Survey::fragmentCount() const {
  return std::uint32_t((config_.shots + config_.fragmentShots - 1) / config_.fragmentShots);
}

}  // namespace quillo::sim
