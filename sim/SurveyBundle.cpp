#include "sim/SurveyBundle.hpp"

#include <memory>
#include <mutex>

#include "sim/FragmentSimulation.hpp"
#include "waveform/ScannerDevice.hpp"

namespace quillo::sim {

namespace {

using Vorlap::StrongPtr;
using namespace Gemwold::PhysicalSpace;

// Keeps the latest simulated fragment for the creators that ask for its arrays in turn.
class FragmentCache {
 public:
  explicit FragmentCache(const SurveyConfig& c) : survey_(c) {}
  const FragmentData& get(std::uint32_t fragment) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!data_ || fragment_ != fragment) {
      data_ = std::make_shared<FragmentData>(simulateFragment(survey_, fragment));
      fragment_ = fragment;
    }
    return *data_;
  }
  const Survey& survey() const { return survey_; }

 private:
  Survey survey_;
  std::mutex mutex_;
  std::shared_ptr<FragmentData> data_;
  std::uint32_t fragment_ = 0;
};

using Extract = std::function<StrongPtr<Tessal::MemBase>(const FragmentData&, const SurveyConfig&)>;

class SimulatedCreator final : public Tessal::CreativeArrayBase {
 public:
  SimulatedCreator(std::shared_ptr<FragmentCache> cache, std::uint32_t fragment,
                   Tessal::ElementType type, Extract extract)
      : cache_(std::move(cache)), fragment_(fragment), type_(type), extract_(std::move(extract)) {}
  Tessal::ElementType elementType() const override { return type_; }
  std::vector<std::size_t> extents() const override {
    auto data = extract_(cache_->get(fragment_), cache_->survey().config());
    std::vector<std::size_t> e;
    for (unsigned d = 0; d < data->rank(); ++d) e.push_back(data->extent(d));
    return e;
  }

 protected:
  StrongPtr<Tessal::MemBase> produce() override {
    return extract_(cache_->get(fragment_), cache_->survey().config());
  }

 private:
  std::shared_ptr<FragmentCache> cache_;
  std::uint32_t fragment_;
  Tessal::ElementType type_;
  Extract extract_;
};

template <class T>
Extract vectorField(std::vector<T> FragmentData::*member) {
  return [member](const FragmentData& d, const SurveyConfig&) -> StrongPtr<Tessal::MemBase> {
    const auto& v = d.*member;
    auto a = Vorlap::makeStrong<Tessal::MemArray<1, T>>(v.size());
    std::copy(v.begin(), v.end(), a->contiguousData());
    return a;
  };
}

Extract waveformSamples() {
  return [](const FragmentData& d, const SurveyConfig& c) -> StrongPtr<Tessal::MemBase> {
    using Array = Tessal::MemArray<2, std::uint16_t>;
    auto a = Vorlap::makeStrong<Array>(Array::Extents{c.samplesPerRow, d.rowTime.size()});
    std::copy(d.samples.begin(), d.samples.end(), a->contiguousData());
    return a;
  };
}

struct FieldEntry {
  const char* grid;
  const char* field;
  Tessal::ElementType type;
  Extract extract;
};

std::vector<FieldEntry> fieldEntries() {
  using E = Tessal::ElementType;
  using D = FragmentData;
  namespace T = TruthField;
  return {{"Shots", "GPSTime", E::Double, vectorField(&D::shotTime)},
          {"Shots", "Positions", E::Point, vectorField(&D::origin)},
          {"Shots", "Waveforms.DirectionDelta", E::Vector, vectorField(&D::direction)},
          {"Waveforms", "GPSTime", E::Double, vectorField(&D::rowTime)},
          {"Waveforms", "FWFLength", E::UInt16, vectorField(&D::length)},
          {"Waveforms", "Waveforms", E::UInt16, waveformSamples()},
          {"Waveforms", "Channel", E::UInt8, vectorField(&D::rowChannel)},
          {"Waveforms", "SBL_Time", E::Double, vectorField(&D::sblTime)},
          {"OPP", "GPSTime", E::Double, vectorField(&D::oppTime)},
          {"OPP", "Range", E::Double, vectorField(&D::oppRange)},
          {"OPP", "Amplitude", E::Float, vectorField(&D::oppAmplitude)},
          {"OPP", "Channel", E::UInt8, vectorField(&D::oppChannel)},
          {"OPP", "Reflectance", E::Float, vectorField(&D::oppReflectance)},
          {"Truth", T::RowEmitter, E::UInt32, vectorField(&D::rowEmitter)},
          {"Truth", T::RowZone, E::UInt8, vectorField(&D::rowZone)},
          {"Truth", T::RowRange, E::Double, vectorField(&D::rowRange)},
          {"Truth", T::RowTarget, E::UInt8, vectorField(&D::rowTarget)},
          {"Truth", T::OnlineEmitter, E::UInt32, vectorField(&D::oppEmitter)},
          {"Truth", T::OnlineZone, E::UInt8, vectorField(&D::oppZone)},
          {"Truth", T::OnlineRange, E::Double, vectorField(&D::oppTrueRange)},
          {"Truth", T::OnlineTarget, E::UInt8, vectorField(&D::oppTarget)}};
}

void setScannerAttributes(Tessal::Slice& slice, const SurveyConfig& c) {
  namespace A = FullWaveform::ScannerAttribute;
  auto& shots = slice.makeGrid("Shots")->attributes();
  shots.setAttribute(A::PulseRepetitionRate, Vorlap::makeChunk<double>({c.pulseRate}));
  shots.setAttribute(A::LightSpeed, Vorlap::makeChunk<double>({c.lightSpeed}));
  shots.setAttribute(A::BlockSize, Vorlap::makeChunk<int>({200}));
  shots.setAttribute(
      A::ScanPattern,
      Vorlap::makeChunk<std::string>({c.pattern == Pattern::LineWise ? "line-wise" : "radial"}));
  shots.setAttribute(A::ModelName, Vorlap::makeChunk<std::string>({"quillo survey simulator"}));
  shots.setAttribute("SimulationSeed", Vorlap::makeChunk<unsigned>({unsigned(c.seed)}));
  slice.makeGrid("Waveforms")
      ->attributes()
      .setAttribute(A::SampleInterval, Vorlap::makeChunk<double>({c.sampleInterval}));
}

}  // namespace

Tessal::BundlePtr surveyBundle(const SurveyConfig& config) {
  auto bundle = Tessal::BundlePtr::make();
  auto slice = (*bundle.create())[0.0];
  setScannerAttributes(*slice, config);
  auto cache = std::make_shared<FragmentCache>(config);
  const std::uint32_t fragments = cache->survey().fragmentCount();
  for (const auto& entry : fieldEntries()) {
    auto rep =
        slice->makeGrid(entry.grid)->makeCartesianRepresentation(3, "ScannerCoordinateSystem", 0);
    StrongPtr<Tessal::Field> field = rep->makeField(rep->makeFieldID(entry.field), {}, {});
    for (std::uint32_t f = 0; f < fragments; ++f) {
      auto id = field->makeFragmentID("Fragment_" + std::to_string(f));
      auto creator = Vorlap::makeStrong<SimulatedCreator>(cache, f, entry.type, entry.extract);
      creator->enableCaching(false);
      field->setCreator(id, creator);
    }
  }
  return bundle;
}

std::string writeSurvey(const SurveyConfig& config, const std::string& fileName) {
  return Tessal::Bundle::save(surveyBundle(config), fileName);
}

}  // namespace quillo::sim
