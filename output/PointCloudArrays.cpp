// Sizing of the output arrays: counts the points of the listed waves and gives every field
// that this run writes a new array of that size.
#include "store/FatBoy.hpp"

namespace FullWaveform {

namespace {

template <class Slot>
void renew(Slot& slot, std::size_t n) {
  slot.data = Vorlap::makeStrong<typename Slot::Array>(n);
}

}  // namespace

template <class T>
void FatBoy<T>::iniPointCloud(const std::vector<std::uint32_t>& waveIndices) {
  nPoints = 0;
  for (std::uint32_t w : waveIndices)
    if (hasWave(w)) nPoints += std::uint32_t(wavePoints[w]->size());
  const bool hasFWF = !FWF.isEmpty();
  const bool notMode2 = input->fwfModus != FWF_PEAKS_NO_WIDTH;
  const std::size_t nSamples =
      hasFWF && FWF->arrays.Waveforms ? FWF->arrays.Waveforms->extent(0) : 0;
  auto& p = pointSlots;
  renew(slotGPSTime, nPoints);
  renew(slotPositions, nPoints);
  renew(slotWaveID, nPoints);
  renew(slotMTA, nPoints);
  renew(slotScannerChannel, nPoints);
  renew(p.Amplitude, nPoints);
  renew(p.Range, nPoints);
  if (notMode2) renew(p.PulseWidth, nPoints);
  if (hasFWF) renew(p.Damping, nPoints);
  renew(p.Classification, nPoints);
  renew(p.PointType, nPoints);
  renew(p.DirectionDelta, nPoints);
  renew(p.ReturnNumber, nPoints);
  renew(p.NumberOfReturns, nPoints);
  if (input->exportFWF) {
    p.Waveforms.data = Vorlap::makeStrong<Tessal::MemArray<2, std::uint16_t>>(
        Tessal::MemArray<2, std::uint16_t>::Extents{nSamples, nPoints});
    renew(p.WaveformPositionIndex, nPoints);
    renew(p.FWFLength, nPoints);
  }
  renew(p.ScanAngleRank, nPoints);
  renew(p.Reflectance, nPoints);
  renew(p.PointID, nPoints);
}

template void FatBoy<unsigned short>::iniPointCloud(const std::vector<std::uint32_t>&);

}  // namespace FullWaveform
