// Zone refinement on a run's outputs. Reads the input's "Shots" grid fragment by fragment
// and the point fields of the output fragments the run has finished; rewrites the moved points' GPS
// time, position, range, zone, direction step, scan-angle rank and return numbers as the point
// assembly computes them, sets classification 7 on points fitting no surface, and adds the
// "Refined" field.
#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <set>
#include <utility>

#include "output/PointGeometry.hpp"
#include "refine/ZoneRefinement.hpp"
#include "tessal/Schema.hpp"
#include "waveform/ScannerDevice.hpp"

namespace FullWaveform {

namespace {

namespace schema = Tessal::schema;
using Gemwold::PhysicalSpace::point;
using Gemwold::PhysicalSpace::vector;
template <class E>
using ArrayPtr = Vorlap::StrongPtr<Tessal::MemArray<1, E>>;

constexpr std::uint8_t kNoiseClass = 7;
constexpr std::uint8_t kNoZone = 255;

Vorlap::StrongPtr<Tessal::Grid> inputGrid(Tessal::BundlePtr& input, const std::string& name) {
  double t = 0.0;
  auto slice = input ? (*input.get())(t) : Vorlap::StrongPtr<Tessal::Slice>();
  return slice ? (*slice)(name) : Vorlap::StrongPtr<Tessal::Grid>();
}

template <class E>
ArrayPtr<E> fragmentArray(const Vorlap::StrongPtr<Tessal::Field>& field, const std::string& name) {
  if (!field) return {};
  auto id = field->getFragmentIDCollection()->findFragmentIDByName(name);
  auto creator = id ? field->getCreator(id) : Vorlap::StrongPtr<Tessal::CreativeArrayBase>();
  return creator ? Vorlap::dynamicPtrCast<Tessal::MemArray<1, E>>(creator->create())
                 : ArrayPtr<E>();
}

// An input fragment's array without keeping it in its creator: a window over a long strip
// must not leave every fragment it read behind in the input. One the module still holds is
// shared rather than decoded again.
template <class E>
ArrayPtr<E> inputArray(const Vorlap::StrongPtr<Tessal::Field>& field, const std::string& name) {
  auto id = field ? field->getFragmentIDCollection()->findFragmentIDByName(name)
                  : Vorlap::StrongPtr<Tessal::FragmentID>();
  auto creator = id ? field->getCreator(id) : Vorlap::StrongPtr<Tessal::CreativeArrayBase>();
  if (!creator) return {};
  if (auto held = creator->sharedData())
    return Vorlap::dynamicPtrCast<Tessal::MemArray<1, E>>(held);
  const bool caching = creator->cachingEnabled();
  creator->enableCaching(false);
  auto data = creator->create();
  creator->enableCaching(caching);
  return Vorlap::dynamicPtrCast<Tessal::MemArray<1, E>>(data);
}

// Every shot of the input in time order, with the scanner's light speed and pattern.
std::string readShotTable(Tessal::BundlePtr& input, ShotTable& table, double& sampleStep) {
  const auto shots = inputGrid(input, schema::kShotsGrid);
  if (!shots) return "refinement: the input has no \"Shots\" grid";
  const auto times = (*shots)(schema::kGPSTime, ""), origins = (*shots)(schema::kPositions, "");
  const auto directions = (*shots)(schema::kDirectionDelta, "");
  if (!times || !origins || !directions)
    return "refinement: \"Shots\" lacks GPSTime, Positions or Waveforms.DirectionDelta";
  // Sized once and copied block by block: growing the table fragment by fragment costs more
  // than the copying (every growth touches fresh pages).
  const auto ids = times->getFragmentIDCollection();
  std::vector<ArrayPtr<double>> t(ids->size());
  std::vector<ArrayPtr<point>> o(ids->size());
  std::vector<ArrayPtr<vector>> d(ids->size());
  std::size_t total = 0;
  for (std::size_t f = 0; f < ids->size(); ++f) {
    const std::string& name = ids->at(f)->getName();
    t[f] = fragmentArray<double>(times, name), o[f] = fragmentArray<point>(origins, name);
    d[f] = fragmentArray<vector>(directions, name);
    const bool usable =
        t[f] && o[f] && d[f] && o[f]->size() == t[f]->size() && d[f]->size() == t[f]->size();
    if (!usable) t[f] = {};
    total += usable ? t[f]->size() : 0;
  }
  table.time.resize(total), table.origin.resize(total), table.direction.resize(total);
  for (std::size_t f = 0, at = 0; f < ids->size(); ++f) {
    if (!t[f]) continue;
    t[f]->copyOut(table.time.data() + at), o[f]->copyOut(table.origin.data() + at);
    d[f]->copyOut(table.direction.data() + at);
    at += t[f]->size();
  }
  sortByTime(table);
  const ScannerDevice scanner(shots, inputGrid(input, schema::kWaveformsGrid));
  table.lightSpeed = scanner.lightSpeed;
  table.radial = scanner.isRadial();
  sampleStep = sampleRangeStep(scanner.sampleInterval, scanner.lightSpeed);
  return table.lightSpeed > 0.0 ? "" : "refinement: the scanner's light speed is not positive";
}

// The point fields of one output fragment that a moved point changes.
struct OutputPart {
  Vorlap::StrongPtr<Tessal::Representation> rep;
  std::string fragment;
  ArrayPtr<double> time, range;
  ArrayPtr<point> position;
  ArrayPtr<vector> directionStep;
  ArrayPtr<std::uint8_t> zone, classification, returnNumber, numberOfReturns;
  ArrayPtr<std::int16_t> scanAngleRank;
  // Read only; a run without them gives echoes of unknown amplitude (0).
  ArrayPtr<float> amplitude;
  ArrayPtr<std::uint8_t> channel;
  std::vector<std::uint8_t> flags;

  bool complete() const {
    const std::size_t n = time ? time->size() : 0;
    if ((amplitude && amplitude->size() != n) || (channel && channel->size() != n)) return false;
    for (std::size_t size :
         {range ? range->size() : 0, position ? position->size() : 0,
          directionStep ? directionStep->size() : 0, zone ? zone->size() : 0,
          classification ? classification->size() : 0, returnNumber ? returnNumber->size() : 0,
          numberOfReturns ? numberOfReturns->size() : 0, scanAngleRank ? scanAngleRank->size() : 0})
      if (size != n) return false;
    return true;
  }
};

OutputPart partOf(const Vorlap::StrongPtr<Tessal::Representation>& rep, const std::string& frag) {
  const auto field = [&](const char* name) { return rep->findFieldByName(name); };
  OutputPart p;
  p.rep = rep;
  p.fragment = frag;
  p.time = fragmentArray<double>(field(schema::kGPSTime), frag);
  p.range = fragmentArray<double>(field(schema::kRange), frag);
  p.position = fragmentArray<point>(field(schema::kPositions), frag);
  p.directionStep = fragmentArray<vector>(field(schema::kDirectionDelta), frag);
  p.zone = fragmentArray<std::uint8_t>(field(schema::kMTA), frag);
  p.classification = fragmentArray<std::uint8_t>(field(schema::kClassification), frag);
  p.returnNumber = fragmentArray<std::uint8_t>(field(schema::kReturnNumber), frag);
  p.numberOfReturns = fragmentArray<std::uint8_t>(field(schema::kNumberOfReturns), frag);
  p.scanAngleRank = fragmentArray<std::int16_t>(field(schema::kScanAngleRank), frag);
  p.amplitude = fragmentArray<float>(field(schema::kAmplitude), frag);
  p.channel = fragmentArray<std::uint8_t>(field(schema::kScannerChannel), frag);
  p.flags.assign(p.time ? p.time->size() : 0, kUntouched);
  return p;
}

std::string collectParts(const std::vector<Vorlap::StrongPtr<Tessal::Grid>>& outputs,
                         std::vector<OutputPart>& parts) {
  for (const auto& grid : outputs) {
    auto rep = grid ? grid->getCartesianRepresentation(schema::kScannerChart)
                    : Vorlap::StrongPtr<Tessal::Representation>();
    auto times = rep ? rep->findFieldByName(schema::kGPSTime) : Vorlap::StrongPtr<Tessal::Field>();
    if (!times) continue;
    const auto ids = times->getFragmentIDCollection();
    for (std::size_t f = 0; f < ids->size(); ++f) {
      parts.push_back(partOf(rep, ids->at(f)->getName()));
      if (!parts.back().complete())
        return "refinement: output fragment " + parts.back().fragment +
               " lacks a point field or holds fields of different lengths";
    }
  }
  return "";
}

struct PointRef {
  std::uint32_t part, index;
};

// A point's receiver channel and amplitude; 0 where the outputs lack them or the amplitude is
// not a positive number.
std::pair<std::uint8_t, float> channelAndAmplitude(const OutputPart& p, std::uint32_t i) {
  const float a = p.amplitude ? p.amplitude->get(i) : 0.0f;
  return {p.channel ? p.channel->get(i) : std::uint8_t(0), std::isfinite(a) && a > 0.0f ? a : 0.0f};
}

// The echoes the refinement can place: a zone and an emitting shot found in the table.
void collectEchoes(const ShotTable& table, const std::vector<OutputPart>& parts,
                   RefineEchoes& echoes, LargeVector<PointRef>& refs) {
  std::uint32_t shot = 0;
  std::size_t points = 0;
  for (const OutputPart& p : parts) points += p.time->size();
  echoes.reserve(points), refs.reserve(points);
  for (std::uint32_t k = 0; k < parts.size(); ++k) {
    const OutputPart& p = parts[k];
    for (std::uint32_t i = 0; i < p.time->size(); ++i) {
      const std::uint8_t zone = p.zone->get(i);
      const double oneWay = p.range->get(i) / table.lightSpeed;
      if (zone == kNoZone || !std::isfinite(oneWay) || !findShot(table.time, p.time->get(i), shot))
        continue;
      const auto [channel, amplitude] = channelAndAmplitude(p, i);
      echoes.push_back(
          {shot, oneWay, zone, p.classification->get(i) == kNoiseClass, channel, amplitude});
      refs.push_back({k, i});
    }
  }
}

// Places a moved point at its new emitting shot, as the point assembly does.
void movePoint(const ShotTable& table, double sampleStep, const RefineEcho& echo, std::uint8_t zone,
               OutputPart& p, std::uint32_t i) {
  const auto to = std::uint32_t(std::int64_t(echo.emitter) + echo.zone - zone);
  const double d = oneWayTimeFrom(echo.oneWayTime, table.time[echo.emitter], table.time[to]);
  const EchoPlacement placed =
      placeEcho(d, table.direction[to], table.origin[to], table.lightSpeed);
  p.time->set(i, table.time[to]);
  p.position->set(i, placed.position);
  p.range->set(i, placed.range);
  p.zone->set(i, zone);
  p.directionStep->set(i, directionDeltaOf(table.direction[to], sampleStep));
  p.scanAngleRank->set(i, scanAngleRankOf(table.direction[to]));
}

// Numbers again the returns of the shots that lost or gained a point.
bool renumberReturns(OutputPart& p, const std::set<double>& shotTimes) {
  if (shotTimes.empty()) return true;
  ShotReturns shots;
  for (std::uint32_t i = 0; i < p.time->size(); ++i) {
    const double t = p.time->get(i), r = p.range->get(i);
    if (shotTimes.count(t) && !std::isnan(t) && !std::isnan(r)) shots.push_back({t, r, i});
  }
  return numberReturns(shots, *p.returnNumber, *p.numberOfReturns);
}

void addFlagField(OutputPart& p) {
  auto field = static_cast<Vorlap::StrongPtr<Tessal::Field>>(p.rep->makeField(
      p.rep->makeFieldID(schema::kRefined), Vorlap::StrongPtr<Tessal::FragmentIDCollection>(),
      Vorlap::StrongPtr<Tessal::MemBase>()));
  auto data = Vorlap::makeStrong<Tessal::MemArray<1, std::uint8_t>>(p.flags.size());
  for (std::size_t i = 0; i < p.flags.size(); ++i) data->set(i, p.flags[i]);
  field->setPersistentData(Vorlap::StrongPtr<Tessal::MemBase>(data),
                           field->makeFragmentID(p.fragment), Vorlap::Cache::MemCache(), "");
}

}  // namespace

std::string refinementArrays(Tessal::BundlePtr& input,
                             const std::vector<Vorlap::StrongPtr<Tessal::Grid>>& outputs,
                             ShotTable& table, RefineEchoes& echoes) {
  double sampleStep = 1.0;
  std::vector<OutputPart> parts;
  LargeVector<PointRef> refs;
  if (auto error = readShotTable(input, table, sampleStep); !error.empty()) return error;
  if (auto error = collectParts(outputs, parts); !error.empty()) return error;
  collectEchoes(table, parts, echoes, refs);
  return "";
}

struct WindowedRefinement::State {
  RefinementSummary summary;
  Vorlap::StrongPtr<Tessal::Field> times, origins, directions;
  std::vector<Vorlap::StrongPtr<Tessal::Representation>> reps;
  double sampleStep = 1.0, lightSpeed = 0.0;
  std::unique_ptr<RefineWindow> window;
  std::uint32_t next = 0, count = 0;
  // The fragments taken up and not yet refined: their output parts and, per echo given to
  // the window, where its point lies.
  struct Pending {
    std::string name;
    std::vector<OutputPart> parts;
    std::vector<PointRef> refs;
  };
  std::map<std::uint64_t, Pending> pending;

  std::string open(Tessal::BundlePtr& input, const RefineSettings& s, const WindowSettings& w);
  FragmentShots shotsOf(const std::string& name) const;
  void takeUp(std::uint32_t fragment);
  void apply(const RefinedBlock& block, std::vector<std::string>& names);
  void applyTo(Pending& fragment, const RefinedBlock& block, std::span<const std::int32_t> at);
};

std::string WindowedRefinement::State::open(Tessal::BundlePtr& input, const RefineSettings& s,
                                            const WindowSettings& w) {
  const auto shots = inputGrid(input, schema::kShotsGrid);
  if (!shots) return "refinement: the input has no \"Shots\" grid";
  times = (*shots)(schema::kGPSTime, ""), origins = (*shots)(schema::kPositions, "");
  directions = (*shots)(schema::kDirectionDelta, "");
  if (!times || !origins || !directions)
    return "refinement: \"Shots\" lacks GPSTime, Positions or Waveforms.DirectionDelta";
  count = std::uint32_t(origins->getNumberOfFragments());
  const ScannerDevice scanner(shots, inputGrid(input, schema::kWaveformsGrid));
  lightSpeed = scanner.lightSpeed;
  sampleStep = sampleRangeStep(scanner.sampleInterval, scanner.lightSpeed);
  if (!(lightSpeed > 0.0)) return "refinement: the scanner's light speed is not positive";
  window = std::make_unique<RefineWindow>(lightSpeed, scanner.isRadial(), s, w);
  return "";
}

// The fragment's shots; none when its arrays are missing or of different lengths.
FragmentShots WindowedRefinement::State::shotsOf(const std::string& name) const {
  FragmentShots f;
  const auto t = inputArray<double>(times, name);
  const auto o = inputArray<point>(origins, name);
  const auto d = inputArray<vector>(directions, name);
  if (!t || !o || !d || o->size() != t->size() || d->size() != t->size()) return f;
  f.time.resize(t->size()), f.origin.resize(t->size()), f.direction.resize(t->size());
  t->copyOut(f.time.data()), o->copyOut(f.origin.data()), d->copyOut(f.direction.data());
  return f;
}

void WindowedRefinement::State::takeUp(std::uint32_t fragment) {
  Pending p{schema::fragmentName(fragment), {}, {}};
  std::vector<OutputPart> parts;
  std::size_t points = 0;
  for (const auto& rep : reps) {
    parts.push_back(partOf(rep, p.name));
    if (parts.back().time) points += parts.back().time->size();
  }
  // Held until the fragment is refined: sized for its points, not grown by doubling.
  std::vector<WindowEcho> echoes;
  echoes.reserve(points), p.refs.reserve(points);
  for (OutputPart& part : parts) {
    if (!part.time) continue;
    if (!part.complete()) {
      summary.error = "refinement: output fragment " + p.name +
                      " lacks a point field or holds fields of different lengths";
      return;
    }
    const auto k = std::uint32_t(p.parts.size());
    for (std::uint32_t i = 0; i < part.time->size(); ++i) {
      const std::uint8_t zone = part.zone->get(i);
      const double oneWay = part.range->get(i) / lightSpeed;
      if (zone == kNoZone || !std::isfinite(oneWay)) continue;
      const auto [channel, amplitude] = channelAndAmplitude(part, i);
      echoes.push_back({part.time->get(i), oneWay, zone, part.classification->get(i) == kNoiseClass,
                        channel, amplitude});
      p.refs.push_back({k, i});
    }
    p.parts.push_back(std::move(part));
  }
  window->add(fragment, shotsOf(p.name), std::move(echoes));
  pending.emplace(fragment, std::move(p));
}

// Writes the block's results into one fragment's points (`at`: each echo's position in the
// block's arrays, -1 where it was not placed).
void WindowedRefinement::State::applyTo(Pending& f, const RefinedBlock& block,
                                        std::span<const std::int32_t> at) {
  std::vector<std::set<double>> touchedShots(f.parts.size());
  for (std::size_t j = 0; j < at.size(); ++j) {
    if (at[j] < 0) continue;
    const auto k = std::size_t(at[j]);
    OutputPart& p = f.parts[f.refs[j].part];
    const std::uint32_t i = f.refs[j].index;
    const std::uint8_t flag = block.result.flag[k];
    p.flags[i] = flag;
    summary.judged += !block.echoes[k].noise;
    if (flag & kMarkedNoise) p.classification->set(i, kNoiseClass), ++summary.markedNoise;
    if (!(flag & kMovedZone)) continue;
    ++summary.moved;
    touchedShots[f.refs[j].part].insert(p.time->get(i));
    movePoint(block.table, sampleStep, block.echoes[k], block.result.zone[k], p, i);
    touchedShots[f.refs[j].part].insert(p.time->get(i));
  }
  for (std::size_t k = 0; k < f.parts.size(); ++k) {
    if (!renumberReturns(f.parts[k], touchedShots[k]))
      summary.error = "refinement: a shot of " + f.name + " has over 255 returns";
    addFlagField(f.parts[k]);
    summary.points += f.parts[k].flags.size();
  }
}

void WindowedRefinement::State::apply(const RefinedBlock& block, std::vector<std::string>& names) {
  for (const RefinedBlock::Fragment& f : block.fragments) {
    const auto it = pending.find(f.key);
    if (it == pending.end()) continue;
    applyTo(it->second, block, f.echo);
    names.push_back(it->second.name);
    pending.erase(it);
  }
}

WindowedRefinement::WindowedRefinement(Tessal::BundlePtr& input,
                                       const std::vector<Vorlap::StrongPtr<Tessal::Grid>>& outputs,
                                       std::uint32_t firstFragment, const RefineSettings& settings,
                                       const WindowSettings& window)
    : state_(std::make_unique<State>()) {
  State& s = *state_;
  s.next = firstFragment;
  for (const auto& grid : outputs) {
    auto rep = grid ? grid->getCartesianRepresentation(schema::kScannerChart)
                    : Vorlap::StrongPtr<Tessal::Representation>();
    if (rep) s.reps.push_back(rep);
  }
  s.summary.error = s.open(input, settings, window);
}

WindowedRefinement::~WindowedRefinement() = default;

std::vector<std::string> WindowedRefinement::advance(std::uint32_t finishedBelow, bool last) {
  State& s = *state_;
  std::vector<std::string> names;
  if (!s.summary.error.empty()) return names;
  for (const std::uint32_t end = std::min(finishedBelow, s.count); s.next < end;) {
    s.takeUp(s.next++);
    if (!s.summary.error.empty()) return names;
  }
  s.window->refineReady(last, [&](const RefinedBlock& b) { s.apply(b, names); });
  return s.summary.error.empty() ? names : std::vector<std::string>();
}

const RefinementSummary& WindowedRefinement::summary() const {
  return state_->summary;
}

RefinementSummary refineZones(Tessal::BundlePtr& input,
                              const std::vector<Vorlap::StrongPtr<Tessal::Grid>>& outputs,
                              const RefineSettings& settings, const WindowSettings& window) {
  WindowedRefinement refinement(input, outputs, 0, settings, window);
  refinement.advance(std::numeric_limits<std::uint32_t>::max(), true);
  return refinement.summary();
}

}  // namespace FullWaveform
