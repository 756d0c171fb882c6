#include "waveform/PeakSettings.hpp"

#include <charconv>
#include <cmath>
#include <fstream>
#include <map>
#include <set>

namespace FullWaveform {

namespace {

struct Key {
  double* value;
  int* whole;
  double low, high;
};

std::map<std::string, Key> keysOf(PeakSettings& s) {
  return {{"threshold", {&s.thresholdSigmas, nullptr, 0.5, 100}},
          {"minimum_threshold", {&s.minimumThreshold, nullptr, 0, 65535}},
          {"max_echoes", {nullptr, &s.maxEchoes, 1, 64}},
          {"reference_pulse_width", {&s.referencePulseWidth, nullptr, 1e-11, 1e-6}},
          {"min_pulse_width", {&s.minPulseWidth, nullptr, 1e-12, 1e-6}},
          {"max_pulse_width", {&s.maxPulseWidth, nullptr, 1e-11, 1e-5}},
          {"fit_max_iterations", {nullptr, &s.fitMaxIterations, 0, 1000}},
          {"saturation_level", {&s.saturationLevel, nullptr, 0, 65535}},
          {"min_separation", {&s.minSeparation, nullptr, 0, 1e-6}}};
}

std::string trim(const std::string& s) {
  const auto b = s.find_first_not_of(" \t\r");
  if (b == std::string::npos) return "";
  return s.substr(b, s.find_last_not_of(" \t\r") - b + 1);
}

std::string applyLine(const std::string& line, std::map<std::string, Key>& keys,
                      std::set<std::string>& seen) {
  const auto eq = line.find('=');
  if (eq == std::string::npos) return "expected \"key = value\"";
  const std::string key = trim(line.substr(0, eq)), text = trim(line.substr(eq + 1));
  auto k = keys.find(key);
  if (k == keys.end()) return "unknown key \"" + key + "\"";
  if (!seen.insert(key).second) return "\"" + key + "\" is given twice";
  double v = 0;
  auto r = std::from_chars(text.data(), text.data() + text.size(), v);
  if (text.empty() || r.ec != std::errc() || r.ptr != text.data() + text.size() ||
      !std::isfinite(v))
    return "\"" + text + "\" is not a number";
  if (v < k->second.low || v > k->second.high) return "\"" + key + "\" is out of range";
  if (k->second.whole) {
    if (v != std::floor(v)) return "\"" + key + "\" must be a whole number";
    *k->second.whole = int(v);
  } else {
    *k->second.value = v;
  }
  return "";
}

}  // namespace

std::string readPeakSettings(const std::filesystem::path& path, PeakSettings& settings) {
  std::ifstream in(path);
  if (!in) return "peak detection settings " + path.string() + ": cannot be read";
  auto keys = keysOf(settings);
  std::set<std::string> seen;
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    line = trim(line.substr(0, line.find('#')));
    if (line.empty()) continue;
    const std::string problem = applyLine(line, keys, seen);
    if (!problem.empty())
      return "peak detection settings " + path.string() + ", line " + std::to_string(number) +
             ": " + problem;
  }
  if (settings.minPulseWidth >= settings.maxPulseWidth)
    return "peak detection settings " + path.string() +
           ": min_pulse_width must be below max_pulse_width";
  return "";
}

}  // namespace FullWaveform
