// Traces each output point to its own echo of the truth and tallies the scores; the reports
// as text and JSON.
#include "sim/Scoring.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <unordered_map>
#include <unordered_set>

#include "tessal/Schema.hpp"

namespace quillo::sim {

namespace {

constexpr std::uint8_t kNoiseClass = 7;  // the classification of points taken for noise
constexpr std::uint8_t kNoZone = 255;    // "MTA" of a point whose wave has no zone
using Tessal::schema::kRefinedMoved;
using Tessal::schema::kRefinedNoise;
// A point's range may be this far (m, one way) from its echo's and still be traced to it:
// well beyond the detector's error, well below the gap between a canopy and its ground.
constexpr double kTraceTolerance = 2.0;

std::uint64_t emitterZoneKey(std::uint64_t emitter, int zone) {
  return emitter << 8 | std::uint64_t(zone & 0xFF);
}

}  // namespace

struct ZoneScorer::Index {
  struct Entry {
    std::uint64_t recorder;
    double offset;  // arrival after the recording shot, s
    std::uint32_t echo;
    bool operator<(const Entry& o) const {
      return recorder != o.recorder ? recorder < o.recorder : offset < o.offset;
    }
  };

  explicit Index(SurveyTruth t) : truth(std::move(t)), reached(truth.echoes.size(), false) {
    const auto& times = truth.shotTimes;
    shotByTime.reserve(times.size());
    for (std::size_t k = 0; k < times.size(); ++k) shotByTime[times[k]] = k;
    for (std::uint32_t i = 0; i < truth.echoes.size(); ++i) {
      const TruthEcho& e = truth.echoes[i];
      const std::uint64_t recorder = std::uint64_t(e.emitter) + e.zone;
      if (!e.recorded || recorder >= times.size()) continue;
      entries.push_back({recorder, arrival(e.emitter, e.range) - times[recorder], i});
      emitterZones.insert(emitterZoneKey(e.emitter, e.zone));
    }
    std::sort(entries.begin(), entries.end());
  }

  double arrival(std::uint64_t emitter, double range) const {
    return truth.shotTimes[emitter] + 2.0 * range / truth.lightSpeed;
  }

  // The echoes recorded after shot + zone within the tolerance of the point's arrival,
  // nearest first.
  std::vector<const Entry*> near(const ScoredPoint& p, std::uint64_t shot) const {
    std::vector<const Entry*> found;
    const std::uint64_t recorder = shot + p.zone;
    if (recorder >= truth.shotTimes.size()) return found;
    const double offset = arrival(shot, p.range) - truth.shotTimes[recorder];
    const double tolerance = kTraceTolerance * 2.0 / truth.lightSpeed;
    const auto first =
        std::lower_bound(entries.begin(), entries.end(), Entry{recorder, offset - tolerance, 0});
    for (auto c = first; c != entries.end() && c->recorder == recorder; ++c) {
      if (c->offset > offset + tolerance) break;
      found.push_back(&*c);
    }
    std::stable_sort(found.begin(), found.end(), [&](const Entry* a, const Entry* b) {
      return std::fabs(a->offset - offset) < std::fabs(b->offset - offset);
    });
    return found;
  }

  // The point's own echo: of the echoes at its arrival, the nearest one in the point's zone,
  // else the nearest. Two echoes within the tolerance (a bird or dust echo arriving with a
  // ground echo of another shot) make one return that the point stands for either way.
  const Entry* trace(const ScoredPoint& p, std::uint64_t shot) const {
    const std::vector<const Entry*> found = near(p, shot);
    for (const Entry* c : found)
      if (truth.echoes[c->echo].zone == p.zone) return c;
    return found.empty() ? nullptr : found.front();
  }

  SurveyTruth truth;
  std::unordered_map<double, std::uint64_t> shotByTime;
  std::vector<Entry> entries;
  std::unordered_set<std::uint64_t> emitterZones;  // the lenient rule's truth
  std::vector<bool> reached;
  std::vector<double> rangeErrors;
};

ZoneScorer::ZoneScorer(SurveyTruth truth) : index_(std::make_unique<Index>(std::move(truth))) {}
ZoneScorer::~ZoneScorer() = default;

bool ZoneScorer::isCorrect(const ScoredPoint& p) const {
  if (p.zone == kNoZone) return false;
  const auto shot = index_->shotByTime.find(p.gpsTime);
  const auto* entry = shot == index_->shotByTime.end() ? nullptr : index_->trace(p, shot->second);
  return entry && index_->truth.echoes[entry->echo].zone == p.zone;
}

const TruthEcho* ZoneScorer::traceEcho(const ScoredPoint& p) const {
  if (p.zone == kNoZone) return nullptr;
  const auto shot = index_->shotByTime.find(p.gpsTime);
  const auto* entry = shot == index_->shotByTime.end() ? nullptr : index_->trace(p, shot->second);
  return entry ? &index_->truth.echoes[entry->echo] : nullptr;
}

std::vector<const TruthEcho*> ZoneScorer::echoesAt(const ScoredPoint& p) const {
  std::vector<const TruthEcho*> echoes;
  if (p.zone == kNoZone) return echoes;
  const auto shot = index_->shotByTime.find(p.gpsTime);
  if (shot == index_->shotByTime.end()) return echoes;
  for (const auto* entry : index_->near(p, shot->second))
    echoes.push_back(&index_->truth.echoes[entry->echo]);
  return echoes;
}

void ZoneScorer::add(const std::vector<ScoredPoint>& points) {
  ZoneScoreReport& r = report_;
  for (const ScoredPoint& p : points) {
    ++r.points;
    const bool noise = p.classification == kNoiseClass;
    r.notNoise += !noise;
    r.refinedMoved += (p.refined & kRefinedMoved) != 0;
    r.refinedNoise += (p.refined & kRefinedNoise) != 0;
    if (p.zone == kNoZone) {
      ++r.noZone;
      continue;
    }
    const auto shot = index_->shotByTime.find(p.gpsTime);
    const auto* entry = shot == index_->shotByTime.end() ? nullptr : index_->trace(p, shot->second);
    if (shot != index_->shotByTime.end())
      r.lenientCorrect += index_->emitterZones.count(emitterZoneKey(shot->second, p.zone));
    if (!entry) {
      ++r.untraceable;
      continue;
    }
    const TruthEcho& echo = index_->truth.echoes[entry->echo];
    r.refinedMovedCorrect += (p.refined & kRefinedMoved) && echo.zone == p.zone;
    r.refinedNoiseOffSurface += (p.refined & kRefinedNoise) && isOffSurface(echo.target);
    const auto target = std::size_t(echo.target);
    ++r.pointsByTarget[target];
    r.confusion[std::min<std::size_t>(echo.zone, 9)][std::min<std::size_t>(p.zone, 9)] += 1;
    r.offSurfaceMarkedNoise += noise && isOffSurface(echo.target);
    if (echo.zone == p.zone) {
      ++r.correct;
      r.sharedArrival += entry != index_->near(p, shot->second).front();
      index_->reached[entry->echo] = true;
      r.realMarkedNoise += noise && !isOffSurface(echo.target);
      index_->rangeErrors.push_back(std::fabs(p.range - echo.range));
    } else {
      ++r.wrongZone;
      ++r.wrongByTarget[target];
      r.notNoiseWrong += !noise;
    }
  }
}

ZoneScoreReport ZoneScorer::finish() {
  ZoneScoreReport& r = report_;
  const auto& echoes = index_->truth.echoes;
  r.trueEchoes = echoes.size();
  for (std::size_t i = 0; i < echoes.size(); ++i) {
    r.blindEchoes += !echoes[i].recorded;
    const bool real = echoes[i].recorded && !isOffSurface(echoes[i].target);
    r.realEchoes += real;
    r.realEchoesReached += real && index_->reached[i];
  }
  auto& errors = index_->rangeErrors;
  if (!errors.empty()) {
    std::sort(errors.begin(), errors.end());
    r.rangeErrorMedian = errors[errors.size() / 2];
    r.rangeErrorP95 = errors[std::min(errors.size() - 1, errors.size() * 95 / 100)];
  }
  return r;
}

namespace {

using ull = unsigned long long;

std::string targetCounts(const TargetCounts& counts) {
  std::string s;
  for (int t = 0; t < kTargetCount; ++t)
    s += std::string(t ? ", " : "") + targetName(Target(t)) + " " +
         std::to_string(counts[std::size_t(t)]);
  return s;
}

std::string confusionText(const ZoneScoreReport& r) {
  std::string s = "confusion (rows: true zone, columns: assigned zone 0..9)\n";
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

}  // namespace

std::string reportAsText(const ZoneScoreReport& r) {
  char line[512];
  std::string s;
  std::snprintf(line, sizeof line,
                "points %llu: true zone %.3f %% (%llu), wrong zone %llu, without zone %llu, "
                "untraceable %llu\n",
                ull(r.points), 100.0 * r.zoneAccuracy(), ull(r.correct), ull(r.wrongZone),
                ull(r.noZone), ull(r.untraceable));
  s += line;
  if (r.sharedArrival) {
    std::snprintf(line, sizeof line,
                  "of the true: %llu share their arrival with another echo of another zone "
                  "(within %.0f m)\n",
                  ull(r.sharedArrival), kTraceTolerance);
    s += line;
  }
  std::snprintf(line, sizeof line,
                "lenient (any echo of the emitting shot in that zone): true zone %.3f %% (%llu)\n",
                100.0 * r.lenientAccuracy(), ull(r.lenientCorrect));
  s += line;
  std::snprintf(line, sizeof line,
                "not classified as noise: %llu points, wrong zone %.4f %% (%llu)\n",
                ull(r.notNoise), 100.0 * r.notNoiseWrongShare(), ull(r.notNoiseWrong));
  s += line;
  s += "wrong zone by target: " + targetCounts(r.wrongByTarget) + "\n";
  std::snprintf(line, sizeof line, "birds and dust: %llu points, %.2f %% classified as noise\n",
                ull(r.offSurfacePoints()), 100.0 * r.offSurfaceMarkedShare());
  s += line;
  std::snprintf(line, sizeof line,
                "real echoes reached %.3f %% (%llu of %llu recorded; %llu echoes lost in the "
                "blind window); real points marked noise %llu; range error of correct points: "
                "median %.3f m, 95 %% %.3f m\n",
                100.0 * r.reachedShare(), ull(r.realEchoesReached), ull(r.realEchoes),
                ull(r.blindEchoes), ull(r.realMarkedNoise), r.rangeErrorMedian, r.rangeErrorP95);
  s += line;
  if (r.refinedMoved || r.refinedNoise) {
    std::snprintf(line, sizeof line,
                  "refined: %llu points moved to another zone (%llu of them now true), %llu "
                  "classified as noise (%llu of them birds or dust)\n",
                  ull(r.refinedMoved), ull(r.refinedMovedCorrect), ull(r.refinedNoise),
                  ull(r.refinedNoiseOffSurface));
    s += line;
  }
  return s + confusionText(r);
}

std::string reportAsJson(const ZoneScoreReport& r) {
  nlohmann::ordered_json byTarget, wrongByTarget;
  for (int t = 0; t < kTargetCount; ++t) {
    byTarget[targetName(Target(t))] = r.pointsByTarget[std::size_t(t)];
    wrongByTarget[targetName(Target(t))] = r.wrongByTarget[std::size_t(t)];
  }
  const nlohmann::ordered_json j = {{"points", r.points},
                                    {"correct", r.correct},
                                    {"zone_accuracy", r.zoneAccuracy()},
                                    {"wrong_zone", r.wrongZone},
                                    {"no_zone", r.noZone},
                                    {"untraceable", r.untraceable},
                                    {"shared_arrival", r.sharedArrival},
                                    {"lenient_correct", r.lenientCorrect},
                                    {"lenient_zone_accuracy", r.lenientAccuracy()},
                                    {"not_noise", r.notNoise},
                                    {"not_noise_wrong_zone", r.notNoiseWrong},
                                    {"points_by_target", byTarget},
                                    {"wrong_zone_by_target", wrongByTarget},
                                    {"off_surface_marked_noise", r.offSurfaceMarkedNoise},
                                    {"true_echoes", r.trueEchoes},
                                    {"blind_echoes", r.blindEchoes},
                                    {"real_echoes", r.realEchoes},
                                    {"real_echoes_reached", r.realEchoesReached},
                                    {"reached_share", r.reachedShare()},
                                    {"real_marked_noise", r.realMarkedNoise},
                                    {"refined_moved", r.refinedMoved},
                                    {"refined_moved_correct", r.refinedMovedCorrect},
                                    {"refined_noise", r.refinedNoise},
                                    {"refined_noise_off_surface", r.refinedNoiseOffSurface},
                                    {"range_error_median", r.rangeErrorMedian},
                                    {"range_error_p95", r.rangeErrorP95},
                                    {"confusion", r.confusion}};
  return j.dump() + "\n";
}

}  // namespace quillo::sim
