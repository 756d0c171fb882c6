// A small healthy survey for the bad-input tests, built field by field so that a test can
// damage any one field of any fragment (or leave it out) before the bundle is made, and the
// outcome of a run on it: result text, console messages and the points of both outputs.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "run/Input.hpp"
#include "tessal/Bundle.hpp"

namespace quillo::test {

using Gemwold::PhysicalSpace::point;
using Gemwold::PhysicalSpace::vector;
using Samples = Vorlap::StrongPtr<Tessal::MemArray<2, std::uint16_t>>;

// Flat ground at z = 0 seen from 1000 m at 1 MHz: every echo lies six shots back (zone 6).
inline constexpr std::uint32_t kShotsPerFragment = 240;
inline constexpr std::uint32_t kTrueZone = 6;

struct FragmentData {
  std::vector<double> shotTimes;
  std::vector<point> positions;
  std::vector<vector> directions;
  std::vector<double> rowTimes, sblTimes;  // grid "Waveforms", one row per shot
  std::vector<std::uint16_t> lengths;
  std::vector<std::uint8_t> rowChannels;
  Samples samples;
  std::vector<double> echoTimes, ranges;  // grid "OPP", one record per shot
  std::vector<float> amplitudes, reflectances;
  std::vector<std::uint8_t> echoChannels;
  // Fields ("Grid/Field") this fragment leaves out, and arrays stored in place of the above.
  std::set<std::string> omitted;
  std::map<std::string, Vorlap::StrongPtr<Tessal::MemBase>> replaced;
};

struct Survey {
  std::vector<FragmentData> fragments;
  std::vector<std::uint32_t> numbers;  // fragment numbers of the names; default 0, 1, ...
  bool waveforms = true, online = true;
  // Changes to the scanner attributes: called with the "Shots" and "Waveforms" grids.
  std::function<void(Tessal::Grid& shots, Tessal::Grid& waveforms)> attributes;
};

// Three healthy fragments; the same seed gives the same survey.
Survey healthySurvey(std::uint64_t seed = 7);
Tessal::BundlePtr makeBundle(const Survey& survey);

struct OutputPoint {
  double time, range;
  point position;
  std::uint8_t zone;
};

struct Outcome {
  std::string result;
  std::string console;                                     // every console message, one per line
  std::map<std::string, std::vector<OutputPoint>> points;  // by fragment name, both outputs
  std::size_t count(const std::string& fragment) const;
  std::size_t total() const;
  // Points that are not where the ground is: not finite, off the ground, or of another zone.
  std::size_t misplaced() const;
};

// Runs the module on the bundle into two fresh output grids.
Outcome runModule(Tessal::BundlePtr bundle, FullWaveform::Input input = {});

}  // namespace quillo::test
