// Input check, values: reads each fragment's arrays once (without keeping them) and checks
// shot times increasing, beam origins finite, directions unit-length, every waveform row and
// online record timed at one of its fragment's shots, valid sample counts, sample times and
// the high-gain rows a run would drop as saturated. Problems are tallied per field, so a
// fault repeated in every fragment is reported once, with its count and first place.
// Fragments are checked on several threads, each on its own, and their findings joined in
// fragment order, so that the report is the one a walk through the fragments would give.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>

#include "app/InputCheckSteps.hpp"
#include "app/Spread.hpp"
#include "vorlap/Console.hpp"

namespace quillo::cli {

using namespace schema;
using Gemwold::PhysicalSpace::point;
using Gemwold::PhysicalSpace::vector;

namespace {

constexpr double kUnitTolerance = 1e-3;
// Every so many shots' spacing goes into the median that the pulse rate is compared with.
constexpr std::size_t kStepSampling = 16;

class Tally {
 public:
  Tally() = default;
  Tally(Tally&&) = default;  // the entries stay where they are, and with them last_
  Tally& operator=(Tally&&) = default;

  void note(const std::string& where, const std::string& what, const std::string& fix,
            std::uint32_t fragment, std::size_t element, Severity severity = Severity::Error) {
    // A fault mostly repeats along an array: comparing with the last one spares building the
    // key and looking it up for every element.
    if (last_ && last_->where == where && last_->what == what) {
      ++last_->count;
      return;
    }
    Entry& e = entries_[where + "\n" + what];
    if (e.count++ == 0) e = {severity, where, what, fix, 1, fragment, element};
    last_ = &e;
  }
  // Adds the findings of later fragments: counts add up, the first place stays the earlier.
  void join(const Tally& later) {
    for (const auto& [key, e] : later.entries_) {
      auto [at, added] = entries_.emplace(key, e);
      if (!added) at->second.count += e.count;
    }
  }
  void report(CheckReport& report) const {
    for (const auto& [key, e] : entries_)
      report.add(e.severity, e.where,
                 e.what + " (" + std::to_string(e.count) + " times; first: " +
                     fragmentName(e.fragment) + ", element " + std::to_string(e.element) + ")",
                 e.fix);
  }

 private:
  struct Entry {
    Severity severity;
    std::string where, what, fix;
    std::size_t count = 0;
    std::uint32_t fragment = 0;
    std::size_t element = 0;
  };
  std::map<std::string, Entry> entries_;
  Entry* last_ = nullptr;  // std::map keeps its entries in place
};

// The lowest and highest beam origin as a walk through the shots in order finds them with
// std::min and std::max, kept per fragment and joined in order: those keep the earlier of
// equal values, and a NaN only when it comes first (then it is both).
class Heights {
 public:
  void add(double h) {
    if (!any_) any_ = true, first_ = h;
    if (std::isnan(h)) return;
    lowest_ = numbers_ ? std::min(lowest_, h) : h;
    highest_ = numbers_ ? std::max(highest_, h) : h;
    numbers_ = true;
  }
  void join(const Heights& later) {
    if (!later.any_) return;
    if (!any_) {
      *this = later;
      return;
    }
    if (!later.numbers_) return;
    lowest_ = numbers_ ? std::min(lowest_, later.lowest_) : later.lowest_;
    highest_ = numbers_ ? std::max(highest_, later.highest_) : later.highest_;
    numbers_ = true;
  }
  void into(ShotFigures& figures) const {
    figures.any = any_;
    if (!any_) return;
    figures.lowest = std::isnan(first_) ? first_ : lowest_;
    figures.highest = std::isnan(first_) ? first_ : highest_;
  }

 private:
  bool any_ = false, numbers_ = false;
  double first_ = 0.0, lowest_ = 0.0, highest_ = 0.0;  // lowest_, highest_: of numbers only
};

// What one fragment's values gave, checked after shots up to `lastShotTime` (-inf: none).
struct FragmentValues {
  Tally tally;
  std::vector<double> shotSteps;
  Heights heights;
  std::optional<double> firstShotTime;  // the first finite one
  double lastShotTime = -INFINITY;      // the latest up to the fragment's end
};

// The fields the check reads, each looked up once for all fragments, with its place for
// findings: a look-up by name per fragment and field, and the place spelled out each time,
// cost more than checking a small fragment's values.
class CheckedFields {
 public:
  explicit CheckedFields(const InputGrids& grids) {
    const std::pair<const char*, const Vorlap::StrongPtr<Tessal::Grid>*> gridsByName[] = {
        {kShotsGrid, &grids.shots},
        {kWaveformsGrid, &grids.waveforms},
        {kOnlineGrid, &grids.online}};
    for (const auto& [gridName, grid] : gridsByName)
      for (const FieldRule& rule : kFields)
        if (std::strcmp(rule.grid, gridName) == 0)
          entries_.push_back({gridName, rule.field, *grid ? (**grid)(rule.field, "") : nullptr,
                              fieldPlace(gridName, rule.field)});
  }
  // The field (empty when missing, or its grid is out of scope) and its place.
  const Vorlap::StrongPtr<Tessal::Field>& field(const char* grid, const char* field) const {
    return entry(grid, field).field;
  }
  const std::string& place(const char* grid, const char* field) const {
    return entry(grid, field).place;
  }

 private:
  struct Entry {
    const char *grid, *name;
    Vorlap::StrongPtr<Tessal::Field> field;
    std::string place;
  };
  const Entry& entry(const char* grid, const char* field) const {
    // The callers name them by the schema's constants: the same pointers, mostly.
    for (const Entry& e : entries_)
      if (e.name == field && e.grid == grid) return e;
    for (const Entry& e : entries_)
      if (std::strcmp(e.name, field) == 0 && std::strcmp(e.grid, grid) == 0) return e;
    throw std::logic_error(std::string("the check reads no field ") + field + " of " + grid);
  }
  std::vector<Entry> entries_;
};

// The fragment's creator in the field; empty when either is missing.
Vorlap::StrongPtr<Tessal::CreativeArrayBase> creatorIn(
    const Vorlap::StrongPtr<Tessal::Field>& field, const std::string& fragment) {
  auto id = field ? field->getFragmentIDCollection()->findFragmentIDByName(fragment)
                  : Vorlap::StrongPtr<Tessal::FragmentID>();
  return id ? field->getCreator(id) : Vorlap::StrongPtr<Tessal::CreativeArrayBase>();
}

// The fragment's array without keeping it in its creator: a check must not hold the input.
template <class A>
Vorlap::StrongPtr<A> fetchFrom(const Vorlap::StrongPtr<Tessal::CreativeArrayBase>& creator) {
  if (!creator) return {};
  if (auto held = creator->heldData()) return Vorlap::dynamicPtrCast<A>(held);
  const bool caching = creator->cachingEnabled();
  creator->enableCaching(false);
  auto data = creator->create();
  creator->enableCaching(caching);
  return Vorlap::dynamicPtrCast<A>(data);
}

using Doubles = Tessal::MemArray<1, double>;

// The array's elements as one block: its own storage when it is one (as decoded arrays are),
// else a copy in `scratch`. A get() per element checks for an accessor and a stride each time.
template <class T>
const T* elementsOf(const Tessal::MemArray<1, T>& a, std::vector<T>& scratch) {
  if (const T* v = a.contiguousData()) return v;
  scratch.resize(a.size());
  a.copyOut(scratch.data());
  return scratch.data();
}

// Whether sorted shot times hold a record's time. Records come in time order, mostly a few
// shots apart: looking just ahead of the last match spares a search over the fragment for
// nearly every record; anything else is searched for (which also gives NaN its answer).
class ShotCursor {
 public:
  explicit ShotCursor(const std::vector<double>& times) : times_(times) {}
  bool holds(double t) {
    const std::size_t stop = std::min(at_ + kLookAhead, times_.size());
    for (std::size_t i = at_; i < stop && times_[i] <= t; ++i)
      if (times_[i] == t) {
        at_ = i;
        return true;
      }
    // What std::binary_search answers, keeping the place.
    const auto found = std::lower_bound(times_.begin(), times_.end(), t);
    at_ = std::size_t(found - times_.begin());
    return found != times_.end() && !(t < *found);
  }

 private:
  static constexpr std::size_t kLookAhead = 8;
  const std::vector<double>& times_;
  std::size_t at_ = 0;
};

bool finitePoint(const point& p) {
  return std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z);
}

double height(const Transform& m, const point& p) {
  return m[8] * p.x + m[9] * p.y + m[10] * p.z + m[11];
}

// Checks one fragment; the reader's messages go to the capture of the thread it runs on.
class ValueCheck {
 public:
  ValueCheck(const InputGrids& grids, const CheckedFields& fields, const Transform& toMap,
             bool readSamples)
      : grids_(grids), fields_(fields), toMap_(toMap), readSamples_(readSamples) {}

  FragmentValues fragment(std::uint32_t f, double lastShotTime) {
    lastShotTime_ = lastShotTime;
    name_ = fragmentName(f);
    shots(f);
    if (grids_.waveforms) waveforms(f);
    if (grids_.online) online(f);
    found_.lastShotTime = lastShotTime_;
    return std::move(found_);
  }

 private:
  // The reader says why (a value that does not fit the element type, damaged data).
  void unreadable(const char* grid, const char* field, std::uint32_t f) {
    // A fragment that is not there at all is the structure check's finding.
    if (!creator(grid, field)) return;
    std::string why = "(damaged data)";
    if (!console_.messages().empty()) {
      const std::string& message = console_.messages().back();
      why = message.substr(message.rfind(": ") + 2);
    }
    console_.clear();
    tally_.note(place(grid, field), "cannot be read: " + why,
                "store values that fit the element type, or write the file again", f, 0);
  }

  Vorlap::StrongPtr<Tessal::CreativeArrayBase> creator(const char* grid, const char* field) const {
    return creatorIn(fields_.field(grid, field), name_);
  }
  template <class A>
  Vorlap::StrongPtr<A> fetch(const char* grid, const char* field) const {
    return fetchFrom<A>(creator(grid, field));
  }
  const std::string& place(const char* grid, const char* field) const {
    return fields_.place(grid, field);
  }

  void shots(std::uint32_t f);
  void shotGeometry(std::uint32_t f);
  Vorlap::StrongPtr<Doubles> recordTimes(const char* gridName, std::uint32_t f);
  void waveforms(std::uint32_t f);
  void samples(std::uint32_t f, const Tessal::MemArray<1, std::uint16_t>& lengths,
               Vorlap::StrongPtr<Doubles> rowTimes);
  void online(std::uint32_t f);

  const InputGrids& grids_;
  const CheckedFields& fields_;
  const Transform& toMap_;
  bool readSamples_;
  FragmentValues found_;
  Tally& tally_ = found_.tally;
  Vorlap::ConsoleCapture console_;
  std::vector<double> shotTimes_;  // the fragment's, increasing
  std::string name_;               // the fragment's
  double lastShotTime_ = -INFINITY;
};

void ValueCheck::shots(std::uint32_t f) {
  auto times = fetch<Doubles>(kShotsGrid, kGPSTime);
  if (!times) return unreadable(kShotsGrid, kGPSTime, f);
  const std::string& where = place(kShotsGrid, kGPSTime);
  std::vector<double> scratch;
  const double* values = elementsOf(*times, scratch);
  shotTimes_.reserve(times->size());
  bool sorted = true;
  for (std::size_t i = 0; i < times->size(); ++i) {
    const double t = values[i];
    if (!std::isfinite(t)) {
      tally_.note(where, "holds a time that is not finite", "give every shot its GPS time", f, i);
      continue;
    }
    if (!found_.firstShotTime) found_.firstShotTime = t;
    if (!(t > lastShotTime_)) {
      tally_.note(where, "is not strictly increasing (within and across fragments)",
                  "sort the shots by time; drop repeated shots", f, i);
      // Only here can t fall below the last kept time: lastShotTime_ is the latest of them.
      sorted = sorted && !(shotTimes_.size() && t < shotTimes_.back());
    } else if (!shotTimes_.empty() && shotTimes_.size() % kStepSampling == 0)
      found_.shotSteps.push_back(t - lastShotTime_);
    lastShotTime_ = std::max(lastShotTime_, t);
    shotTimes_.push_back(t);
  }
  if (!sorted) std::sort(shotTimes_.begin(), shotTimes_.end());
  shotGeometry(f);
}

void ValueCheck::shotGeometry(std::uint32_t f) {
  auto origins = fetch<Tessal::MemArray<1, point>>(kShotsGrid, kPositions);
  auto directions = fetch<Tessal::MemArray<1, vector>>(kShotsGrid, kDirectionDelta);
  if (!origins) return unreadable(kShotsGrid, kPositions, f);
  if (!directions) return unreadable(kShotsGrid, kDirectionDelta, f);
  std::vector<point> pointScratch;
  const point* points = elementsOf(*origins, pointScratch);
  const std::string& originsPlace = place(kShotsGrid, kPositions);
  for (std::size_t i = 0; i < origins->size(); ++i) {
    const point p = points[i];
    if (!finitePoint(p)) {
      tally_.note(originsPlace, "holds a point that is not finite",
                  "give every shot its beam origin", f, i);
      continue;
    }
    found_.heights.add(height(toMap_, p));
  }
  std::vector<vector> vectorScratch;
  const vector* vectors = elementsOf(*directions, vectorScratch);
  const std::string& directionsPlace = place(kShotsGrid, kDirectionDelta);
  for (std::size_t i = 0; i < directions->size(); ++i) {
    const vector d = vectors[i];
    const double length = std::sqrt(d.x * d.x + d.y * d.y + d.z * d.z);
    if (!(std::abs(length - 1.0) <= kUnitTolerance))
      tally_.note(directionsPlace, "holds a direction that is not of unit length",
                  "divide each direction by its length", f, i);
  }
}

// The module finds a record's recording shot by the exact time: any other time is no shot.
// Returns the times read, or nullptr when they cannot be read.
Vorlap::StrongPtr<Doubles> ValueCheck::recordTimes(const char* gridName, std::uint32_t f) {
  auto times = fetch<Doubles>(gridName, kGPSTime);
  if (!times) {
    unreadable(gridName, kGPSTime, f);
    return nullptr;
  }
  std::vector<double> scratch;
  const double* values = elementsOf(*times, scratch);
  const std::string& where = place(gridName, kGPSTime);
  ShotCursor shots(shotTimes_);
  for (std::size_t i = 0; i < times->size(); ++i)
    if (!shots.holds(values[i]))
      tally_.note(where, "holds a time that is no shot time of the same fragment",
                  "give each record the exact GPSTime of the shot after which it was recorded, "
                  "and keep it in that shot's fragment",
                  f, i);
  return times;
}

void ValueCheck::waveforms(std::uint32_t f) {
  auto rowTimes = recordTimes(kWaveformsGrid, f);
  auto lengths = fetch<Tessal::MemArray<1, std::uint16_t>>(kWaveformsGrid, kFWFLength);
  auto sampleTimes = fetch<Doubles>(kWaveformsGrid, kSBLTime);
  if (!lengths) return unreadable(kWaveformsGrid, kFWFLength, f);
  if (!sampleTimes) return unreadable(kWaveformsGrid, kSBLTime, f);
  std::vector<double> scratch;
  const double* offsets = elementsOf(*sampleTimes, scratch);
  const std::string& where = place(kWaveformsGrid, kSBLTime);
  for (std::size_t i = 0; i < sampleTimes->size(); ++i)
    if (!(offsets[i] >= 0.0) || !std::isfinite(offsets[i]))
      tally_.note(where, "holds a time that is negative or not finite",
                  "give the time of the row's first sample after its recording shot, in s", f, i);
  samples(f, *lengths, std::move(rowTimes));
}

// `rowTimes`: as recordTimes read them (nullptr when it could not).
void ValueCheck::samples(std::uint32_t f, const Tessal::MemArray<1, std::uint16_t>& lengths,
                         Vorlap::StrongPtr<Doubles> rowTimes) {
  auto channels = fetch<Tessal::MemArray<1, std::uint8_t>>(kWaveformsGrid, kChannel);
  if (!channels) return unreadable(kWaveformsGrid, kChannel, f);
  const std::size_t perRow = creator(kWaveformsGrid, kWaveformSamples)->extents()[0];
  // Reading the samples costs most; only a run with online records drops saturated rows.
  auto rows = readSamples_
                  ? fetch<Tessal::MemArray<2, std::uint16_t>>(kWaveformsGrid, kWaveformSamples)
                  : nullptr;
  if (readSamples_ && !rows) return unreadable(kWaveformsGrid, kWaveformSamples, f);
  const bool saturation = readSamples_ && grids_.online;
  // A saturated high-gain row loses nothing when a row of another channel has its echo. Times
  // that could not be read are tried again, for the reader's words on this finding too.
  if (saturation && !rowTimes) rowTimes = fetch<Doubles>(kWaveformsGrid, kGPSTime);
  if (saturation && !rowTimes) return unreadable(kWaveformsGrid, kGPSTime, f);
  std::set<double> lowGainTimes;
  for (std::size_t r = 0; saturation && r < channels->size(); ++r)
    if (channels->get(r) != 0) lowGainTimes.insert(rowTimes->get(r));
  std::vector<std::uint16_t> scratch;
  const std::uint16_t* counts = elementsOf(lengths, scratch);
  const std::string& lengthsPlace = place(kWaveformsGrid, kFWFLength);
  for (std::size_t r = 0; r < lengths.size(); ++r) {
    if (counts[r] > perRow)
      tally_.note(
          lengthsPlace,
          "says a row holds more samples than the rows have (" + std::to_string(perRow) + ")",
          "give the number of valid samples at the start of the row", f, r);
    if (!saturation || channels->get(r) != 0 || lowGainTimes.count(rowTimes->get(r))) continue;
    std::uint16_t peak = 0;
    for (std::size_t s = 0; s < std::min<std::size_t>(counts[r], perRow); ++s)
      peak = std::max(peak, rows->get(s, r));
    if (peak > kHighGainSaturation)
      tally_.note(place(kWaveformsGrid, kChannel),
                  "marks a row with samples above 1800 counts as channel 0, with no row of another "
                  "channel at its time: the run drops it as a saturated high-gain row",
                  "if the receiver has a single gain, write its rows as channel 1", f, r,
                  Severity::Warning);
  }
}

void ValueCheck::online(std::uint32_t f) {
  recordTimes(kOnlineGrid, f);
  auto ranges = fetch<Doubles>(kOnlineGrid, kRange);
  auto amplitudes = fetch<Tessal::MemArray<1, float>>(kOnlineGrid, kAmplitude);
  if (!ranges) return unreadable(kOnlineGrid, kRange, f);
  if (!amplitudes) return unreadable(kOnlineGrid, kAmplitude, f);
  if (!fetch<Tessal::MemArray<1, std::uint8_t>>(kOnlineGrid, kChannel))
    return unreadable(kOnlineGrid, kChannel, f);
  if (creator(kOnlineGrid, kReflectance) &&
      !fetch<Tessal::MemArray<1, float>>(kOnlineGrid, kReflectance))
    return unreadable(kOnlineGrid, kReflectance, f);
  std::vector<double> rangeScratch;
  const double* rangeValues = elementsOf(*ranges, rangeScratch);
  const std::string& rangesPlace = place(kOnlineGrid, kRange);
  for (std::size_t i = 0; i < ranges->size(); ++i)
    if (!std::isfinite(rangeValues[i]))
      tally_.note(rangesPlace, "holds a range that is not finite",
                  "give the range in m as if the echo were of zone 0", f, i);
  std::vector<float> amplitudeScratch;
  const float* amplitudeValues = elementsOf(*amplitudes, amplitudeScratch);
  const std::string& amplitudesPlace = place(kOnlineGrid, kAmplitude);
  for (std::size_t i = 0; i < amplitudes->size(); ++i)
    if (!std::isfinite(amplitudeValues[i]))
      tally_.note(amplitudesPlace, "holds an amplitude that is not finite",
                  "give the echo's amplitude in dB", f, i);
}

}  // namespace

void checkValues(const InputGrids& grids, const Transform& toMap, const CheckScope& scope,
                 CheckReport& report, ShotFigures& figures) {
  // Each fragment is checked as if no shot came before it; that is what a walk finds when
  // its first shot is later than every earlier one, else it is checked again when joined.
  std::vector<FragmentValues> found(report.fragments);
  const CheckedFields fields(grids);
  spreadOver(scope.threads, found.size(), [&](std::size_t f) {
    found[f] =
        ValueCheck(grids, fields, toMap, scope.readSamples).fragment(std::uint32_t(f), -INFINITY);
  });
  Tally tally;
  Heights heights;
  double lastShotTime = -INFINITY;
  for (std::uint32_t f = 0; f < found.size(); ++f) {
    FragmentValues& v = found[f];
    if (v.firstShotTime && !(*v.firstShotTime > lastShotTime))
      v = ValueCheck(grids, fields, toMap, scope.readSamples).fragment(f, lastShotTime);
    tally.join(v.tally);
    heights.join(v.heights);
    figures.shotSteps.insert(figures.shotSteps.end(), v.shotSteps.begin(), v.shotSteps.end());
    lastShotTime = std::max(lastShotTime, v.lastShotTime);
    v = {};  // done with it
  }
  heights.into(figures);
  tally.report(report);
}

}  // namespace quillo::cli
