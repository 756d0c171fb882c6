// Point-cloud assembly, output fields and attributes on hand-made waves.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>

#include "output/OutputAttributes.hpp"
#include "output/PointCloud.hpp"
#include "support/Arrays.hpp"
#include "support/InputBundles.hpp"
#include "support/StoreFixture.hpp"

using namespace FullWaveform;
using namespace quillo::test;

namespace {

// Shots 1 us apart from t = 1; waves recorded at shots 1, 2, ... with echoes at `echoTimes`.
struct CloudFixture : ::testing::Test {
  CloudFixture() : s(shots()) {}
  static ShotFragment shots() {
    ShotFragment f;
    for (int k = 0; k < 10; ++k) f.times.push_back(1.0 + k * 1e-6);
    f.directions.assign(10, {0.0, 1.0, -1.0});
    return f;
  }
  WavePtr waveAt(int shot, std::vector<double> echoes) {
    return makeWave({1.0 + shot * 1e-6, echoes.front(), 100.f, 1, false, 100, echoes});
  }
  Vorlap::StrongPtr<Tessal::Grid> grid = Vorlap::makeStrong<Tessal::Grid>("FWF");
  std::uint32_t ids = 0;
  StoreFixture s;
};

Vorlap::StrongPtr<Tessal::Field> fieldOf(const Vorlap::StrongPtr<Tessal::Grid>& g,
                                         const std::string& n) {
  return (*g)(n, "ScannerCoordinateSystem");
}

template <class T>
Vorlap::StrongPtr<Tessal::MemArray<1, T>> fragmentData(const Vorlap::StrongPtr<Tessal::Grid>& g,
                                                       const std::string& n) {
  return storedFragment<Tessal::MemArray<1, T>>(g, n);
}

}  // namespace

TEST_F(CloudFixture, ReturnNumbersByRangeWithinAShot) {
  ASSERT_TRUE(s.setWaves({waveAt(1, {2e-6 + 2 * 12.0 / 3e8}), waveAt(1, {2e-6 + 2 * 10.0 / 3e8}),
                          waveAt(3, {2e-6, 2e-6}), waveAt(4, {1e-6})}));
  s.fb().scannerDevice.lightSpeed = 3e8;
  EXPECT_EQ(makePointCloud(s.fb(), {0, 1, 2}, grid, ids, s.input), "");
  EXPECT_EQ(ids, 4u);
  auto rn = fragmentData<std::uint8_t>(grid, "ReturnNumber");
  auto nr = fragmentData<std::uint8_t>(grid, "NumberOfReturns");
  ASSERT_TRUE(rn && nr);
  EXPECT_EQ(rn->get(0), 2);  // 12 m after 10 m
  EXPECT_EQ(rn->get(1), 1);
  EXPECT_EQ(nr->get(0), 2);
  // Equal ranges: only the later point is numbered.
  EXPECT_EQ(rn->get(2), 1);
  EXPECT_EQ(nr->get(2), 1);
  EXPECT_EQ(rn->get(3), 1);
  auto pid = fragmentData<std::uint32_t>(grid, "PointID");
  EXPECT_EQ(pid->get(3), 3u);
}

TEST_F(CloudFixture, GeometryZonesAndAngles) {
  ASSERT_TRUE(s.setWaves({waveAt(2, {1e-6}), waveAt(3, {1e-6}), waveAt(4, {1e-6})}));
  s.fb().scannerDevice.lightSpeed = 3e8;
  s.fb().mta[1] = -1;
  EXPECT_EQ(makePointCloud(s.fb(), {0, 1}, grid, ids, s.input), "");
  auto range = fragmentData<double>(grid, "Range");
  EXPECT_NEAR(range->get(0), 150.0, 1e-6);  // 1 us two-way = 150 m
  auto pos = fragmentData<Gemwold::PhysicalSpace::point>(grid, "Positions");
  EXPECT_NEAR(pos->get(0).z, 502.0 - 150.0, 1e-6);
  EXPECT_NEAR(pos->get(0).y, 150.0, 1e-6);
  EXPECT_EQ(fragmentData<std::uint8_t>(grid, "MTA")->get(1), 255);
  EXPECT_EQ(fragmentData<std::int16_t>(grid, "ScanAngleRank")->get(0), -15000);
  EXPECT_EQ(fragmentData<std::int32_t>(grid, "WaveID")->get(1), 1);
  // Without waveforms there is no Damping; the mode decides PulseWidth.
  EXPECT_TRUE(fieldOf(grid, "Damping").isEmpty());
  EXPECT_TRUE(fieldOf(grid, "Waveforms").isEmpty());
  EXPECT_FALSE(fieldOf(grid, "PulseWidth").isEmpty());
}

TEST_F(CloudFixture, EmptyListsWriteNothingAndIdsContinue) {
  ASSERT_TRUE(s.setWaves({waveAt(2, {1e-6}), waveAt(3, {1e-6}), waveAt(4, {1e-6})}));
  EXPECT_EQ(makePointCloud(s.fb(), {}, grid, ids, s.input), "");
  EXPECT_TRUE(grid->representations().empty());
  EXPECT_EQ(makePointCloud(s.fb(), {0, 1}, grid, ids, s.input), "");
  auto second = Vorlap::makeStrong<Tessal::Grid>("FWF");
  EXPECT_EQ(makePointCloud(s.fb(), {2}, second, ids, s.input), "");
  EXPECT_EQ(fragmentData<std::uint32_t>(second, "PointID")->get(0), 2u);
}

TEST_F(CloudFixture, MoreThan255ReturnsOfOneShotEndTheRun) {
  std::vector<double> echoes;
  for (int k = 0; k < 256; ++k) echoes.push_back(1e-6 + k * 1e-9);
  auto many = waveAt(2, echoes);
  ASSERT_TRUE(s.setWaves({many, waveAt(3, {1e-6}), waveAt(4, {1e-6})}));
  EXPECT_EQ(makePointCloud(s.fb(), {0}, grid, ids, s.input),
            "Error: ReturnNumber exceed uint8_t max (255)");
  EXPECT_EQ(ids, 256u);
  EXPECT_TRUE(fieldOf(grid, "GPSTime").isEmpty());  // nothing saved
  many->echoes.pop_back();
  EXPECT_EQ(makePointCloud(s.fb(), {0}, grid, ids, s.input), "");
  EXPECT_EQ(fragmentData<std::uint8_t>(grid, "ReturnNumber")->get(254), 255);
}

TEST_F(CloudFixture, FieldSetsFollowModeAndExport) {
  ASSERT_TRUE(s.setWaves({waveAt(2, {1e-6}), waveAt(3, {1e-6}), waveAt(4, {1e-6})}));
  s.input.fwfModus = FWF_PEAKS_NO_WIDTH;
  EXPECT_EQ(makePointCloud(s.fb(), {0}, grid, ids, s.input), "");
  auto rep = grid->getCartesianRepresentation("ScannerCoordinateSystem");
  EXPECT_EQ(rep->fields().size(), 15u);  // no PulseWidth, Damping or waveform fields
}

TEST(OutputAttributes, DatePatternAndErrors) {
  auto check = [](const std::string& name) {
    StoreFixture s({{1.0, 2.0, 3.0}});
    s.input.inputFileName = name;
    auto grid = Vorlap::makeStrong<Tessal::Grid>("FWF");
    grid->attributes().setAttribute("HostNote", Vorlap::makeChunk<int>({1}));
    grid->makeCartesianRepresentation(3, "ScannerCoordinateSystem", 0);
    std::string result = addAttributes(grid, s.fb());
    if (result.empty()) {
      auto year = grid->attributes().getAttributeAs<unsigned>("Year");
      result = "year " + std::to_string((*year)[0]);
    }
    EXPECT_TRUE(grid->attributes().getAttribute("HostNote").isEmpty());  // replaced by Shots'
    EXPECT_TRUE(grid->attributes().getAttributeAs<std::string>("InputParameter"));
    return result;
  };
  EXPECT_EQ(check("/data/ABC210315_093000.rxp"), "year 2021");
  EXPECT_EQ(check("scan_210315_093000_ch1.rdbx"), "year 2021");
  EXPECT_EQ(check("210315_093000"), "year 2021");
  EXPECT_EQ(check("210315-093000.rxp"),
            "Cannot add attributes: cannot extract date from input file name");
  EXPECT_EQ(check("data.210315_093000"),
            "Cannot add attributes: cannot extract date from input file name");
  EXPECT_EQ(check(""), "Cannot add attributes: no input file name available");

  StoreFixture s({{1.0, 2.0, 3.0}});
  EXPECT_EQ(addAttributes(Vorlap::makeStrong<Tessal::Grid>("FWF"), s.fb()),
            "addAttributes: no ScannerCoordinateSystem representation available");
}

TEST(PointCloudFields, WaveformContainerAndExportDecideTheFieldSet) {
  auto count = [](bool exportFWF, FWFModus mode) {
    auto bundle = makeShotsBundle({{{1.0, 1.000001, 1.000002, 1.000003}}});
    addWaveformFragment(bundle, 0, {{1.0, 1.000001, 1.000002}});
    Input in;
    in.exportFWF = exportFWF;
    in.fwfModus = mode;
    FatBoy<unsigned short> fb(bundle, in);
    EXPECT_TRUE(fb.ini(0));
    fb.wavePoints = {makeWave({1.000001, 1e-6}), makeWave({1.000002, 1e-6}),
                     makeWave({1.000003, 1e-6})};
    fb.fwfIndex = {0, 1, -1};
    EXPECT_TRUE(fb.iniMTA());
    auto grid = Vorlap::makeStrong<Tessal::Grid>("FWF");
    std::uint32_t ids = 0;
    EXPECT_EQ(makePointCloud(fb, {0, 1, 2}, grid, ids, in), "");
    auto rep = grid->getCartesianRepresentation("ScannerCoordinateSystem");
    if (auto waveforms = rep->findFieldByName("Waveforms")) {
      auto creator = waveforms->getCreator(waveforms->getFragmentIDCollection()->at(0));
      auto samples =
          Vorlap::dynamicPtrCast<Tessal::MemArray<2, std::uint16_t>>(creator->heldData());
      EXPECT_EQ(samples->extent(0), 8u);  // the input rows' sample count
    }
    return rep->fields().size();
  };
  EXPECT_EQ(count(false, FWF_PEAKS_NO_WIDTH), 16u);  // Damping comes with the waveform container
  EXPECT_EQ(count(false, FWF_FAST_PEAKS), 17u);
  EXPECT_EQ(count(true, FWF_FAST_PEAKS), 20u);
}

namespace {

// A table that falls by 1 per unit of range: the prediction is the amplitude minus the range
// handed over, so the range used can be read back from the result.
Vorlap::StrongPtr<ReflectanceTable> fallingTable() {
  ReflectanceTable t;
  for (int k = 0; k < 400; ++k) t.values.push_back(-float(k));
  return Vorlap::makeStrong<ReflectanceTable>(t);
}

}  // namespace

TEST_F(CloudFixture, ReflectanceIsStoredOnlyForSegmentFreeDataWithoutWaveforms) {
  // One echo 10 ns after its wave, emitted one shot before: range 1.5 m from the echo time,
  // but 151.5 m from the emitting shot.
  auto wave = waveAt(2, {1e-8});
  wave->echoes[0].reflectance = -7.5f;
  ASSERT_TRUE(s.setWaves({wave, waveAt(3, {1e-6}), waveAt(4, {1e-6})}));
  s.fb().setMTA(0, 1, 0.0);
  s.fb().scannerDevice.lightSpeed = 3e8;
  s.fb().scannerDevice.reflectanceTable = fallingTable();
  s.fb().scannerDevice.reflectanceTableStep = 1.0;
  auto reflectance = [&](std::int32_t segment, bool skipFWF) {
    s.input.RDB_SEGMENT = segment;
    s.input.skipFWF = skipFWF;
    EXPECT_EQ(makePointCloud(s.fb(), {0}, grid, ids, s.input), "");
    EXPECT_NEAR(fragmentData<double>(grid, "Range")->get(0), 151.5, 1e-6);
    return fragmentData<float>(grid, "Reflectance")->get(0);
  };
  EXPECT_EQ(reflectance(-1, true), -7.5f);
  EXPECT_FLOAT_EQ(reflectance(-1, false), 100.0f - 1.5f);
  EXPECT_FLOAT_EQ(reflectance(0, true), 100.0f - 1.5f);
  EXPECT_FLOAT_EQ(reflectance(1, false), 100.0f - 1.5f);
  s.fb().scannerDevice.reflectanceTable = {};  // no table: nothing to predict from
  EXPECT_EQ(reflectance(1, false), 0.0f);
}

TEST_F(CloudFixture, DirectionDeltaIsTheRangeOfOneSampleAlongTheBeam) {
  ASSERT_TRUE(s.setWaves({waveAt(2, {1e-6}), waveAt(3, {1e-6}), waveAt(4, {1e-6})}));
  s.fb().scannerDevice.lightSpeed = 3e8;
  auto delta = [&](double sampleInterval) {
    s.fb().scannerDevice.sampleInterval = sampleInterval;
    EXPECT_EQ(makePointCloud(s.fb(), {1}, grid, ids, s.input), "");
    return fragmentData<Gemwold::PhysicalSpace::vector>(grid, "Waveforms.DirectionDelta")->get(0);
  };
  auto d = delta(1e-9);  // 1 ns at 3e8 m/s: 0.15 m one way
  EXPECT_NEAR(d.x, 0.0, 1e-15);
  EXPECT_NEAR(d.y, 0.15, 1e-12);
  EXPECT_NEAR(d.z, -0.15, 1e-12);
  d = delta(0.0);  // no sample interval: the beam direction itself
  EXPECT_EQ(d.y, 1.0);
  EXPECT_EQ(d.z, -1.0);
}

namespace {

// A store over four shots and three waveform rows of eight samples (sample s of row r holds
// 100 r + s + 1), whose rows declare only five valid samples.
struct WaveformStore {
  explicit WaveformStore(bool exportFWF) {
    addWaveformFragment(bundle, 0, {{1.0, 1.000001, 1.000002}, 8, {5, 5, 5}});
    input.exportFWF = exportFWF;
    input.inputFileName = "/data/ABC210315_093000.rxp";
    fb = std::make_unique<FatBoy<unsigned short>>(bundle, input);
    EXPECT_TRUE(fb->ini(0));
    auto& samples = *fb->FWF->arrays.Waveforms;
    for (std::size_t r = 0; r < 3; ++r)
      for (std::size_t k = 0; k < 8; ++k) samples.set(r * 8 + k, std::uint16_t(100 * r + k + 1));
  }
  Tessal::BundlePtr bundle = makeShotsBundle({{{1.0, 1.000001, 1.000002, 1.000003}}});
  Input input;
  std::unique_ptr<FatBoy<unsigned short>> fb;
  Vorlap::StrongPtr<Tessal::Grid> grid = Vorlap::makeStrong<Tessal::Grid>("FWF");
};

WavePtr waveWithEchoesAt(double time, std::vector<double> samplePositions) {
  auto w = makeWave(
      {time, 1e-6, 100.f, 1, false, 100, std::vector<double>(samplePositions.size(), 1e-6)});
  for (std::size_t k = 0; k < samplePositions.size(); ++k)
    w->echoes[k].samplePosition = samplePositions[k];
  return w;
}

}  // namespace

TEST(PointCloudFields, EveryPointCarriesACopyOfItsWavesWaveform) {
  WaveformStore s(true);
  s.fb->wavePoints = {waveWithEchoesAt(1.000001, {2.25, 5.5}), waveWithEchoesAt(1.000002, {3.0}),
                      waveWithEchoesAt(1.000003, {1.0 / 3.0})};
  s.fb->fwfIndex = {2, -1, 0};  // rows out of wave order; the middle wave has no waveform
  ASSERT_TRUE(s.fb->iniMTA());
  std::uint32_t ids = 0;
  ASSERT_EQ(makePointCloud(*s.fb, {0, 1, 2}, s.grid, ids, s.input), "");

  auto samples = storedFragment<Tessal::MemArray<2, std::uint16_t>>(s.grid, "Waveforms");
  ASSERT_TRUE(samples);
  ASSERT_EQ(samples->extent(0), 8u);
  ASSERT_EQ(samples->extent(1), 4u);
  const std::pair<std::size_t, std::size_t> pointRow[] = {{0, 2}, {1, 2}, {3, 0}};
  for (auto [p, r] : pointRow)
    for (std::size_t k = 0; k < 8; ++k)
      EXPECT_EQ(samples->get(k, p), 100 * r + k + 1) << "point " << p << " sample " << k;

  auto position = storedFragment<Tessal::MemArray<1, float>>(s.grid, "WaveformPositionIndex");
  EXPECT_EQ(position->get(0), 2.25f);
  EXPECT_EQ(position->get(1), 5.5f);
  EXPECT_EQ(position->get(3), float(1.0 / 3.0));
  // The length is the rows' sample count, not the valid part a row declares.
  auto length = storedFragment<Tessal::MemArray<1, std::uint16_t>>(s.grid, "FWFLength");
  for (std::size_t p : {0, 1, 3}) EXPECT_EQ(length->get(p), 8u) << "point " << p;
}

TEST(OutputAttributes, RunMetadataOnTheGridAndItsFields) {
  WaveformStore s(true);
  s.fb->wavePoints = {waveWithEchoesAt(1.000001, {2.0}), waveWithEchoesAt(1.000002, {2.0}),
                      waveWithEchoesAt(1.000003, {2.0})};
  s.fb->fwfIndex = {0, 1, 2};
  ASSERT_TRUE(s.fb->iniMTA());
  std::uint32_t ids = 0;
  ASSERT_EQ(makePointCloud(*s.fb, {0, 1}, s.grid, ids, s.input), "");
  s.fb->scannerDevice.sampleInterval = 2.5e-10;
  ASSERT_EQ(addAttributes(s.grid, *s.fb), "");

  auto interval =
      fieldOf(s.grid, "Waveforms")->attributes().getAttributeAs<double>("WaveformSampleInterval");
  ASSERT_TRUE(interval);
  EXPECT_EQ((*interval)[0], 2.5e-10);
  auto types = fieldOf(s.grid, "PointType")->attributes().getAttributeAs<std::string>("PointTypes");
  ASSERT_TRUE(types);
  EXPECT_EQ((*types)[0],
            "0: Unknown\n1: Single\n2: First\n3: Intermediate\n4: Last\n5: Saturated\n"
            "6: Online\n7: Overlapping\n");

  const auto& attributes = s.grid->attributes();
  auto parameters = attributes.getAttributeAs<std::string>("InputParameter");
  ASSERT_TRUE(parameters);
  EXPECT_EQ((*parameters)[0], s.input.speak() + s.fb->scannerDevice.speak());
  // 15 March 2021, a Monday in GPS week 2149.
  auto uintOf = [&](const std::string& name) {
    auto chunk = attributes.getAttributeAs<unsigned>(name);
    return chunk ? (*chunk)[0] : 999999u;
  };
  EXPECT_EQ(uintOf("WeekDay"), 1u);
  EXPECT_EQ(uintOf("WeekNumber"), 2149u);
  EXPECT_EQ(uintOf("Year"), 2021u);
}
