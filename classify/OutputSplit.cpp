// Output split. Reads RDB_SEGMENT, the scan pattern and the wave directions; writes the two
// wave index lists.
#include "classify/OutputSplit.hpp"

#include <cmath>
#include <numbers>

#include "vorlap/Console.hpp"
#include "zones/ResolveMTA.hpp"

namespace FullWaveform {

WaveIndexLists splitWaves(FatBoy<unsigned short>& fb) {
  const std::int32_t segment = fb.input->RDB_SEGMENT;
  bool side = segment == 0;
  double previous = 0.0;
  WaveIndexLists lists;
  for (std::uint32_t i = 0; i < fb.nWaves; ++i) {
    if (!fb.hasWave(i)) continue;
    if (segment == -1) {
      if (fb.scannerDevice.isRadial()) {
        side = fb.getDir(i).y < 0.0;
      } else if (fb.scannerDevice.isLineWise()) {
        const double angle = scanAngle(fb, i);
        if (std::abs(angle - previous) > std::numbers::pi / 2) side = !side;
        if (i == fb.nWaves - 1) side = !side;
        previous = angle;
      } else {
        Vorlap::Console() << "Not implemented";
      }
    }
    (side ? lists.first : lists.second).push_back(i);
  }
  return lists;
}

}  // namespace FullWaveform
