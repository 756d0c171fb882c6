// A survey cut into a thousand tiny fragments: the run's bookkeeping (map positions,
// counts, the streaming save) visits each fragment once, so none is lost or counted twice,
// and the run takes seconds, not minutes (it walked every fragment per fragment before).
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <nlohmann/json.hpp>

#include "support/Command.hpp"
#include "support/TempDir.hpp"
#include "tessal/Bundle.hpp"
#include "tessal/Schema.hpp"

using namespace quillo::test;
namespace schema = Tessal::schema;

namespace {

struct OutputContent {
  std::size_t fragments = 0, points = 0, mapPoints = 0;
  std::map<std::string, std::uint64_t> pointsPerZone;
  bool fieldsAgree = true;  // every field has every fragment, of the same length
};

OutputContent readOutput(const std::string& file) {
  auto bundle = Tessal::BundlePtr::make();
  bool ok = false;
  Tessal::Bundle::load(ok, Tessal::LoaderParameters({file}), bundle);
  EXPECT_TRUE(ok) << file;
  double t = 0.0;
  auto grid = ok ? (*(*bundle.get())(t))(schema::kResultGrid) : nullptr;
  OutputContent c;
  if (!grid) return c;
  auto zones = (*grid)(schema::kMTA, schema::kScannerChart);
  auto mapped = (*grid)(schema::kPositions, "StandardCartesianChart3D");
  if (!zones || !mapped) return c;
  auto ids = zones->getFragmentIDCollection();
  c.fragments = ids->size();
  for (std::size_t f = 0; f < ids->size(); ++f) {
    auto data = Vorlap::dynamicPtrCast<Tessal::MemArray<1, std::uint8_t>>(
        zones->getCreator(ids->at(f))->create());
    c.points += data->size();
    for (std::size_t k = 0; k < data->size(); ++k) c.pointsPerZone[std::to_string(data->get(k))]++;
    for (const auto& rep : grid->representations())
      for (const auto& entry : rep->fields()) {
        auto id =
            entry.field->getFragmentIDCollection()->findFragmentIDByName(ids->at(f)->getName());
        auto creator = id ? entry.field->getCreator(id) : nullptr;
        if (!creator || creator->extents().back() == 0) c.fieldsAgree = false;
      }
  }
  auto mapIds = mapped->getFragmentIDCollection();
  for (std::size_t f = 0; f < mapIds->size(); ++f)
    c.mapPoints += mapped->getCreator(mapIds->at(f))->extents()[0];
  return c;
}

}  // namespace

TEST(ManyFragments, EveryFragmentOfAThousandArrivesOnceInTheOutputs) {
  TempDir dir;
  const std::string input = dir.file("many_210315_093000.kq");
  auto r = runQuillo("simulate --quiet --preset tiny --shots 10000 --fragment-shots 10 " + input);
  ASSERT_EQ(r.exitCode, 0) << r.output;
  r = runQuillo("run --quiet --mode fast --out-dir " + dir.file("out") + " --report " +
                dir.file("run.json") + " " + input);
  ASSERT_EQ(r.exitCode, 0) << r.output;
  std::ifstream reportFile(dir.file("run.json"));
  const auto report = nlohmann::json::parse(reportFile);
  std::size_t fragmentsWithPoints = 0;
  for (const auto& output : report["runs"][0]["outputs"]) {
    const std::string path = output["path"];
    SCOPED_TRACE(path);
    const OutputContent c = readOutput(path);
    EXPECT_EQ(c.points, output["points"].get<std::size_t>());
    EXPECT_EQ(c.mapPoints, c.points) << "every fragment mapped";
    EXPECT_TRUE(c.fieldsAgree);
    std::map<std::string, std::uint64_t> reported = output["points_per_zone"];
    EXPECT_EQ(c.pointsPerZone, reported) << "every fragment counted once";
    fragmentsWithPoints = std::max(fragmentsWithPoints, c.fragments);
  }
  // Most 10-shot fragments put points into the larger output (about 80 % of them).
  EXPECT_GT(fragmentsWithPoints, 600u);
}
