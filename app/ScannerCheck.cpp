// Input check, scanner attributes of "Shots" (and "SampleInterval" of "Waveforms"): required
// ones present, every one of a usable type and a plausible value, the pulse rate matching
// the shot times, the defaults that stand in for missing ones, and the zones the flying
// height implies. Attributes it does not know are left alone.
#include <algorithm>
#include <cmath>

#include "app/CliError.hpp"
#include "app/InputCheckSteps.hpp"
#include "vorlap/NumberText.hpp"
#include "waveform/ScannerDevice.hpp"

namespace quillo::cli {

namespace A = FullWaveform::ScannerAttribute;
using namespace schema;

namespace {

constexpr double kLowestRate = 1.0e3, kHighestRate = 1.0e7;           // Hz
constexpr double kShortestSample = 1.0e-12, kLongestSample = 1.0e-6;  // s
constexpr double kSlowestLight = 2.9e8, kFastestLight = 3.0e8;        // m/s

std::string number(double v) {
  return Vorlap::shortestText(v);
}

class AttributeCheck {
 public:
  AttributeCheck(const Tessal::Grid& grid, CheckReport& report) : grid_(grid), report_(report) {}

  std::string where(const char* name) const {
    return std::string("attribute \"") + name + "\" of grid \"" + grid_.getName() + "\"";
  }
  bool present(const char* name) const { return !grid_.attributes().getAttribute(name).isEmpty(); }

  // The first value of a number attribute (any integer or float type); false when absent or
  // not a number, which is reported.
  bool number(const char* name, double& out) {
    auto chunk = grid_.attributes().getAttribute(name);
    if (!chunk) return false;
    if (chunk->size() == 0) return error(name, "is empty", "give it one value");
    if (!Vorlap::firstNumberOf(chunk, out))
      return error(name, "is a text, not a number", "write it as a number");
    return true;
  }

  bool error(const char* name, const std::string& what, const std::string& fix) {
    report_.add(Severity::Error, where(name), what, fix);
    return false;
  }
  void defaulted(const char* name, const std::string& value) {
    report_.add(Severity::Default, where(name), "is not set: " + value + " is used");
  }

  // A number that must lie in [lo, hi] when set; `fallback` is announced when it is not.
  void ranged(const char* name, double lo, double hi, const std::string& unit,
              const std::string& fallback) {
    double v = 0.0;
    if (!present(name)) {
      if (!fallback.empty()) defaulted(name, fallback);
      return;
    }
    if (number(name, v) && !(v >= lo && v <= hi))
      error(name,
            "is " + quillo::cli::number(v) + ", outside " + quillo::cli::number(lo) + " to " +
                quillo::cli::number(hi),
            "give it in " + unit);
  }

 private:
  const Tessal::Grid& grid_;
  CheckReport& report_;
};

double median(std::vector<double> values) {
  if (values.empty()) return 0.0;
  auto mid = values.begin() + values.size() / 2;
  std::nth_element(values.begin(), mid, values.end());
  return *mid;
}

void checkPulseRate(AttributeCheck& a, const ShotFigures& figures, double& rate) {
  if (!a.present(A::PulseRepetitionRate)) {
    a.error(A::PulseRepetitionRate, "is missing", "give the scanner's pulse rate in Hz");
    return;
  }
  if (!a.number(A::PulseRepetitionRate, rate)) return;
  if (!(rate >= kLowestRate && rate <= kHighestRate)) {
    a.error(
        A::PulseRepetitionRate,
        "is " + number(rate) + ", outside " + number(kLowestRate) + " to " + number(kHighestRate),
        "give the pulse rate in Hz (1 MHz is 1000000)");
    rate = 0.0;
    return;
  }
  // Pulse-position modulation moves shots by a few percent, never by half an interval.
  const double step = median(figures.shotSteps);
  if (step > 0.0 && !(step * rate > 0.5 && step * rate < 2.0))
    a.error(A::PulseRepetitionRate,
            "is " + number(rate) + " Hz, but the shots are " + number(step) + " s apart (" +
                number(1.0 / step) + " Hz)",
            "give the rate in Hz and the shot times in s");
}

void checkSampleInterval(const InputGrids& grids, AttributeCheck& shots, CheckReport& report) {
  if (!grids.waveforms) return;
  AttributeCheck waves(*grids.waveforms, report);
  AttributeCheck& holder = waves.present(A::SampleInterval) ? waves : shots;
  if (!holder.present(A::SampleInterval)) {
    waves.error(A::SampleInterval, "is missing", "give the time between two samples in s");
    return;
  }
  holder.ranged(A::SampleInterval, kShortestSample, kLongestSample, "s (1 ns is 1e-9)", "");
}

void checkScanPattern(AttributeCheck& a, const Tessal::Grid& shots) {
  if (!a.present(A::ScanPattern)) {
    a.error(A::ScanPattern,
            "is missing: the run cannot split the points between its two outputs without it",
            "set it to \"line-wise\" or \"radial\"");
    return;
  }
  auto text = shots.attributes().getAttributeAs<std::string>(A::ScanPattern);
  if (!text || text->size() == 0) {
    a.error(A::ScanPattern, "is not a text", "set it to \"line-wise\" or \"radial\"");
    return;
  }
  std::string value = (*text)[0];
  std::transform(value.begin(), value.end(), value.begin(), ::tolower);
  if (value != "line-wise" && value != "radial")
    a.error(A::ScanPattern, "is \"" + (*text)[0] + "\"", "set it to \"line-wise\" or \"radial\"");
}

void checkBlockSize(AttributeCheck& a) {
  double block = 0.0;
  if (!a.present(A::BlockSize)) return a.defaulted(A::BlockSize, "200 waves");
  if (a.number(A::BlockSize, block) && !(block >= 1 && block <= 1e7 && block == std::floor(block)))
    a.error(A::BlockSize, "is " + number(block), "give a whole number from 1 to 10000000");
}

void checkReflectanceTable(AttributeCheck& a, const Tessal::Grid& shots) {
  if (!a.present(A::ReflectanceTable)) return;
  auto chunk = shots.attributes().getAttribute(A::ReflectanceTable);
  if (chunk->type() != Vorlap::ChunkType::Float && chunk->type() != Vorlap::ChunkType::Double)
    a.error(A::ReflectanceTable, "is not an array of floats", "write it as float32 or float64");
  else if (chunk->size() > 0)
    a.ranged(A::ReflectanceTableStep, 1e-6, 1e3, "m", "0.1373470495519926 m");
}

// The run reads the segment as a signed integer only; stored otherwise it is passed over.
void checkSegment(AttributeCheck& a, const Tessal::Grid& shots) {
  constexpr const char* kSegment = "RDB_Segment";
  if (!a.present(kSegment)) return;
  auto segment = shots.attributes().getAttributeAs<int>(kSegment);
  if (!segment || segment->size() == 0)
    a.error(kSegment, "is not a signed integer: the run would ignore it",
            "store it as a signed integer (0 or 1)");
  else if ((*segment)[0] < -1 || (*segment)[0] > 1)
    a.error(kSegment, "is " + std::to_string((*segment)[0]), "give the data segment, 0 or 1");
}

void noteZones(const ShotFigures& figures, double rate, double lightSpeed, CheckReport& report) {
  if (!figures.any || rate <= 0.0) return;
  const double zoneLength = lightSpeed * 0.5 / rate;  // one-way range of one zone, m
  auto zone = [&](double h) {
    return static_cast<long>(std::floor(std::max(h, 0.0) / zoneLength));
  };
  const std::string where = "grid \"Shots\"";
  const std::string what =
      "beam origins at heights " + number(std::round(figures.lowest)) + " to " +
      number(std::round(figures.highest)) + " m above the map's zero imply zones from " +
      std::to_string(zone(figures.lowest)) + " to " + std::to_string(zone(figures.highest)) +
      " (one zone is " + number(std::round(zoneLength * 10) / 10) + " m)";
  if (zone(figures.highest) >= kZonesSearched)
    report.add(Severity::Warning, where,
               what + "; the run looks for echoes up to zone " + std::to_string(kZonesSearched - 1),
               "check the pulse rate, and the heights (or ScannerToMap)");
  else
    report.add(Severity::Note, where, what);
}

}  // namespace

void checkScanner(const InputGrids& grids, const ShotFigures& figures, CheckReport& report) {
  if (!grids.shots) return;
  AttributeCheck a(*grids.shots, report);
  double rate = 0.0, lightSpeed = FullWaveform::ScannerDevice().lightSpeed;
  checkPulseRate(a, figures, rate);
  if (!a.present(A::LightSpeed))
    a.defaulted(A::LightSpeed, number(lightSpeed) + " m/s");
  else if (a.number(A::LightSpeed, lightSpeed) &&
           !(lightSpeed >= kSlowestLight && lightSpeed <= kFastestLight))
    a.error(A::LightSpeed, "is " + number(lightSpeed), "give the speed of light in air in m/s");
  checkSampleInterval(grids, a, report);
  const FullWaveform::ScannerDevice defaults;
  a.ranged(A::MinAmplitude, -1e9, 1e9, "counts", number(defaults.minAmplitude) + " counts");
  a.ranged(A::MinTimeOffset, 0.0, 1e-3, "s", number(defaults.minTimeOffset) + " s");
  checkBlockSize(a);
  checkScanPattern(a, *grids.shots);
  checkReflectanceTable(a, *grids.shots);
  checkSegment(a, *grids.shots);
  noteZones(figures, rate, lightSpeed, report);
}

}  // namespace quillo::cli
