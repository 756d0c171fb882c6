// The strict scorer on hand-made truths: each point is judged by its own echo, so one zone for
// an online wave holding echoes of two emitting shots is wrong for one of them, a bird is
// judged as a bird, and a point without an echo near its arrival is counted apart.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "sim/Scoring.hpp"

using namespace quillo::sim;

namespace {

constexpr double kC = 3.0e8, kInterval = 1.0e-6;

// Shots 1 µs apart; echoes recorded after shot 5 from shots 2 and 3, a bird of shot 8, an
// echo lost in the blind window.
SurveyTruth handMadeTruth() {
  SurveyTruth t;
  for (int k = 0; k < 20; ++k) t.shotTimes.push_back(1000.0 + k * kInterval + (k % 3) * 1e-8);
  t.lightSpeed = kC;
  t.echoes = {{2, 3, 480.0, Target::Ground, true},
              {3, 2, 330.0, Target::Ground, true},
              {8, 0, 60.0, Target::Bird, true},
              {10, 1, 150.1, Target::Vegetation, false}};
  return t;
}

// The point an echo gives when its wave is put in `zone`: what the module would write.
ScoredPoint pointOf(const SurveyTruth& t, const TruthEcho& e, int zone, std::uint8_t cls = 1) {
  const double arrival = t.shotTimes[e.emitter] + 2.0 * e.range / kC;
  const std::size_t emitter = e.emitter + e.zone - zone;
  return {t.shotTimes[emitter], 0.5 * kC * (arrival - t.shotTimes[emitter]), std::uint8_t(zone),
          cls};
}

}  // namespace

TEST(StrictScoring, OneZoneForTwoEmittersInOneWaveIsWrongForOne) {
  const SurveyTruth t = handMadeTruth();
  ZoneScorer scorer(t);
  // The online wave recorded after shot 5 put in zone 3: right for shot 2's echo only.
  scorer.add({pointOf(t, t.echoes[0], 3), pointOf(t, t.echoes[1], 3)});
  const ZoneScoreReport r = scorer.finish();
  EXPECT_EQ(r.points, 2u);
  EXPECT_EQ(r.correct, 1u);
  EXPECT_EQ(r.wrongZone, 1u);
  EXPECT_EQ(r.lenientCorrect, 2u);  // the lenient rule finds shot 2's echo for both
  EXPECT_EQ(r.wrongByTarget[std::size_t(Target::Ground)], 1u);
  EXPECT_EQ(r.confusion[2][3], 1u);
  EXPECT_EQ(r.confusion[3][3], 1u);
  EXPECT_EQ(r.realEchoes, 2u);  // the bird is not real, the blind echo not recorded
  EXPECT_EQ(r.realEchoesReached, 1u);
  EXPECT_EQ(r.blindEchoes, 1u);
  EXPECT_NEAR(r.rangeErrorMedian, 0.0, 1e-4);  // GPS times carry a few µm of rounding
}

TEST(StrictScoring, BirdsAreJudgedAsBirdsAndCountedWhenMarkedNoise) {
  const SurveyTruth t = handMadeTruth();
  ZoneScorer scorer(t);
  scorer.add({pointOf(t, t.echoes[2], 2, 7), pointOf(t, t.echoes[2], 0, 1)});
  const ZoneScoreReport r = scorer.finish();
  EXPECT_EQ(r.correct, 1u);
  EXPECT_EQ(r.wrongByTarget[std::size_t(Target::Bird)], 1u);
  EXPECT_EQ(r.offSurfacePoints(), 2u);
  EXPECT_EQ(r.offSurfaceMarkedNoise, 1u);
  EXPECT_EQ(r.notNoise, 1u);
  EXPECT_EQ(r.notNoiseWrong, 0u);  // the wrong one is classified as noise
  EXPECT_EQ(r.realMarkedNoise, 0u);
}

TEST(StrictScoring, PointsThatCannotBeTracedAreCountedApart) {
  const SurveyTruth t = handMadeTruth();
  ZoneScorer scorer(t);
  ScoredPoint farOff = pointOf(t, t.echoes[0], 3);
  farOff.range += 2.5;  // beyond the tracing tolerance
  ScoredPoint near = pointOf(t, t.echoes[0], 3);
  near.range += 1.5;  // within it: a detector's error
  ScoredPoint noShot = near;
  noShot.gpsTime += 1e-9;
  ScoredPoint noZone = near;
  noZone.zone = 255;
  ScoredPoint blind = pointOf(t, t.echoes[3], 1);  // the blind echo is in no recording
  ScoredPoint pastTheEnd = near;
  pastTheEnd.zone = 30;
  scorer.add({farOff, near, noShot, noZone, blind, pastTheEnd});
  const ZoneScoreReport r = scorer.finish();
  EXPECT_EQ(r.points, 6u);
  EXPECT_EQ(r.correct, 1u);
  EXPECT_EQ(r.noZone, 1u);
  EXPECT_EQ(r.untraceable, 4u);
  EXPECT_EQ(r.correct + r.wrongZone + r.noZone + r.untraceable, r.points);
  EXPECT_NEAR(r.rangeErrorMedian, 1.5, 1e-4);
}

TEST(StrictScoring, ReportsGiveBothCountsAndTheSplitByTarget) {
  const SurveyTruth t = handMadeTruth();
  ZoneScorer scorer(t);
  scorer.add({pointOf(t, t.echoes[0], 3), pointOf(t, t.echoes[1], 3)});
  const ZoneScoreReport r = scorer.finish();
  const std::string text = reportAsText(r);
  EXPECT_NE(text.find("true zone 50.000 %"), std::string::npos) << text;
  EXPECT_NE(text.find("lenient"), std::string::npos);
  EXPECT_NE(text.find("ground 1, building 0"), std::string::npos) << text;
  const auto json = nlohmann::json::parse(reportAsJson(r));
  EXPECT_EQ(json["lenient_correct"], 2);
  EXPECT_EQ(json["wrong_zone_by_target"]["ground"], 1);
}

// A bird of shot 8 and a ground echo of shot 5 reach the receiver after shot 8 half a metre
// apart: one return. A point there is right in either echo's zone, and wrong in any other.
TEST(StrictScoring, TwoEchoesOfOneArrivalMakeEitherZoneRight) {
  SurveyTruth t = handMadeTruth();
  const double birdArrival = t.shotTimes[8] + 2.0 * 60.0 / kC;
  const double groundRange = 0.5 * kC * (birdArrival + 1.0 / kC - t.shotTimes[5]);
  t.echoes.push_back({5, 3, groundRange, Target::Ground, true});
  const TruthEcho bird = t.echoes[2], ground = t.echoes.back();
  ZoneScorer scorer(t);
  const ScoredPoint asGround = pointOf(t, bird, 3), asBird = pointOf(t, bird, 0),
                    neither = pointOf(t, ground, 1);
  EXPECT_EQ(scorer.traceEcho(asGround)->target, Target::Ground);
  EXPECT_EQ(scorer.traceEcho(asBird)->target, Target::Bird);
  ASSERT_EQ(scorer.echoesAt(neither).size(), 2u);
  EXPECT_EQ(scorer.echoesAt(neither).front()->target, Target::Ground);  // nearest first
  scorer.add({asGround, asBird, neither});
  const ZoneScoreReport r = scorer.finish();
  EXPECT_EQ(r.correct, 2u);
  EXPECT_EQ(r.sharedArrival, 1u);  // the point in the ground's zone, nearer the bird
  EXPECT_EQ(r.wrongByTarget[std::size_t(Target::Ground)], 1u);
  EXPECT_NE(reportAsText(r).find("1 share their arrival"), std::string::npos) << reportAsText(r);
}
