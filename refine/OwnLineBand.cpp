// Own-line band: the part of a scan line's echoes at one scan angle that the own-line tests
// (lone echoes, second echoes) take as the surface there. Reads the echoes' distances along
// the beam; gives the stretch they span. Where birds and dust are dense (dust on one shot in a
// hundred), one of them among a line's echoes at a scan angle stretches their spread over
// tens of metres, and any dust echo lies "among the line's echoes". One surface's echoes lie
// within a few metres along the beam: where all but a tenth of them do, the band they fill
// is the spread, and the few outside it are birds and dust. Canopy spreads its line's echoes
// over the height of the crowns and keeps the whole spread; so does a sparse canopy, whose
// crowns hold more than a tenth of its line's echoes.
#include <algorithm>
#include <cmath>

#include "refine/Refiner.hpp"

namespace FullWaveform::surface_fit {

namespace {
constexpr double kSurfaceShare = 0.9;  // of the line's echoes, that lie on one surface
}  // namespace

AlongSpan surfaceBand(double* along, int count, double width) {
  if (count == 0) return {INFINITY, -INFINITY};
  std::sort(along, along + count);
  const AlongSpan all{along[0], along[count - 1]};
  const int inBand = int(std::ceil(kSurfaceShare * count - 1e-9));
  AlongSpan best = all;
  for (int k = 0; k + inBand <= count; ++k)
    if (along[k + inBand - 1] - along[k] < best.hi - best.lo)
      best = {along[k], along[k + inBand - 1]};
  return width > 0.0 && best.hi - best.lo <= width ? best : all;
}

}  // namespace FullWaveform::surface_fit
