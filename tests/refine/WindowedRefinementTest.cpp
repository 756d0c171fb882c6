// The windowed refinement on a run's output grids: the small demo scene (12 scan lines in two
// fragments) refined a fragment at a time gives the points of the whole strip refined at
// once, fragments are handed back only once the lines after them are in, and unreadable
// inputs or outputs are errors naming what is wrong.
#include <gtest/gtest.h>

#include "refine/ZoneRefinement.hpp"
#include "sim/Scenes.hpp"
#include "support/SceneRun.hpp"
#include "support/TempDir.hpp"
#include "tessal/Schema.hpp"

namespace FullWaveform {
namespace {

using Grids = std::vector<Vorlap::StrongPtr<Tessal::Grid>>;
using Refine = std::function<RefinementSummary(Tessal::BundlePtr&, const Grids&)>;

struct Refined {
  RefinementSummary summary;
  std::vector<std::vector<quillo::sim::ScoredPoint>> points;
};

// Runs the small demo scene and refines its outputs with `refine`; reads the points back.
Refined runAndRefine(const Refine& refine, bool readBack = true) {
  quillo::test::TempDir dir;
  Refined r;
  const auto after = [&](Tessal::BundlePtr& input, const Grids& outputs,
                         const quillo::sim::ZoneScorer&) {
    r.summary = refine(input, outputs);
    for (const auto& grid : outputs)
      if (readBack) r.points.push_back(quillo::sim::pointsOf(grid, "output"));
  };
  const auto scene = quillo::sim::zoneScenes(quillo::sim::SceneSize::Small).front();
  EXPECT_TRUE(
      quillo::test::runScene(scene.config, dir.path().string(), false, after).runError.empty());
  return r;
}

TEST(WindowedRefinement, FragmentsRefinedApartWithEveryLineAroundThemAreTheWholeStrip) {
  const Refined whole = runAndRefine([](Tessal::BundlePtr& input, const Grids& outputs) {
    return refineZones(input, outputs, {}, WindowSettings{12, 0});
  });
  ASSERT_GT(whole.summary.moved, 100u);
  ASSERT_GT(whole.summary.markedNoise, 10u);
  const Refined windowed = runAndRefine([](Tessal::BundlePtr& input, const Grids& outputs) {
    // Blocks of one fragment (six lines), the twelve lines around each as context.
    WindowedRefinement refinement(input, outputs, 0, {}, WindowSettings{12, 1});
    EXPECT_TRUE(refinement.advance(1).empty());
    EXPECT_TRUE(refinement.advance(2).empty()) << "the lines after fragment 0 are not all in";
    const std::vector<std::string> names = refinement.advance(2, true);
    EXPECT_EQ(names, (std::vector<std::string>{"Fragment_0", "Fragment_1"}));
    EXPECT_TRUE(refinement.advance(2, true).empty());
    return refinement.summary();
  });
  EXPECT_EQ(windowed.summary.error, "");
  EXPECT_EQ(windowed.summary.moved, whole.summary.moved);
  EXPECT_EQ(windowed.summary.markedNoise, whole.summary.markedNoise);
  EXPECT_EQ(windowed.summary.points, whole.summary.points);
  ASSERT_EQ(windowed.points.size(), whole.points.size());
  for (std::size_t k = 0; k < whole.points.size(); ++k) {
    ASSERT_EQ(windowed.points[k].size(), whole.points[k].size());
    std::size_t differ = 0;
    for (std::size_t i = 0; i < whole.points[k].size(); ++i) {
      const auto &a = whole.points[k][i], &b = windowed.points[k][i];
      differ += a.gpsTime != b.gpsTime || a.range != b.range || a.zone != b.zone ||
                a.classification != b.classification || a.refined != b.refined;
    }
    EXPECT_EQ(differ, 0u) << "output " << k;
  }
}

TEST(WindowedRefinement, EachEchoCarriesItsPointsChannelAndAmplitude) {
  ShotTable table;
  RefineEchoes echoes;
  std::string error;
  runAndRefine(
      [&](Tessal::BundlePtr& input, const Grids& outputs) {
        error = refinementArrays(input, outputs, table, echoes);
        return RefinementSummary{};
      },
      false);
  ASSERT_EQ(error, "");
  ASSERT_GT(echoes.size(), 1000u);
  // The scanner records in two channels of different gains; every echo has an amplitude.
  std::size_t perChannel[2] = {0, 0}, unknown = 0;
  for (const RefineEcho& e : echoes) {
    ++perChannel[e.channel > 0];
    unknown += !(e.amplitude > 0.0f);
  }
  EXPECT_GT(perChannel[0], echoes.size() / 4);
  EXPECT_GT(perChannel[1], echoes.size() / 4);
  EXPECT_EQ(unknown, 0u);
}

TEST(WindowedRefinement, UnreadableInputsAndOutputsAreErrors) {
  Tessal::BundlePtr empty = Tessal::BundlePtr::make();
  WindowedRefinement none(empty, {}, 0);
  EXPECT_EQ(none.summary().error, "refinement: the input has no \"Shots\" grid");
  EXPECT_TRUE(none.advance(5, true).empty());
  // An output fragment whose ranges, or amplitudes, are fewer than its points.
  for (const char* field : {Tessal::schema::kRange, Tessal::schema::kAmplitude}) {
    const Refined damaged = runAndRefine(
        [&](Tessal::BundlePtr& input, const Grids& outputs) {
          auto rep = outputs[0]->getCartesianRepresentation(Tessal::schema::kScannerChart);
          auto f = rep->findFieldByName(field);
          auto id = f->getFragmentIDCollection()->findFragmentIDByName("Fragment_1");
          f->setPersistentData(
              Vorlap::StrongPtr<Tessal::MemBase>(Vorlap::makeStrong<Tessal::MemArray<1, float>>(3)),
              id, Vorlap::Cache::MemCache(), "");
          WindowedRefinement refinement(input, outputs, 0);
          EXPECT_TRUE(refinement.advance(2, true).empty());
          return refinement.summary();
        },
        false);
    EXPECT_EQ(damaged.summary.error,
              "refinement: output fragment Fragment_1 lacks a point field or holds fields of "
              "different lengths")
        << field;
  }
}

}  // namespace
}  // namespace FullWaveform
