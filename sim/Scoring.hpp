// Scoring of run outputs against a simulated survey's truth, echo by echo. An output point's
// "GPSTime" (its emitting shot) plus its "MTA" give the shot after which its echo was recorded,
// whatever zone was chosen, and "GPSTime" + 2 "Range" / c its arrival; the truth's echo recorded
// after that shot nearest that arrival is the point's own echo, and the point has the true zone
// when the zones agree. Where two echoes arrived within the trace tolerance of each other (one
// return), the point is traced to the one in its own zone; the report counts these apart. The
// lenient count (any echo of the emitting shot in the point's zone) is kept beside it for
// comparison.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "sim/Survey.hpp"
#include "tessal/Bundle.hpp"

namespace quillo::sim {

using TargetCounts = std::array<std::uint64_t, kTargetCount>;

struct ZoneScoreReport {
  // Every point is one of: correct, wrongZone, noZone, untraceable.
  std::uint64_t points = 0, correct = 0, wrongZone = 0, noZone = 0;
  std::uint64_t untraceable = 0;  // no echo of the truth near the point's arrival
  // Of the correct ones: another echo, of another zone, arrived nearer the point (the two made
  // one return; the point is right for the one in its zone).
  std::uint64_t sharedArrival = 0;
  std::uint64_t lenientCorrect = 0;                // by the lenient rule
  TargetCounts pointsByTarget{}, wrongByTarget{};  // traced points, by their echo's target
  std::uint64_t notNoise = 0, notNoiseWrong = 0;   // points not classified as noise
  std::uint64_t offSurfaceMarkedNoise = 0;         // traced bird and dust points classed noise
  std::uint64_t trueEchoes = 0;                    // every echo in the truth, blind ones too
  std::uint64_t blindEchoes = 0;                   // of those, lost in the receiver's blind window
  std::uint64_t realEchoes = 0;         // recorded echoes of real targets (not birds or dust)
  std::uint64_t realEchoesReached = 0;  // of those, echoes a correct point traces to
  std::uint64_t realMarkedNoise = 0;    // correct points of real targets classified as noise
  // Points the zone refinement changed ("Refined" field): moved (of them now with the true
  // zone), and classified as noise (of them birds or dust).
  std::uint64_t refinedMoved = 0, refinedMovedCorrect = 0;
  std::uint64_t refinedNoise = 0, refinedNoiseOffSurface = 0;
  // Range error of correctly zoned points against their own echo (m).
  double rangeErrorMedian = 0.0, rangeErrorP95 = 0.0;
  // confusion[true zone][assigned zone] of traced points, zones 0 to 9 (9: 9 or more)
  std::array<std::array<std::uint64_t, 10>, 10> confusion{};

  double zoneAccuracy() const { return share(correct, points); }
  double lenientAccuracy() const { return share(lenientCorrect, points); }
  double notNoiseWrongShare() const { return share(notNoiseWrong, notNoise); }
  double reachedShare() const { return share(realEchoesReached, realEchoes); }
  std::uint64_t offSurfacePoints() const {
    return pointsByTarget[std::size_t(Target::Bird)] + pointsByTarget[std::size_t(Target::Dust)];
  }
  double offSurfaceMarkedShare() const { return share(offSurfaceMarkedNoise, offSurfacePoints()); }
  static double share(std::uint64_t part, std::uint64_t whole) {
    return whole ? double(part) / double(whole) : 0.0;
  }
};

// A point of a run output as the scorer reads it.
struct ScoredPoint {
  double gpsTime, range;
  std::uint8_t zone, classification;
  std::uint8_t refined = 0;  // the "Refined" bits (0 when the output has no such field)
};

// One echo of the truth: emitting shot, true zone, range, target, recorded or blind.
struct TruthEcho {
  std::uint32_t emitter;
  std::uint8_t zone;
  double range;
  Target target;
  bool recorded;
};

// The truth a scorer needs: shot times, the light speed and every echo.
struct SurveyTruth {
  std::vector<double> shotTimes;
  double lightSpeed = 0.0;
  std::vector<TruthEcho> echoes;
};

// Reads the truth from `truthFile` (the simulator's output); throws std::runtime_error naming
// the file and what is missing.
SurveyTruth readTruth(const std::string& truthFile);
// The same from a survey bundle in memory; `name` names it in messages.
SurveyTruth truthOf(Tessal::BundlePtr& survey, const std::string& name);
// The points of an output grid ("FWF"); throws std::runtime_error naming `name`.
std::vector<ScoredPoint> pointsOf(const Vorlap::StrongPtr<Tessal::Grid>& fwf,
                                  const std::string& name);

// Scores points against a truth; call add for each output's points, then finish once.
class ZoneScorer {
 public:
  explicit ZoneScorer(SurveyTruth truth);
  ~ZoneScorer();
  void add(const std::vector<ScoredPoint>& points);
  ZoneScoreReport finish();
  // Whether the point carries its own echo's zone (false when it cannot be traced).
  bool isCorrect(const ScoredPoint& point) const;
  // The echo of the truth the point traces to; nullptr when it cannot be traced.
  const TruthEcho* traceEcho(const ScoredPoint& point) const;
  // Every echo of the truth within the trace tolerance of the point's arrival, nearest first.
  std::vector<const TruthEcho*> echoesAt(const ScoredPoint& point) const;

 private:
  struct Index;
  std::unique_ptr<Index> index_;
  ZoneScoreReport report_;
};

// Reads the truth and every point of the given run outputs; throws std::runtime_error naming a
// file that cannot be used.
ZoneScoreReport scoreOutputs(const std::vector<std::string>& outputs, const std::string& truthFile);

std::string reportAsText(const ZoneScoreReport& r);
// The same figures as one JSON object (and the confusion table).
std::string reportAsJson(const ZoneScoreReport& r);

}  // namespace quillo::sim
