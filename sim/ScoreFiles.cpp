// Reads what scoring needs from .kq files: the simulated survey's shot times, light speed and
// per-echo truth, and each run output's points ("FWF": GPSTime, MTA, Range, Classification,
// and "Refined" when the zone refinement ran).
#include <stdexcept>

#include "sim/Scoring.hpp"
#include "sim/SurveyBundle.hpp"
#include "tessal/Schema.hpp"
#include "waveform/ScannerDevice.hpp"

namespace quillo::sim {

namespace schema = Tessal::schema;

namespace {

using Vorlap::StrongPtr;

Tessal::BundlePtr loadFile(const std::string& file) {
  auto b = Tessal::BundlePtr::make();
  bool ok = false;
  Tessal::Bundle::load(ok, Tessal::LoaderParameters({file}), b);
  if (!ok) throw std::runtime_error(file + ": cannot be read as a .kq file");
  return b;
}

StrongPtr<Tessal::Grid> gridOf(Tessal::BundlePtr& b, const std::string& grid) {
  double t = 0.0;
  auto slice = (*b.create())(t);
  return slice ? (*slice)(grid) : nullptr;
}

template <class T>
std::vector<T> readAll(const StrongPtr<Tessal::Grid>& g, const std::string& name) {
  std::vector<T> values;
  auto field = g ? (*g)(name, "") : nullptr;
  if (!field) return values;
  auto ids = field->getFragmentIDCollection();
  for (std::size_t f = 0; f < ids->size(); ++f) {
    auto creator = field->getCreator(ids->at(f));
    auto a = creator ? Vorlap::dynamicPtrCast<Tessal::MemArray<1, T>>(creator->create()) : nullptr;
    if (!a) continue;
    for (std::size_t k = 0; k < a->size(); ++k) values.push_back(a->get(k));
  }
  return values;
}

double lightSpeedOf(Tessal::BundlePtr& b) {
  auto shots = gridOf(b, schema::kShotsGrid);
  auto raw = shots ? shots->attributes().getAttribute(FullWaveform::ScannerAttribute::LightSpeed)
                   : nullptr;
  auto chunk = Vorlap::dynamicPtrCast<Vorlap::Chunk<double>>(raw);
  return chunk && chunk->size() == 1 ? (*chunk)[0] : 0.0;
}

}  // namespace

SurveyTruth truthOf(Tessal::BundlePtr& b, const std::string& file) {
  SurveyTruth t;
  t.shotTimes = readAll<double>(gridOf(b, schema::kShotsGrid), schema::kGPSTime);
  if (t.shotTimes.empty())
    throw std::runtime_error(file + ": no shots (is it a simulated survey?)");
  t.lightSpeed = lightSpeedOf(b);
  if (!(t.lightSpeed > 0.0))
    throw std::runtime_error(file + ": Shots attribute \"LightSpeed\" missing or not positive");
  namespace T = TruthField;
  const auto truth = gridOf(b, kTruthGrid);
  const auto emitter = readAll<std::uint32_t>(truth, T::EchoEmitter);
  const auto zone = readAll<std::uint8_t>(truth, T::EchoZone);
  const auto range = readAll<double>(truth, T::EchoRange);
  const auto target = readAll<std::uint8_t>(truth, T::EchoTarget);
  const auto recorded = readAll<std::uint8_t>(truth, T::EchoRecorded);
  if (emitter.empty())
    throw std::runtime_error(file + ": holds no per-echo truth (\"Truth\" field \"" +
                             T::EchoEmitter + "\"); simulate it again with this version");
  if (zone.size() != emitter.size() || range.size() != emitter.size() ||
      target.size() != emitter.size() || recorded.size() != emitter.size())
    throw std::runtime_error(file + ": per-echo truth arrays differ in length");
  t.echoes.reserve(emitter.size());
  for (std::size_t i = 0; i < emitter.size(); ++i) {
    if (emitter[i] >= t.shotTimes.size() || target[i] >= kTargetCount)
      throw std::runtime_error(file + ": per-echo truth entry " + std::to_string(i) +
                               " names no shot or target of the survey");
    t.echoes.push_back({emitter[i], zone[i], range[i], Target(target[i]), recorded[i] != 0});
  }
  return t;
}

SurveyTruth readTruth(const std::string& file) {
  auto b = loadFile(file);
  return truthOf(b, file);
}

std::vector<ScoredPoint> pointsOf(const Vorlap::StrongPtr<Tessal::Grid>& fwf,
                                  const std::string& file) {
  const auto times = readAll<double>(fwf, schema::kGPSTime);
  const auto zones = readAll<std::uint8_t>(fwf, schema::kMTA);
  const auto ranges = readAll<double>(fwf, schema::kRange);
  const auto classes = readAll<std::uint8_t>(fwf, schema::kClassification);
  if (times.size() != zones.size() || ranges.size() != zones.size() ||
      classes.size() != zones.size())
    throw std::runtime_error(file + ": GPSTime, MTA, Range and Classification differ in length");
  const auto refined = readAll<std::uint8_t>(fwf, schema::kRefined);
  if (!refined.empty() && refined.size() != times.size())
    throw std::runtime_error(file + ": Refined and GPSTime differ in length");
  std::vector<ScoredPoint> points(times.size());
  for (std::size_t p = 0; p < times.size(); ++p)
    points[p] = {times[p], ranges[p], zones[p], classes[p],
                 refined.empty() ? std::uint8_t(0) : refined[p]};
  return points;
}

ZoneScoreReport scoreOutputs(const std::vector<std::string>& outputs,
                             const std::string& truthFile) {
  ZoneScorer scorer(readTruth(truthFile));
  for (const auto& file : outputs) {
    auto b = loadFile(file);
    scorer.add(pointsOf(gridOf(b, schema::kResultGrid), file));
  }
  return scorer.finish();
}

}  // namespace quillo::sim
