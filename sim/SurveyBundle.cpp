// Builds the simulated survey as a bundle whose arrays are produced fragment by fragment when
// the writer asks for them (fields "Shots", "Waveforms", "OPP", "Truth"), and saves it.
#include "sim/SurveyBundle.hpp"

#include <memory>
#include <mutex>

#include "geo/CoordinateSystem.hpp"
#include "sim/FragmentSimulation.hpp"
#include "tessal/Schema.hpp"
#include "waveform/ScannerDevice.hpp"

namespace quillo::sim {

namespace schema = Tessal::schema;

namespace {

using Vorlap::StrongPtr;
using namespace Gemwold::PhysicalSpace;

// A simulated fragment with its samples in a block that the "Waveforms" array views.
struct CachedFragment {
  FragmentData data;
  Vorlap::StrongPtr<Tessal::DataBlock<std::uint16_t>> samples;
};

// Keeps the latest simulated fragment for the creators that ask for its arrays in turn.
class FragmentCache {
 public:
  FragmentCache(const SurveyConfig& c, SurveyProgress progress)
      : survey_(c), progress_(std::move(progress)) {}
  const CachedFragment& get(std::uint32_t fragment) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!cached_ || fragment_ != fragment) {
      cached_.reset();  // one fragment in memory at a time
      auto next = std::make_shared<CachedFragment>();
      next->data = simulateFragment(survey_, fragment);
      next->samples = Vorlap::makeStrong<Tessal::DataBlock<std::uint16_t>>();
      next->samples->values.assign(next->data.samples.begin(), next->data.samples.end());
      std::vector<std::uint16_t>().swap(next->data.samples);
      cached_ = std::move(next);
      fragment_ = fragment;
      if (progress_) progress_(fragment + 1, survey_.fragmentCount());
    }
    return *cached_;
  }
  const Survey& survey() const { return survey_; }

 private:
  Survey survey_;
  SurveyProgress progress_;
  std::mutex mutex_;
  std::shared_ptr<CachedFragment> cached_;
  std::uint32_t fragment_ = 0;
};

// How one field's array is taken from a simulated fragment: its extents (without building
// it) and the array itself.
struct Extract {
  std::function<std::vector<std::size_t>(const CachedFragment&)> extents;
  std::function<StrongPtr<Tessal::MemBase>(const CachedFragment&)> produce;
};

class SimulatedCreator final : public Tessal::CreativeArrayBase {
 public:
  SimulatedCreator(std::shared_ptr<FragmentCache> cache, std::uint32_t fragment,
                   Tessal::ElementType type, Extract extract)
      : cache_(std::move(cache)), fragment_(fragment), type_(type), extract_(std::move(extract)) {}
  Tessal::ElementType elementType() const override { return type_; }
  std::vector<std::size_t> extents() const override {
    return extract_.extents(cache_->get(fragment_));
  }

 protected:
  StrongPtr<Tessal::MemBase> produce() override { return extract_.produce(cache_->get(fragment_)); }

 private:
  std::shared_ptr<FragmentCache> cache_;
  std::uint32_t fragment_;
  Tessal::ElementType type_;
  Extract extract_;
};

template <class T>
Extract vectorField(std::vector<T> FragmentData::*member) {
  return {[member](const CachedFragment& f) {
            return std::vector<std::size_t>{(f.data.*member).size()};
          },
          [member](const CachedFragment& f) -> StrongPtr<Tessal::MemBase> {
            const auto& v = f.data.*member;
            auto a = Vorlap::makeStrong<Tessal::MemArray<1, T>>(v.size());
            std::copy(v.begin(), v.end(), a->contiguousData());
            return a;
          }};
}

// The samples, row after row: a view of the cached block rather than a copy.
Extract waveformSamples(std::uint32_t samplesPerRow) {
  return {[samplesPerRow](const CachedFragment& f) {
            return std::vector<std::size_t>{samplesPerRow, f.data.rowTime.size()};
          },
          [samplesPerRow](const CachedFragment& f) -> StrongPtr<Tessal::MemBase> {
            using Array = Tessal::MemArray<2, std::uint16_t>;
            return Vorlap::makeStrong<Array>(Array::Extents{samplesPerRow, f.data.rowTime.size()},
                                             f.samples, 0, 1);
          }};
}

struct FieldEntry {
  const char* grid;
  const char* field;
  Tessal::ElementType type;
  Extract extract;
};

std::vector<FieldEntry> fieldEntries(std::uint32_t samplesPerRow) {
  using E = Tessal::ElementType;
  using D = FragmentData;
  namespace T = TruthField;
  return {
      {schema::kShotsGrid, schema::kGPSTime, E::Double, vectorField(&D::shotTime)},
      {schema::kShotsGrid, schema::kPositions, E::Point, vectorField(&D::origin)},
      {schema::kShotsGrid, schema::kDirectionDelta, E::Vector, vectorField(&D::direction)},
      {schema::kWaveformsGrid, schema::kGPSTime, E::Double, vectorField(&D::rowTime)},
      {schema::kWaveformsGrid, schema::kFWFLength, E::UInt16, vectorField(&D::length)},
      {schema::kWaveformsGrid, schema::kWaveformSamples, E::UInt16, waveformSamples(samplesPerRow)},
      {schema::kWaveformsGrid, schema::kChannel, E::UInt8, vectorField(&D::rowChannel)},
      {schema::kWaveformsGrid, schema::kSBLTime, E::Double, vectorField(&D::sblTime)},
      {schema::kOnlineGrid, schema::kGPSTime, E::Double, vectorField(&D::oppTime)},
      {schema::kOnlineGrid, schema::kRange, E::Double, vectorField(&D::oppRange)},
      {schema::kOnlineGrid, schema::kAmplitude, E::Float, vectorField(&D::oppAmplitude)},
      {schema::kOnlineGrid, schema::kChannel, E::UInt8, vectorField(&D::oppChannel)},
      {schema::kOnlineGrid, schema::kReflectance, E::Float, vectorField(&D::oppReflectance)},
      {kTruthGrid, T::RowEmitter, E::UInt32, vectorField(&D::rowEmitter)},
      {kTruthGrid, T::RowZone, E::UInt8, vectorField(&D::rowZone)},
      {kTruthGrid, T::RowRange, E::Double, vectorField(&D::rowRange)},
      {kTruthGrid, T::RowTarget, E::UInt8, vectorField(&D::rowTarget)},
      {kTruthGrid, T::OnlineEmitter, E::UInt32, vectorField(&D::oppEmitter)},
      {kTruthGrid, T::OnlineZone, E::UInt8, vectorField(&D::oppZone)},
      {kTruthGrid, T::OnlineRange, E::Double, vectorField(&D::oppTrueRange)},
      {kTruthGrid, T::OnlineTarget, E::UInt8, vectorField(&D::oppTarget)},
      {kTruthGrid, T::EchoEmitter, E::UInt32, vectorField(&D::echoEmitter)},
      {kTruthGrid, T::EchoZone, E::UInt8, vectorField(&D::echoZone)},
      {kTruthGrid, T::EchoRange, E::Double, vectorField(&D::echoRange)},
      {kTruthGrid, T::EchoTarget, E::UInt8, vectorField(&D::echoTarget)},
      {kTruthGrid, T::EchoRecorded, E::UInt8, vectorField(&D::echoRecorded)}};
}

void setScannerAttributes(Tessal::Slice& slice, const Survey& survey) {
  namespace A = FullWaveform::ScannerAttribute;
  const SurveyConfig& c = survey.config();
  auto& shots = slice.makeGrid(schema::kShotsGrid)->attributes();
  const auto& toMap = survey.scannerToMap();
  shots.setAttribute(A::ScannerToMap,
                     Vorlap::makeChunk<double>(std::vector<double>(toMap.begin(), toMap.end())));
  shots.setAttribute(A::PulseRepetitionRate, Vorlap::makeChunk<double>({c.pulseRate}));
  shots.setAttribute(A::LightSpeed, Vorlap::makeChunk<double>({c.lightSpeed}));
  shots.setAttribute(A::BlockSize, Vorlap::makeChunk<int>({200}));
  shots.setAttribute(
      A::ScanPattern,
      Vorlap::makeChunk<std::string>({c.pattern == Pattern::LineWise ? "line-wise" : "radial"}));
  shots.setAttribute(A::ModelName, Vorlap::makeChunk<std::string>({"quillo survey simulator"}));
  shots.setAttribute("SimulationSeed", Vorlap::makeChunk<unsigned>({unsigned(c.seed)}));
  if (c.rdbSegment >= 0)
    shots.setAttribute(kRdbSegmentAttribute, Vorlap::makeChunk<int>({int(c.rdbSegment)}));
  if (!c.coordinateSystem.empty())
    shots.setAttribute(geo::kCoordinateSystemAttribute,
                       Vorlap::makeChunk<std::string>({c.coordinateSystem}));
  slice.makeGrid(schema::kWaveformsGrid)
      ->attributes()
      .setAttribute(A::SampleInterval, Vorlap::makeChunk<double>({c.sampleInterval}));
}

}  // namespace

Tessal::BundlePtr surveyBundle(const SurveyConfig& config, SurveyProgress progress) {
  auto bundle = Tessal::BundlePtr::make();
  auto slice = (*bundle.create())[0.0];
  auto cache = std::make_shared<FragmentCache>(config, std::move(progress));
  setScannerAttributes(*slice, cache->survey());
  const std::uint32_t fragments = cache->survey().fragmentCount();
  for (const auto& entry : fieldEntries(config.samplesPerRow)) {
    auto rep =
        slice->makeGrid(entry.grid)->makeCartesianRepresentation(3, schema::kScannerChart, 0);
    StrongPtr<Tessal::Field> field = rep->makeField(rep->makeFieldID(entry.field), {}, {});
    for (std::uint32_t f = 0; f < fragments; ++f) {
      auto id = field->makeFragmentID(schema::fragmentName(f));
      auto creator = Vorlap::makeStrong<SimulatedCreator>(cache, f, entry.type, entry.extract);
      creator->enableCaching(false);
      field->setCreator(id, creator);
    }
  }
  return bundle;
}

std::string writeSurvey(const SurveyConfig& config, const std::string& fileName,
                        SurveyProgress progress, Tessal::KqLayout layout) {
  return Tessal::Bundle::save(surveyBundle(config, std::move(progress)), fileName, layout);
}

}  // namespace quillo::sim
