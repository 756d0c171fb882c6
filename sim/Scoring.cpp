#include "sim/Scoring.hpp"

#include <cmath>
#include <map>
#include <set>
#include <stdexcept>
#include <unordered_map>

#include "sim/SurveyBundle.hpp"

namespace quillo::sim {

namespace {

using Vorlap::StrongPtr;

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

struct Truth {
  std::unordered_map<double, std::uint64_t> shotByTime;
  std::vector<double> shotTimes;
  std::set<std::pair<std::uint64_t, int>> echoes;  // (emitting shot, zone)
  std::map<std::uint64_t, int> zoneByRecorder;     // recording shot -> true zone
};

Truth readTruth(const std::string& file) {
  auto b = loadFile(file);
  Truth t;
  t.shotTimes = readAll<double>(fieldOf(b, "Shots", "GPSTime"));
  if (t.shotTimes.empty())
    throw std::runtime_error(file + ": no shots (is it a simulated survey?)");
  for (std::size_t k = 0; k < t.shotTimes.size(); ++k) t.shotByTime[t.shotTimes[k]] = k;
  for (auto [emitter, zone] : {std::pair{TruthField::RowEmitter, TruthField::RowZone},
                               std::pair{TruthField::OnlineEmitter, TruthField::OnlineZone}}) {
    const auto e = readAll<std::uint32_t>(fieldOf(b, "Truth", emitter));
    const auto z = readAll<std::uint8_t>(fieldOf(b, "Truth", zone));
    if (e.size() != z.size()) throw std::runtime_error(file + ": truth arrays differ in length");
    for (std::size_t i = 0; i < e.size(); ++i) {
      t.echoes.insert({e[i], z[i]});
      t.zoneByRecorder[e[i] + z[i]] = z[i];
    }
  }
  if (t.echoes.empty()) throw std::runtime_error(file + ": holds no truth grid");
  return t;
}

void scoreOutput(const std::string& file, const Truth& truth, ZoneScoreReport& r) {
  auto b = loadFile(file);
  const auto times = readAll<double>(fieldOf(b, "FWF", "GPSTime"));
  const auto zones = readAll<std::uint8_t>(fieldOf(b, "FWF", "MTA"));
  if (times.size() != zones.size())
    throw std::runtime_error(file + ": GPSTime and MTA differ in length");
  for (std::size_t p = 0; p < times.size(); ++p) {
    ++r.points;
    auto shot = truth.shotByTime.find(times[p]);
    if (zones[p] == 255) ++r.noZone;
    if (shot == truth.shotByTime.end() || zones[p] == 255) {
      ++r.unmatched;
      continue;
    }
    const int zone = zones[p];
    if (truth.echoes.count({shot->second, zone})) ++r.correct;
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
  r.trueEchoes = truth.echoes.size();
  for (const auto& file : outputs) scoreOutput(file, truth, r);
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

std::string reportAsJson(const ZoneScoreReport& r) {
  std::string s =
      "{\"points\":" + std::to_string(r.points) + ",\"correct\":" + std::to_string(r.correct) +
      ",\"zone_accuracy\":" + std::to_string(r.zoneAccuracy()) +
      ",\"no_zone\":" + std::to_string(r.noZone) + ",\"unmatched\":" + std::to_string(r.unmatched) +
      ",\"true_echoes\":" + std::to_string(r.trueEchoes) + ",\"confusion\":[";
  for (int t = 0; t < 10; ++t) {
    s += t ? ",[" : "[";
    for (int a = 0; a < 10; ++a)
      s += (a ? "," : "") + std::to_string(r.confusion[std::size_t(t)][std::size_t(a)]);
    s += "]";
  }
  return s + "]}\n";
}

}  // namespace quillo::sim
