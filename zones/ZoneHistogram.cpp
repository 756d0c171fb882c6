// Zone histogram report of the current fragment: per zone 0 to 7 its range interval, share
// and count. Reads mta and the scanner description; writes zoneHist.
#include <cstdio>

#include "store/FatBoy.hpp"
#include "vorlap/NumberText.hpp"

namespace FullWaveform {

namespace {

std::string fixed61(double v) {
  char buf[512];
  std::snprintf(buf, sizeof buf, "%6.1f", v);
  return buf;
}

}  // namespace

template <class T>
std::string FatBoy<T>::printHist() {
  const double m = scannerDevice.getMTALengthAsTime();
  zoneHist.assign(8, 0);
  double total = 0.0;
  for (std::int32_t z : mta) {
    if (z < 0 || z > 7) continue;
    zoneHist[z] += 1;
    total += 1.0;
  }
  const double percentPerWave = 100.0 / total;
  std::string text = "\n";
  for (std::uint32_t z = 0; z < 8; ++z) {
    const double c = scannerDevice.lightSpeed;
    text += "\t\t\tMTA " + std::to_string(z) + "(" + fixed61(c * m * z) + "-" +
            fixed61(c * m * (z + 1)) +
            "). Count [%]: " + Vorlap::shortestText(zoneHist[z] * percentPerWave) +
            ",  as num: " + std::to_string(zoneHist[z]) + "\n";
  }
  return text;
}

template std::string FatBoy<unsigned short>::printHist();

}  // namespace FullWaveform
