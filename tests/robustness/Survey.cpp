#include "robustness/Survey.hpp"

#include <cmath>
#include <random>

#include "run/Quillo.hpp"
#include "store/FatBoy.hpp"
#include "support/Arrays.hpp"
#include "support/SyntheticWaveforms.hpp"
#include "vorlap/Console.hpp"
#include "waveform/ScannerDevice.hpp"

namespace quillo::test {

namespace {

constexpr double kLightSpeed = 299702547.0;
constexpr double kShotInterval = 1.0e-6;
constexpr double kSampleInterval = 4.0e-9;
constexpr double kFirstSample = 0.55e-6;  // SBL_Time of every row
constexpr double kAltitude = 1000.0;
constexpr std::uint32_t kSamples = 128;
constexpr std::uint32_t kShotsPerLine = 80;

double scanAngleOf(std::uint64_t shot) {
  return -0.3 + 0.6 * double(shot % kShotsPerLine) / double(kShotsPerLine - 1);
}

// Shot times with pulse-position modulation (a few per cent of jitter): without it no zone
// could be told from another.
std::vector<double> shotTimesOf(std::size_t count, std::uint64_t seed) {
  std::mt19937_64 random(seed);
  std::uniform_real_distribution<double> jitter(-0.03 * kShotInterval, 0.03 * kShotInterval);
  std::vector<double> times;
  for (std::size_t g = 0; g < count; ++g)
    times.push_back(1000.0 + double(g) * kShotInterval + jitter(random));
  return times;
}

// Time from recording shot g to the ground echo of the shot kTrueZone shots earlier.
double echoDelay(const std::vector<double>& times, std::uint64_t g) {
  const std::uint64_t emitting = g - kTrueZone;
  const double range = kAltitude / std::cos(scanAngleOf(emitting));
  return 2.0 * range / kLightSpeed - (times[g] - times[emitting]);
}

FragmentData healthyFragment(std::uint32_t f, const std::vector<double>& times,
                             std::uint64_t seed) {
  FragmentData d;
  std::vector<SyntheticRow> rows;
  for (std::uint32_t k = 0; k < kShotsPerFragment; ++k) {
    const std::uint64_t g = std::uint64_t(f) * kShotsPerFragment + k;
    const double a = scanAngleOf(g);
    d.shotTimes.push_back(times[g]);
    d.positions.push_back({0.0, 0.05 * double(g), kAltitude});
    d.directions.push_back({std::sin(a), 0.0, -std::cos(a)});
    SyntheticRow row;
    double delay = 0.0;
    if (g >= kTrueZone) {
      delay = echoDelay(times, g);
      row.echoes.push_back({(delay - kFirstSample) / kSampleInterval, 400.0, 2.0});
    }
    rows.push_back(row);
    d.rowTimes.push_back(d.shotTimes.back());
    d.sblTimes.push_back(kFirstSample);
    d.lengths.push_back(kSamples);
    d.rowChannels.push_back(1);
    if (g >= kTrueZone) {
      d.echoTimes.push_back(d.shotTimes.back());
      d.ranges.push_back(delay * kLightSpeed * 0.5);
      d.amplitudes.push_back(120.0f);
      d.reflectances.push_back(-4.0f);
      d.echoChannels.push_back(1);
    }
  }
  SyntheticSettings settings;
  settings.samples = kSamples;
  d.samples = renderRows(rows, settings, seed * 1000 + f);
  return d;
}

class FragmentWriter {
 public:
  FragmentWriter(Tessal::BundlePtr& bundle, const FragmentData& d, const std::string& name)
      : bundle_(bundle), d_(d), name_(name) {}

  template <class A>
  void store(const std::string& grid, const std::string& field, const A& array) {
    const std::string key = grid + "/" + field;
    if (d_.omitted.count(key)) return;
    auto rep = (*(*bundle_.create())[0.0])(grid)->makeCartesianRepresentation(
        3, "ScannerCoordinateSystem", 0);
    auto r = d_.replaced.find(key);
    storeFragment(*rep, field, name_, r != d_.replaced.end() ? r->second : array);
  }

 private:
  Tessal::BundlePtr& bundle_;
  const FragmentData& d_;
  std::string name_;
};

void storeFragmentData(Tessal::BundlePtr& bundle, const Survey& s, std::size_t f) {
  const FragmentData& d = s.fragments[f];
  const std::uint32_t number = f < s.numbers.size() ? s.numbers[f] : std::uint32_t(f);
  FragmentWriter w(bundle, d, "Fragment_" + std::to_string(number));
  w.store("Shots", "GPSTime", makeArray(d.shotTimes));
  w.store("Shots", "Positions", makeArray(d.positions));
  w.store("Shots", "Waveforms.DirectionDelta", makeArray(d.directions));
  if (s.waveforms) {
    w.store("Waveforms", "GPSTime", makeArray(d.rowTimes));
    w.store("Waveforms", "FWFLength", makeArray(d.lengths));
    w.store("Waveforms", "Waveforms", d.samples);
    w.store("Waveforms", "Channel", makeArray(d.rowChannels));
    w.store("Waveforms", "SBL_Time", makeArray(d.sblTimes));
  }
  if (s.online) {
    w.store("OPP", "GPSTime", makeArray(d.echoTimes));
    w.store("OPP", "Range", makeArray(d.ranges));
    w.store("OPP", "Amplitude", makeArray(d.amplitudes));
    w.store("OPP", "Channel", makeArray(d.echoChannels));
    w.store("OPP", "Reflectance", makeArray(d.reflectances));
  }
}

template <class T>
std::vector<T> valuesOf(const Tessal::Representation& rep, const std::string& field,
                        const std::string& fragment) {
  std::vector<T> out;
  auto f = rep.findFieldByName(field);
  if (!f) return out;
  auto id = f->getFragmentIDCollection()->findFragmentIDByName(fragment);
  auto creator = id ? f->getCreator(id) : nullptr;
  auto array =
      creator ? Vorlap::dynamicPtrCast<Tessal::MemArray<1, T>>(creator->create()) : nullptr;
  if (array)
    for (std::size_t k = 0; k < array->size(); ++k) out.push_back(array->get(k));
  return out;
}

void collectPoints(const Tessal::Grid& grid, Outcome& outcome) {
  auto rep = grid.getCartesianRepresentation("ScannerCoordinateSystem");
  if (!rep) return;
  auto times = rep->findFieldByName("GPSTime");
  if (!times) return;
  auto ids = times->getFragmentIDCollection();
  for (std::size_t k = 0; k < ids->size(); ++k) {
    const std::string name = ids->at(k)->getName();
    const auto t = valuesOf<double>(*rep, "GPSTime", name);
    const auto r = valuesOf<double>(*rep, "Range", name);
    const auto p = valuesOf<point>(*rep, "Positions", name);
    const auto z = valuesOf<std::uint8_t>(*rep, "MTA", name);
    auto& into = outcome.points[name];
    for (std::size_t i = 0; i < t.size() && i < r.size() && i < p.size() && i < z.size(); ++i)
      into.push_back({t[i], r[i], p[i], z[i]});
  }
}

}  // namespace

Survey healthySurvey(std::uint64_t seed) {
  Survey s;
  const std::vector<double> times = shotTimesOf(3 * kShotsPerFragment, seed);
  for (std::uint32_t f = 0; f < 3; ++f) s.fragments.push_back(healthyFragment(f, times, seed));
  return s;
}

Tessal::BundlePtr makeBundle(const Survey& s) {
  auto bundle = Tessal::BundlePtr::make();
  auto slice = (*bundle.create())[0.0];
  auto shots = slice->makeGrid("Shots");
  namespace A = FullWaveform::ScannerAttribute;
  shots->attributes().setAttribute(A::PulseRepetitionRate, Vorlap::makeChunk<double>({1.0e6}));
  shots->attributes().setAttribute(A::ScanPattern, Vorlap::makeChunk<std::string>({"line-wise"}));
  Tessal::Grid scratch("unused");
  Tessal::Grid* waveforms = &scratch;
  if (s.waveforms) {
    waveforms = slice->makeGrid("Waveforms").get();
    waveforms->attributes().setAttribute(A::SampleInterval,
                                         Vorlap::makeChunk<double>({kSampleInterval}));
  }
  if (s.online) slice->makeGrid("OPP");
  for (std::size_t f = 0; f < s.fragments.size(); ++f) storeFragmentData(bundle, s, f);
  if (s.attributes) s.attributes(*shots, *waveforms);
  return bundle;
}

std::size_t Outcome::count(const std::string& fragment) const {
  auto it = points.find(fragment);
  return it == points.end() ? 0 : it->second.size();
}

std::size_t Outcome::total() const {
  std::size_t n = 0;
  for (const auto& [name, list] : points) n += list.size();
  return n;
}

std::size_t Outcome::misplaced() const {
  std::size_t n = 0;
  for (const auto& [name, list] : points)
    for (const auto& p : list) {
      const bool finite = std::isfinite(p.time) && std::isfinite(p.range) &&
                          std::isfinite(p.position.x) && std::isfinite(p.position.y);
      if (!finite || !(std::fabs(p.position.z) < 3.0) || p.zone != kTrueZone) ++n;
    }
  return n;
}

// What the store's loader says about each fragment (the run itself only says "Broken
// Fragment"), one line each, as a host that asks would show it.
std::string loadProblems(Tessal::BundlePtr& bundle, const FullWaveform::Input& input) {
  FullWaveform::FatBoy<unsigned short> store(bundle, input);
  std::string text;
  for (unsigned f = 0; f < store.nFragments; ++f) {
    store.ini(f);
    if (!store.loadProblem.empty()) text += "\n" + store.loadProblem;
  }
  return text;
}

Outcome runModule(Tessal::BundlePtr bundle, FullWaveform::Input input) {
  Outcome o;
  auto outputs = Tessal::BundlePtr::make();
  auto first = (*outputs.create())[0.0]->makeGrid("First");
  auto second = (*outputs.create())[0.0]->makeGrid("Second");
  // Made up front, as a host may: an output that gets no point still takes the attributes.
  for (const auto& grid : {first, second})
    grid->makeCartesianRepresentation(3, "ScannerCoordinateSystem", 0);
  if (input.inputFileName.empty()) input.inputFileName = "survey_210315_093000.kq";
  {
    Vorlap::ConsoleCapture capture;
    o.result = FullWaveform::Quillo<unsigned short>(bundle, first, second, input);
    o.console = capture.joined();
  }
  o.console += loadProblems(bundle, input);
  collectPoints(*first, o);
  collectPoints(*second, o);
  return o;
}

}  // namespace quillo::test
