#include "support/InputBundles.hpp"

#include "support/Arrays.hpp"
#include "waveform/ScannerDevice.hpp"

namespace quillo::test {

using namespace Gemwold::PhysicalSpace;
using Vorlap::makeChunk;
using Vorlap::StrongPtr;

namespace {
std::string nameOf(std::uint32_t frag) {
  return "Fragment_" + std::to_string(frag);
}

template <class T>
std::vector<T> orDefault(const std::vector<T>& v, std::size_t n, T fallback) {
  return v.empty() ? std::vector<T>(n, fallback) : v;
}
}  // namespace

StrongPtr<Tessal::Representation> gridRepresentation(Tessal::BundlePtr& bundle,
                                                     const std::string& grid) {
  auto g = (*bundle.create())[0.0]->makeGrid(grid);
  return g->makeCartesianRepresentation(3, "ScannerCoordinateSystem", 0);
}

Tessal::BundlePtr makeShotsBundle(const std::vector<ShotFragment>& fragments, double pulseRate) {
  auto bundle = Tessal::BundlePtr::make();
  auto rep = gridRepresentation(bundle, "Shots");
  auto shots = (*(*bundle.create())[0.0])("Shots");
  namespace A = FullWaveform::ScannerAttribute;
  if (pulseRate > 0)
    shots->attributes().setAttribute(A::PulseRepetitionRate, makeChunk<double>({pulseRate}));
  shots->attributes().setAttribute(A::ScanPattern, makeChunk<std::string>({"line-wise"}));
  for (std::uint32_t f = 0; f < fragments.size(); ++f) {
    const auto& times = fragments[f].times;
    std::vector<point> positions;
    std::vector<vector> directions;
    for (std::size_t k = 0; k < times.size(); ++k) {
      positions.push_back({0.0, 0.0, 500.0 + double(k)});
      directions.push_back(k < fragments[f].directions.size() ? fragments[f].directions[k]
                                                              : vector{0.0, 0.0, -1.0});
    }
    storeFragment(*rep, "GPSTime", nameOf(f), makeArray(times));
    storeFragment(*rep, "Positions", nameOf(f), makeArray(positions));
    storeFragment(*rep, "Waveforms.DirectionDelta", nameOf(f), makeArray(directions));
  }
  return bundle;
}

void addWaveformFragment(Tessal::BundlePtr& bundle, std::uint32_t frag, const WaveformFragment& w) {
  auto rep = gridRepresentation(bundle, "Waveforms");
  auto grid = (*(*bundle.create())[0.0])("Waveforms");
  grid->attributes().setAttribute(FullWaveform::ScannerAttribute::SampleInterval,
                                  makeChunk<double>({1.0e-9}));
  const std::size_t rows = w.times.size();
  auto samples = Vorlap::makeStrong<Tessal::MemArray<2, std::uint16_t>>(
      Tessal::MemArray<2, std::uint16_t>::Extents{w.samples, rows});
  storeFragment(*rep, "GPSTime", nameOf(frag), makeArray(w.times));
  storeFragment(*rep, "FWFLength", nameOf(frag),
                makeArray(orDefault<std::uint16_t>(w.lengths, rows, std::uint16_t(w.samples))));
  storeFragment(*rep, "Waveforms", nameOf(frag), samples);
  storeFragment(*rep, "Channel", nameOf(frag),
                makeArray(orDefault<std::uint8_t>(w.channels, rows, 1)));
  storeFragment(*rep, "SBL_Time", nameOf(frag),
                makeArray(orDefault<double>(w.sblTimes, rows, 0.0)));
}

void addOnlineFragment(Tessal::BundlePtr& bundle, std::uint32_t frag, const OnlineFragment& o) {
  auto rep = gridRepresentation(bundle, "OPP");
  const std::size_t n = o.times.size();
  storeFragment(*rep, "GPSTime", nameOf(frag), makeArray(o.times));
  storeFragment(*rep, "Range", nameOf(frag), makeArray(orDefault<double>(o.ranges, n, 450.0)));
  storeFragment(*rep, "Amplitude", nameOf(frag),
                makeArray(orDefault<float>(o.amplitudes, n, 100.f)));
  storeFragment(*rep, "Channel", nameOf(frag),
                makeArray(orDefault<std::uint8_t>(o.channels, n, 1)));
  if (o.withReflectance)
    storeFragment(*rep, "Reflectance", nameOf(frag), makeArray(std::vector<float>(n, -5.0f)));
}

}  // namespace quillo::test
