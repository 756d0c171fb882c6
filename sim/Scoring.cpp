#include "sim/Scoring.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <set>
#include <stdexcept>
#include <unordered_map>

#include "sim/SurveyBundle.hpp"

namespace quillo::sim {

namespace {

using Vorlap::StrongPtr;

constexpr std::uint8_t kNoiseClass = 7;  // the classification of points taken for noise

Tessal::BundlePtr loadFile(const std::string& file) {
  auto b = Tessal::BundlePtr::make();
  bool ok = false;
  Tessal::Bundle::load(ok, Tessal::LoaderParameters({file}), b);
  if (!ok) throw std::runtime_error(file + ": cannot be read as a .kq file");
  return b;
}

StrongPtr<Tessal::Field> fieldOf(Tessal::BundlePtr& b, const std::string& grid,
                                 const std::string& field) {
  double t = 0.0;
  auto slice = (*b.create())(t);
  auto g = slice ? (*slice)(grid) : nullptr;
  return g ? (*g)(field, "") : nullptr;
}

template <class T>
std::vector<T> readAll(const StrongPtr<Tessal::Field>& field) {
  std::vector<T> values;
  if (!field) return values;
  auto ids = field->getFragmentIDCollection();
  for (std::size_t f = 0; f < ids->size(); ++f) {
    auto creator = field->getCreator(ids->at(f));
    auto a = creator ? Vorlap::dynamicPtrCast<Tessal::MemArray<1, T>>(creator->create()) : nullptr;
    if (creator) creator->enableCaching(false);
    if (!a) continue;
    for (std::size_t k = 0; k < a->size(); ++k) values.push_back(a->get(k));
  }
  return values;
}

using EchoKey = std::pair<std::uint64_t, int>;  // (emitting shot, zone)

struct TrueEcho {
  std::vector<double> ranges;  // one per echo of that shot recorded in that zone
  bool real = false;           // a target on the ground, not a bird or dust
};

struct Truth {
  std::unordered_map<double, std::uint64_t> shotByTime;
  std::vector<double> shotTimes;
  std::map<EchoKey, TrueEcho> echoes;
  std::map<std::uint64_t, int> zoneByRecorder;  // recording shot -> true zone
};

struct TruthNames {
  const char *emitter, *zone, *range, *target;
};

Truth readTruth(const std::string& file) {
  auto b = loadFile(file);
  Truth t;
  t.shotTimes = readAll<double>(fieldOf(b, "Shots", "GPSTime"));
  if (t.shotTimes.empty())
    throw std::runtime_error(file + ": no shots (is it a simulated survey?)");
  for (std::size_t k = 0; k < t.shotTimes.size(); ++k) t.shotByTime[t.shotTimes[k]] = k;
  for (const TruthNames& n : {TruthNames{TruthField::RowEmitter, TruthField::RowZone,
                                         TruthField::RowRange, TruthField::RowTarget},
                              TruthNames{TruthField::OnlineEmitter, TruthField::OnlineZone,
                                         TruthField::OnlineRange, TruthField::OnlineTarget}}) {
    const auto e = readAll<std::uint32_t>(fieldOf(b, "Truth", n.emitter));
    const auto z = readAll<std::uint8_t>(fieldOf(b, "Truth", n.zone));
    const auto range = readAll<double>(fieldOf(b, "Truth", n.range));
    const auto target = readAll<std::uint8_t>(fieldOf(b, "Truth", n.target));
    if (e.size() != z.size() || range.size() != e.size() || target.size() != e.size())
      throw std::runtime_error(file + ": truth arrays differ in length");
    for (std::size_t i = 0; i < e.size(); ++i) {
      TrueEcho& echo = t.echoes[{e[i], z[i]}];
      echo.ranges.push_back(range[i]);
      echo.real = echo.real || target[i] != std::uint8_t(Target::Noise);
      t.zoneByRecorder[e[i] + z[i]] = z[i];
    }
  }
  if (t.echoes.empty()) throw std::runtime_error(file + ": holds no truth grid");
  return t;
}

struct Tally {
  std::set<EchoKey> reached;
  std::vector<double> rangeErrors;
};

// The truth holds one range per row (its first echo): a later echo in the same row (ground
// below a canopy) is far from it, so the median is the figure to read, not the mean.
void summarizeRangeErrors(std::vector<double>& errors, ZoneScoreReport& r) {
  if (errors.empty()) return;
  std::sort(errors.begin(), errors.end());
  r.rangeErrorMedian = errors[errors.size() / 2];
  r.rangeErrorP95 = errors[std::min(errors.size() - 1, errors.size() * 95 / 100)];
}

double nearestRangeError(const TrueEcho& echo, double range) {
  double best = std::numeric_limits<double>::infinity();
  for (double r : echo.ranges) best = std::min(best, std::fabs(r - range));
  return best;
}

void scoreOutput(const std::string& file, const Truth& truth, ZoneScoreReport& r, Tally& tally) {
  auto b = loadFile(file);
  const auto times = readAll<double>(fieldOf(b, "FWF", "GPSTime"));
  const auto zones = readAll<std::uint8_t>(fieldOf(b, "FWF", "MTA"));
  const auto ranges = readAll<double>(fieldOf(b, "FWF", "Range"));
  const auto classes = readAll<std::uint8_t>(fieldOf(b, "FWF", "Classification"));
  if (times.size() != zones.size() || ranges.size() != zones.size() ||
      classes.size() != zones.size())
    throw std::runtime_error(file + ": GPSTime, MTA, Range and Classification differ in length");
  for (std::size_t p = 0; p < times.size(); ++p) {
    ++r.points;
    auto shot = truth.shotByTime.find(times[p]);
    if (zones[p] == 255) ++r.noZone;
    if (shot == truth.shotByTime.end() || zones[p] == 255) {
      ++r.unmatched;
      continue;
    }
    const int zone = zones[p];
    auto echo = truth.echoes.find({shot->second, zone});
    if (echo == truth.echoes.end()) {
      ++r.wrongZone;
    } else {
      ++r.correct;
      tally.reached.insert(echo->first);
      if (echo->second.real && classes[p] == kNoiseClass) ++r.realMarkedNoise;
      tally.rangeErrors.push_back(nearestRangeError(echo->second, ranges[p]));
    }
    auto recorded = truth.zoneByRecorder.find(shot->second + std::uint64_t(zone));
    const int trueZone = recorded == truth.zoneByRecorder.end() ? 9 : std::min(recorded->second, 9);
    r.confusion[std::size_t(trueZone)][std::size_t(std::min(zone, 9))] += 1;
  }
}

}  // namespace

ZoneScoreReport scoreOutputs(const std::vector<std::string>& outputs,
                             const std::string& truthFile) {
  const Truth truth = readTruth(truthFile);
  ZoneScoreReport r;
  Tally tally;
  r.trueEchoes = truth.echoes.size();
  for (const auto& file : outputs) scoreOutput(file, truth, r, tally);
  for (const auto& [key, echo] : truth.echoes) {
    r.realEchoes += echo.real;
    r.realEchoesReached += echo.real && tally.reached.count(key);
  }
  summarizeRangeErrors(tally.rangeErrors, r);
  return r;
}

std::string reportAsText(const ZoneScoreReport& r) {
  char line[256];
  std::string s;
  std::snprintf(line, sizeof line,
                "points %llu, true zone %llu (%.3f %%), without zone %llu, unmatched %llu\n",
                (unsigned long long)r.points, (unsigned long long)r.correct,
                100.0 * r.zoneAccuracy(), (unsigned long long)r.noZone,
                (unsigned long long)r.unmatched);
  s += line;
  std::snprintf(line, sizeof line,
                "wrong zone %llu; real echoes reached %.3f %% (%llu of %llu); real points marked "
                "noise %llu; range error of correct points: median %.3f m, 95 %% %.3f m\n",
                (unsigned long long)r.wrongZone, 100.0 * r.reachedShare(),
                (unsigned long long)r.realEchoesReached, (unsigned long long)r.realEchoes,
                (unsigned long long)r.realMarkedNoise, r.rangeErrorMedian, r.rangeErrorP95);
  s += line;
  s += "confusion (rows: true zone, columns: assigned zone 0..9)\n";
  for (int t = 0; t < 10; ++t) {
    std::uint64_t sum = 0;
    for (auto v : r.confusion[std::size_t(t)]) sum += v;
    if (!sum) continue;
    s += "  " + std::to_string(t) + ":";
    for (auto v : r.confusion[std::size_t(t)]) s += " " + std::to_string(v);
    s += "\n";
  }
  return s;
}

}  // namespace quillo::sim
