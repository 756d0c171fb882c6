// Output fields: stores the filled point arrays, without copying them, as the current
// fragment (named like the input fragment) of the representation's fields.
#include "store/FatBoy.hpp"
#include "tessal/Schema.hpp"

namespace FullWaveform {

namespace schema = Tessal::schema;

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
  saveField(slotGPSTime, schema::kGPSTime, rep, frag);
  saveField(slotPositions, schema::kPositions, rep, frag);
  saveField(slotWaveID, schema::kWaveID, rep, frag);
  saveField(slotMTA, schema::kMTA, rep, frag);
  saveField(slotScannerChannel, schema::kScannerChannel, rep, frag);
  saveField(p.Amplitude, schema::kAmplitude, rep, frag);
  saveField(p.Range, schema::kRange, rep, frag);
  saveField(p.PulseWidth, schema::kPulseWidth, rep, frag);
  saveField(p.Damping, schema::kDamping, rep, frag);
  saveField(p.Classification, schema::kClassification, rep, frag);
  saveField(p.PointType, schema::kPointType, rep, frag);
  saveField(p.DirectionDelta, schema::kDirectionDelta, rep, frag);
  saveField(p.ReturnNumber, schema::kReturnNumber, rep, frag);
  saveField(p.NumberOfReturns, schema::kNumberOfReturns, rep, frag);
  saveField(p.Waveforms, schema::kWaveformSamples, rep, frag);
  saveField(p.WaveformPositionIndex, schema::kWaveformPositionIndex, rep, frag);
  saveField(p.FWFLength, schema::kFWFLength, rep, frag);
  saveField(p.ScanAngleRank, schema::kScanAngleRank, rep, frag);
  saveField(p.Reflectance, schema::kReflectance, rep, frag);
  saveField(p.PointID, schema::kPointID, rep, frag);
}

template void FatBoy<unsigned short>::save(Tessal::Representation&);

}  // namespace FullWaveform
