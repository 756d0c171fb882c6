#include "support/ResultBundles.hpp"

#include "support/Arrays.hpp"

namespace quillo::test {

using Gemwold::PhysicalSpace::point;
using Gemwold::PhysicalSpace::vector;

std::uint16_t resultSample(std::size_t f, std::size_t k, std::size_t s) {
  return static_cast<std::uint16_t>(1000 * f + 100 * k + s);
}

namespace {

template <class T, class Get>
void column(Tessal::Representation& rep, const std::string& name, const std::string& frag,
            const std::vector<ResultPoint>& pts, Get get) {
  std::vector<T> values;
  for (const auto& p : pts) values.push_back(static_cast<T>(get(p)));
  storeFragment(rep, name, frag, makeArray<T>(values));
}

void addFragment(Tessal::Representation& rep, const ResultRecipe& recipe, std::size_t f) {
  const auto& pts = recipe.fragments[f];
  const std::string frag = "Fragment_" + std::to_string(f);
  column<double>(rep, "GPSTime", frag, pts, [](auto& p) { return p.time; });
  column<point>(rep, "Positions", frag, pts, [](auto& p) { return point{p.x, p.y, p.z}; });
  column<int>(rep, "WaveID", frag, pts, [](auto& p) { return p.waveId; });
  column<unsigned char>(rep, "MTA", frag, pts, [](auto& p) { return p.mta; });
  column<unsigned char>(rep, "ScannerChannel", frag, pts, [](auto& p) { return p.channel; });
  column<float>(rep, "Amplitude", frag, pts, [](auto& p) { return p.amplitude; });
  column<double>(rep, "Range", frag, pts, [](auto& p) { return p.range; });
  if (recipe.withPulseWidth)
    column<double>(rep, "PulseWidth", frag, pts, [](auto& p) { return p.pulseWidth; });
  column<float>(rep, "Damping", frag, pts, [](auto& p) { return p.damping; });
  column<unsigned char>(rep, "Classification", frag, pts, [](auto& p) { return p.classification; });
  column<unsigned char>(rep, "PointType", frag, pts, [](auto&) { return 0; });
  column<vector>(rep, "Waveforms.DirectionDelta", frag, pts, [](auto& p) {
    return vector{p.step[0], p.step[1], p.step[2]};
  });
  column<unsigned char>(rep, "ReturnNumber", frag, pts, [](auto& p) { return p.returnNumber; });
  column<unsigned char>(rep, "NumberOfReturns", frag, pts,
                        [](auto& p) { return p.numberOfReturns; });
  column<short>(rep, "ScanAngleRank", frag, pts, [](auto& p) { return p.scanAngle; });
  column<float>(rep, "Reflectance", frag, pts, [](auto& p) { return p.reflectance; });
  column<unsigned>(rep, "PointID", frag, pts, [](auto&) { return 0u; });
  if (recipe.waveSamples == 0) return;
  auto waves = Vorlap::makeStrong<Tessal::MemArray<2, unsigned short>>(
      Tessal::MemArray<2, unsigned short>::Extents{recipe.waveSamples, pts.size()});
  for (std::size_t k = 0; k < pts.size(); ++k)
    for (std::size_t s = 0; s < recipe.waveSamples; ++s)
      waves->set(k * recipe.waveSamples + s, resultSample(f, k, s));
  storeFragment(rep, "Waveforms", frag, waves);
  column<float>(rep, "WaveformPositionIndex", frag, pts, [](auto& p) { return p.wavePosition; });
  column<unsigned short>(rep, "FWFLength", frag, pts, [&](auto&) { return recipe.waveSamples; });
}

void addMapChart(Tessal::Grid& grid, const ResultRecipe& recipe) {
  auto map = grid.makeCartesianRepresentation(3, "StandardCartesianChart3D", 0);
  const double d = recipe.mapShift.value_or(0.0);
  const std::array<double, 12> m =
      recipe.scannerToMap.value_or(std::array<double, 12>{1, 0, 0, d, 0, 1, 0, d, 0, 0, 1, d});
  for (std::size_t f = 0; f < recipe.fragments.size(); ++f)
    column<point>(*map, "Positions", "Fragment_" + std::to_string(f), recipe.fragments[f],
                  [&m](auto& p) {
                    return point{m[0] * p.x + m[1] * p.y + m[2] * p.z + m[3],
                                 m[4] * p.x + m[5] * p.y + m[6] * p.z + m[7],
                                 m[8] * p.x + m[9] * p.y + m[10] * p.z + m[11]};
                  });
  if (recipe.scannerToMap)
    grid.attributes().setAttribute(
        "ScannerToMap", Vorlap::makeChunk<double>(std::vector<double>(m.begin(), m.end())));
}

}  // namespace

Tessal::BundlePtr makeResult(const ResultRecipe& recipe) {
  auto bundle = Tessal::BundlePtr::make();
  auto grid = (*bundle.create())[0.0]->makeGrid("FWF");
  auto rep = grid->makeCartesianRepresentation(3, "ScannerCoordinateSystem", 0);
  for (std::size_t f = 0; f < recipe.fragments.size(); ++f) addFragment(*rep, recipe, f);
  if (recipe.weekNumber)
    grid->attributes().setAttribute("WeekNumber",
                                    Vorlap::makeChunk<unsigned>({*recipe.weekNumber}));
  if (recipe.waveSamples)
    rep->findFieldByName("Waveforms")
        ->attributes()
        .setAttribute("WaveformSampleInterval", Vorlap::makeChunk<double>({recipe.sampleInterval}));
  if (recipe.mapShift || recipe.scannerToMap) addMapChart(*grid, recipe);
  if (!recipe.coordinateSystem.empty())
    grid->attributes().setAttribute("CoordinateSystem",
                                    Vorlap::makeChunk<std::string>({recipe.coordinateSystem}));
  return bundle;
}

}  // namespace quillo::test
