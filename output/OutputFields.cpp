// Output fields: stores the filled point arrays, without copying them, as the current
// fragment (named like the input fragment) of the representation's fields.
#include "store/FatBoy.hpp"

namespace FullWaveform {

namespace {

template <class Slot>
void saveField(Slot& slot, const std::string& name, Tessal::Representation& representation,
               const std::string& fragmentName) {
  if (!slot.data) return;
  auto id = representation.makeFieldID(name);
  slot.field = static_cast<Vorlap::StrongPtr<Tessal::Field>>(representation.makeField(
      id, Vorlap::StrongPtr<Tessal::FragmentIDCollection>(), Vorlap::StrongPtr<Tessal::MemBase>()));
  if (!slot.field) return;
  auto fragment = slot.field->makeFragmentID(fragmentName);
  slot.field->setPersistentData(Vorlap::StrongPtr<Tessal::MemBase>(slot.data), fragment,
                                Vorlap::Cache::MemCache(), "");
  auto creator = slot.field->getCreator(fragment);
  Vorlap::StrongPtr<Tessal::ValueRange> range;
  if (creator) range = Tessal::getFragmentRange(*creator, false, false, {});
  if (!range) Tessal::getBoundingBox(slot.field);
}

}  // namespace

template <class T>
void FatBoy<T>::save(Tessal::Representation& rep) {
  auto& p = pointSlots;
  const std::string& frag = fragmentName;
  saveField(slotGPSTime, "GPSTime", rep, frag);
  saveField(slotPositions, "Positions", rep, frag);
  saveField(slotWaveID, "WaveID", rep, frag);
  saveField(slotMTA, "MTA", rep, frag);
  saveField(slotScannerChannel, "ScannerChannel", rep, frag);
  saveField(p.Amplitude, "Amplitude", rep, frag);
  saveField(p.Range, "Range", rep, frag);
  saveField(p.PulseWidth, "PulseWidth", rep, frag);
  saveField(p.Damping, "Damping", rep, frag);
  saveField(p.Classification, "Classification", rep, frag);
  saveField(p.PointType, "PointType", rep, frag);
  saveField(p.DirectionDelta, "Waveforms.DirectionDelta", rep, frag);
  saveField(p.ReturnNumber, "ReturnNumber", rep, frag);
  saveField(p.NumberOfReturns, "NumberOfReturns", rep, frag);
  saveField(p.Waveforms, "Waveforms", rep, frag);
  saveField(p.WaveformPositionIndex, "WaveformPositionIndex", rep, frag);
  saveField(p.FWFLength, "FWFLength", rep, frag);
  saveField(p.ScanAngleRank, "ScanAngleRank", rep, frag);
  saveField(p.Reflectance, "Reflectance", rep, frag);
  saveField(p.PointID, "PointID", rep, frag);
}

template void FatBoy<unsigned short>::save(Tessal::Representation&);

}  // namespace FullWaveform
