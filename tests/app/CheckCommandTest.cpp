// `quillo check` and the check `quillo run` performs first: inputs with one item missing or
// wrong are refused with the item and its fix, before anything is written; every file the
// simulator writes and the h5py example's pass; defaults are announced once.
#include <gtest/gtest.h>
#include <hdf5.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <set>

#include "support/Command.hpp"
#include "support/TempDir.hpp"

using namespace quillo::test;
namespace fs = std::filesystem;

namespace {

const std::string kGrids = "/slices/0/grids/";
const std::string kShotAttributes = kGrids + "Shots/attributes";
std::string fieldPath(const std::string& grid, const std::string& field) {
  return kGrids + grid + "/charts/ScannerCoordinateSystem/fields/" + field;
}

std::size_t count(const std::string& text, const std::string& part) {
  std::size_t n = 0;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

class CheckCommand : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir = new TempDir();
    original = dir->file("original_210315_093000.kq");
    const auto r = runQuillo(
        "simulate --preset tiny --shots 3000 --fragment-shots 1000 --kq-version 1 --quiet " +
        original);
    ASSERT_EQ(r.exitCode, 0) << r.output;
  }
  static void TearDownTestSuite() { delete dir; }

  // A copy of the simulated input, changed through the HDF5 API by `edit`.
  std::string damaged(const std::function<void(hid_t)>& edit) {
    const std::string file = local.file("survey_210315_093000.kq");
    fs::copy_file(original, file, fs::copy_options::overwrite_existing);
    hid_t f = H5Fopen(file.c_str(), H5F_ACC_RDWR, H5P_DEFAULT);
    edit(f);
    H5Fclose(f);
    return file;
  }

  static TempDir* dir;
  static std::string original;
  TempDir local;
};
TempDir* CheckCommand::dir = nullptr;
std::string CheckCommand::original;

void removeLink(hid_t file, const std::string& path) {
  ASSERT_GE(H5Ldelete(file, path.c_str(), H5P_DEFAULT), 0) << path;
}

void removeAttribute(hid_t file, const std::string& object, const char* name) {
  ASSERT_GE(H5Adelete_by_name(file, object.c_str(), name, H5P_DEFAULT), 0) << name;
}

template <class T>
void writeScalar(hid_t object, const char* name, hid_t type, T value) {
  hid_t s = H5Screate(H5S_SCALAR);
  hid_t a = H5Acreate2(object, name, type, s, H5P_DEFAULT, H5P_DEFAULT);
  ASSERT_GE(H5Awrite(a, type, &value), 0) << name;
  H5Aclose(a), H5Sclose(s);
}

template <class T>
void replaceAttribute(hid_t file, const std::string& object, const char* name, hid_t type,
                      T value) {
  removeAttribute(file, object, name);
  hid_t o = H5Oopen(file, object.c_str(), H5P_DEFAULT);
  writeScalar(o, name, type, value);
  H5Oclose(o);
}

// The numbers of a float64 fragment (of vectors and points: x, y, z of each), as stored.
std::vector<double> readDoubles(hid_t file, const std::string& path) {
  hid_t set = H5Dopen2(file, path.c_str(), H5P_DEFAULT);
  hid_t space = H5Dget_space(set);
  std::vector<double> values(H5Sget_simple_extent_npoints(space) *
                             (H5Tget_size(H5Dget_type(set)) / sizeof(double)));
  H5Dread(set, H5T_NATIVE_DOUBLE, H5S_ALL, H5S_ALL, H5P_DEFAULT, values.data());
  H5Sclose(space), H5Dclose(set);
  return values;
}

// Changes numbers of a float64 fragment in place.
void editDoubles(hid_t file, const std::string& path,
                 const std::function<void(std::vector<double>&)>& edit) {
  std::vector<double> values = readDoubles(file, path);
  edit(values);
  hid_t set = H5Dopen2(file, path.c_str(), H5P_DEFAULT);
  H5Dwrite(set, H5T_NATIVE_DOUBLE, H5S_ALL, H5S_ALL, H5P_DEFAULT, values.data());
  H5Dclose(set);
}

// Moves the first value of a float64 fragment (the x of the first vector) by `delta`.
void shiftFirstValue(hid_t file, const std::string& path, double delta) {
  editDoubles(file, path, [&](std::vector<double>& v) { v[0] += delta; });
}

// Stores a channel fragment of "OPP" as numpy's default integers, one of them beyond uint8.
void storeChannelThatDoesNotFit(hid_t f, const std::string& fragment) {
  const std::string path = fieldPath("OPP", "Channel") + "/fragments/" + fragment;
  hid_t old = H5Dopen2(f, path.c_str(), H5P_DEFAULT);
  hid_t space = H5Dget_space(old);
  std::vector<long long> values(H5Sget_simple_extent_npoints(space));
  H5Dread(old, H5T_NATIVE_LLONG, H5S_ALL, H5S_ALL, H5P_DEFAULT, values.data());
  H5Dclose(old);
  values[4] = 256;
  H5Ldelete(f, path.c_str(), H5P_DEFAULT);
  hid_t set =
      H5Dcreate2(f, path.c_str(), H5T_NATIVE_LLONG, space, H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT);
  H5Dwrite(set, H5T_NATIVE_LLONG, H5S_ALL, H5S_ALL, H5P_DEFAULT, values.data());
  writeScalar<long long>(set, "rank", H5T_NATIVE_LLONG, 1);
  hid_t t = H5Tcopy(H5T_C_S1);
  H5Tset_size(t, 5);
  hid_t s = H5Screate(H5S_SCALAR);
  hid_t a = H5Acreate2(set, "element_type", t, s, H5P_DEFAULT, H5P_DEFAULT);
  H5Awrite(a, t, "uint8");
  H5Aclose(a), H5Sclose(s), H5Tclose(t), H5Dclose(set), H5Sclose(space);
}

struct RefusedCase {
  const char* name;
  std::function<void(hid_t)> edit;
  const char* finding;  // after "error: "
  const char* fix;
};

void PrintTo(const RefusedCase& c, std::ostream* os) {
  *os << c.name;
}

class CheckRefuses : public CheckCommand, public ::testing::WithParamInterface<RefusedCase> {};

}  // namespace

TEST_P(CheckRefuses, NamesTheItemAndItsFixAndRunStopsBeforeWriting) {
  const std::string input = damaged(GetParam().edit);
  const auto check = runQuillo("check '" + input + "'");
  EXPECT_EQ(check.exitCode, 3) << check.output;
  EXPECT_NE(check.output.find(std::string("error: ") + GetParam().finding), std::string::npos)
      << check.output;
  EXPECT_NE(check.output.find(std::string("fix: ") + GetParam().fix), std::string::npos)
      << check.output;
  const auto run = runQuillo("run --quiet '" + input + "' --out-dir '" + local.file("out") + "'");
  EXPECT_EQ(run.exitCode, 3) << run.output;
  EXPECT_NE(run.output.find(GetParam().finding), std::string::npos) << run.output;
  EXPECT_EQ(run.output.find("Could not create Fatboy"), std::string::npos) << run.output;
  EXPECT_TRUE(fs::is_empty(local.file("out"))) << "nothing may be written";
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Walls, CheckRefuses, ::testing::Values(
    RefusedCase{"ScanPatternMissing",
                [](hid_t f) { removeAttribute(f, kShotAttributes, "ScanPattern"); },
                "attribute \"ScanPattern\" of grid \"Shots\" is missing",
                "set it to \"line-wise\" or \"radial\""},
    RefusedCase{"FWFLengthMissing",
                [](hid_t f) { removeLink(f, fieldPath("Waveforms", "FWFLength")); },
                "field \"FWFLength\" of grid \"Waveforms\" is missing",
                "write it (uint16) with one fragment per shot fragment"},
    RefusedCase{"ChannelMissing",
                [](hid_t f) { removeLink(f, fieldPath("Waveforms", "Channel")); },
                "field \"Channel\" of grid \"Waveforms\" is missing", "write it (uint8)"},
    RefusedCase{"PositionsMissing",
                [](hid_t f) { removeLink(f, fieldPath("Shots", "Positions")); },
                "field \"Positions\" of grid \"Shots\" is missing", "write it (point3)"},
    RefusedCase{"PulseRateMissing",
                [](hid_t f) { removeAttribute(f, kShotAttributes, "PulseRepetitionRate"); },
                "attribute \"PulseRepetitionRate\" of grid \"Shots\" is missing",
                "give the scanner's pulse rate in Hz"},
    RefusedCase{"PulseRateInKilohertz",
                [](hid_t f) {
                  // A quarter of the shots' rate, as h5py writes a Python int.
                  replaceAttribute<long long>(f, kShotAttributes, "PulseRepetitionRate",
                                              H5T_NATIVE_INT64, 250000);
                },
                "attribute \"PulseRepetitionRate\" of grid \"Shots\" is 250000 Hz, but the shots are",
                "give the rate in Hz and the shot times in s"},
    RefusedCase{"SampleIntervalInNanoseconds",
                [](hid_t f) {
                  replaceAttribute<double>(f, kGrids + "Waveforms/attributes", "SampleInterval",
                                           H5T_NATIVE_DOUBLE, 1.0);
                },
                "attribute \"SampleInterval\" of grid \"Waveforms\" is 1, outside", "give it in s"},
    RefusedCase{"RowTimeNotAShotTime",
                [](hid_t f) { shiftFirstValue(f, fieldPath("Waveforms", "GPSTime") + "/fragments/Fragment_2", 3e-7); },
                "field \"GPSTime\" of grid \"Waveforms\" holds a time that is no shot time of the same "
                "fragment (1 times; first: Fragment_2, element 0)",
                "give each record the exact GPSTime of the shot"},
    RefusedCase{"DirectionNotOfUnitLength",
                [](hid_t f) {
                  shiftFirstValue(f, fieldPath("Shots", "Waveforms.DirectionDelta") + "/fragments/Fragment_0", 0.5);
                },
                "field \"Waveforms.DirectionDelta\" of grid \"Shots\" holds a direction that is not of unit length",
                "divide each direction by its length"},
    RefusedCase{"ChannelThatDoesNotFit",
                [](hid_t f) { storeChannelThatDoesNotFit(f, "Fragment_1"); },
                "field \"Channel\" of grid \"OPP\" cannot be read: value 256 (element 4) does not fit uint8",
                "store values that fit the element type"},
    RefusedCase{"ShotTimesGoingBack",
                [](hid_t f) { shiftFirstValue(f, fieldPath("Shots", "GPSTime") + "/fragments/Fragment_1", -1.0); },
                "field \"GPSTime\" of grid \"Shots\" is not strictly increasing", "sort the shots by time"},
    RefusedCase{"FragmentNumberGap",
                [](hid_t f) {
                  const std::string from = fieldPath("Shots", "Positions") + "/fragments/Fragment_1";
                  const std::string to = fieldPath("Shots", "Positions") + "/fragments/Fragment_01";
                  H5Lmove(f, from.c_str(), f, to.c_str(), H5P_DEFAULT, H5P_DEFAULT); },
                "field \"Positions\" of grid \"Shots\", fragment \"Fragment_01\" is not among Fragment_0 ... "
                "Fragment_2: the run never reaches it",
                "number the fragments from 0 without gaps"}),
    [](const auto& info) { return std::string(info.param.name); });
// clang-format on

TEST_F(CheckCommand, SimulatedSurveysPass) {
  for (const std::string options : {"", "--scanner radial", "--rdb-segment 0", "--rdb-segment 1",
                                    "--lines 2", "--prr 2000000 --altitude 900"}) {
    const std::string file = local.file("sim_210315_093000.kq");
    const auto sim =
        runQuillo("simulate --preset tiny --shots 4000 --fragment-shots 2000 --quiet " + options +
                  " " + file);
    ASSERT_EQ(sim.exitCode, 0) << options << "\n" << sim.output;
    const auto check = runQuillo("check " + file);
    EXPECT_EQ(check.exitCode, 0) << options << "\n" << check.output;
    EXPECT_NE(check.output.find("usable: 2 fragments, 4000 shots"), std::string::npos)
        << check.output;
  }
}

// Fragments are checked on several threads and their findings joined: faults in several
// fragments are counted once with the earliest place, shot times that go back across a
// fragment boundary are found, and the reader's reasons are kept, whatever the thread count.
TEST_F(CheckCommand, FindingsAreTheSameOnAnyNumberOfThreads) {
  const std::string shots = fieldPath("Shots", "GPSTime") + "/fragments/";
  const std::string input = damaged([&](hid_t f) {
    const double lastOfFirst = readDoubles(f, shots + "Fragment_1").back();
    editDoubles(f, shots + "Fragment_2", [&](auto& t) { t[0] = lastOfFirst; });
    for (const char* fragment : {"Fragment_1", "Fragment_2"})
      editDoubles(f, fieldPath("Shots", "Waveforms.DirectionDelta") + "/fragments/" + fragment,
                  [](auto& d) { d[3 * 7] += 0.5, d[3 * 9] += 0.5; });
    shiftFirstValue(f, fieldPath("Waveforms", "GPSTime") + "/fragments/Fragment_0", 3e-7);
    storeChannelThatDoesNotFit(f, "Fragment_2");
  });
  const auto serial = runQuillo("check --threads 1 '" + input + "'");
  EXPECT_EQ(serial.exitCode, 3) << serial.output;
  for (const char* finding :
       {"grid \"Shots\" is not strictly increasing (within and across fragments) (1 times; "
        "first: Fragment_2, element 0)",
        "holds a direction that is not of unit length (4 times; first: Fragment_1, element 7)",
        "grid \"Waveforms\" holds a time that is no shot time of the same fragment",
        "first: Fragment_0, element 0)",
        "field \"Channel\" of grid \"OPP\" cannot be read: value 256 (element 4) does not fit "
        "uint8 (1 times; first: Fragment_2, element 0)"})
    EXPECT_NE(serial.output.find(finding), std::string::npos) << finding << "\n" << serial.output;
  const auto serialJson = runQuillo("check --json --threads 1 '" + input + "'");
  const std::string out = local.file("out");
  const auto serialRun = runQuillo("run --quiet --threads 1 '" + input + "' --out-dir " + out);
  EXPECT_EQ(serialRun.exitCode, 3) << serialRun.output;
  for (const char* threads : {"2", "3", "8"}) {
    SCOPED_TRACE(threads);
    const std::string options = std::string("--threads ") + threads + " '" + input + "'";
    EXPECT_EQ(runQuillo("check " + options).output, serial.output);
    EXPECT_EQ(runQuillo("check --json " + options).output, serialJson.output);
    EXPECT_EQ(runQuillo("run --quiet " + options + " --out-dir " + out).output, serialRun.output);
  }
  EXPECT_TRUE(fs::is_empty(out)) << "nothing may be written";
}

// Two faults taking turns along one array are each counted with their own first place, and
// shots out of order are still found by the records recorded after them.
TEST_F(CheckCommand, FaultsTakingTurnsAreCountedApart) {
  const std::string shots = fieldPath("Shots", "GPSTime") + "/fragments/Fragment_1";
  std::vector<double> lost;  // the times of the shots made not finite
  const std::string input = damaged([&](hid_t f) {
    editDoubles(f, shots, [&](std::vector<double>& t) {
      for (std::size_t i : {100, 300, 500}) lost.push_back(t[i]), t[i] = NAN;
      for (std::size_t i : {200, 400, 600}) std::swap(t[i], t[i + 1]);
    });
  });
  const auto check = runQuillo("check --threads 1 '" + input + "'");
  EXPECT_EQ(check.exitCode, 3) << check.output;
  for (const char* finding :
       {"error: field \"GPSTime\" of grid \"Shots\" holds a time that is not finite (3 times; "
        "first: Fragment_1, element 100)",
        "error: field \"GPSTime\" of grid \"Shots\" is not strictly increasing (within and across "
        "fragments) (3 times; first: Fragment_1, element 201)"})
    EXPECT_NE(check.output.find(finding), std::string::npos) << finding << "\n" << check.output;
  // Only the records of the lost shots lose their shot.
  for (const char* grid : {"Waveforms", "OPP"}) {
    hid_t file = H5Fopen(input.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
    std::size_t orphans = 0;
    for (double t : readDoubles(file, fieldPath(grid, "GPSTime") + "/fragments/Fragment_1"))
      orphans += std::find(lost.begin(), lost.end(), t) != lost.end();
    H5Fclose(file);
    const std::string finding = std::string("field \"GPSTime\" of grid \"") + grid +
                                "\" holds a time that is no shot time of the same fragment";
    EXPECT_EQ(count(check.output, finding), orphans ? 1u : 0u) << check.output;
    const std::string counted =
        finding + " (" + std::to_string(orphans) + " times; first: Fragment_1";
    if (orphans) {
      EXPECT_NE(check.output.find(counted), std::string::npos) << check.output;
    }
  }
}

TEST_F(CheckCommand, DefaultsAreAnnouncedOnceAndTheRunGoesOn) {
  const std::string input =
      damaged([](hid_t f) { removeAttribute(f, kShotAttributes, "LightSpeed"); });
  const std::string announcement =
      "default: attribute \"LightSpeed\" of grid \"Shots\" is not set: 299702547 m/s is used";
  const auto check = runQuillo("check '" + input + "'");
  EXPECT_EQ(check.exitCode, 0) << check.output;
  EXPECT_EQ(count(check.output, announcement), 1u) << check.output;
  const auto run = runQuillo("run --quiet '" + input + "' --out-dir '" + local.file("out") + "'");
  EXPECT_EQ(run.exitCode, 0) << run.output;
  EXPECT_EQ(count(run.output, announcement), 1u) << run.output;
}

// A fragment the module skips costs its points, not the run: a warning, and the rest is written.
TEST_F(CheckCommand, AFragmentTheRunSkipsIsAWarning) {
  const std::string input =
      damaged([](hid_t f) { removeLink(f, fieldPath("OPP", "Range") + "/fragments/Fragment_1"); });
  const std::string warning =
      "warning: field \"Range\" of grid \"OPP\" has no Fragment_1: the run skips that fragment";
  const auto check = runQuillo("check '" + input + "'");
  EXPECT_EQ(check.exitCode, 0) << check.output;
  EXPECT_NE(check.output.find(warning), std::string::npos) << check.output;
  EXPECT_NE(check.output.find("fix: write every field of the grid for every shot fragment"),
            std::string::npos)
      << check.output;
  const auto run = runQuillo("run --quiet '" + input + "' --out-dir '" + local.file("out") + "'");
  EXPECT_NE(run.output.find("Broken Fragment for FragNr 1"), std::string::npos) << run.output;
  EXPECT_FALSE(fs::is_empty(local.file("out"))) << run.output;
}

TEST_F(CheckCommand, RunLeavesOutTheGridsItIgnores) {
  const std::string input =
      damaged([](hid_t f) { removeLink(f, fieldPath("Waveforms", "FWFLength")); });
  const auto run =
      runQuillo("run --quiet --skip-fwf '" + input + "' --out-dir '" + local.file("out") + "'");
  EXPECT_EQ(run.exitCode, 0) << run.output;
  EXPECT_EQ(count(run.output, "[verified]"), 2u) << run.output;
}

TEST_F(CheckCommand, OutDirIsMadeWhenMissing) {
  const std::string outDir = local.file("results/today");
  const auto run = runQuillo("run --quiet '" + original + "' --out-dir '" + outDir + "'");
  EXPECT_EQ(run.exitCode, 0) << run.output;
  EXPECT_TRUE(fs::exists(fs::path(outDir) / "original_210315_093000_1.kq")) << run.output;
}

TEST_F(CheckCommand, JsonListsEveryFindingWithItsFix) {
  const std::string input = damaged([](hid_t f) {
    removeLink(f, fieldPath("Waveforms", "Channel"));
    removeAttribute(f, kShotAttributes, "LightSpeed");
  });
  const auto r = runQuillo("check --json '" + input + "'");
  EXPECT_EQ(r.exitCode, 3);
  // The closing message on stderr shares the pipe with the JSON on stdout.
  const auto begin = r.output.find('{'), end = r.output.rfind('}');
  ASSERT_NE(begin, std::string::npos) << r.output;
  const auto json = nlohmann::json::parse(r.output.substr(begin, end + 1 - begin));
  EXPECT_EQ(json["input"], input);
  EXPECT_FALSE(json["usable"].get<bool>());
  EXPECT_EQ(json["fragments"], 3);
  std::set<std::string> kinds;
  for (const auto& f : json["findings"]) {
    kinds.insert(f["severity"].get<std::string>() + " " + f["where"].get<std::string>());
    if (f["severity"] == "error") {
      EXPECT_FALSE(f["fix"].get<std::string>().empty());
    }
  }
  EXPECT_TRUE(kinds.count("error field \"Channel\" of grid \"Waveforms\"")) << r.output;
  EXPECT_TRUE(kinds.count("default attribute \"LightSpeed\" of grid \"Shots\"")) << r.output;
}

TEST_F(CheckCommand, UnreadableFilesAreReportedNotThrown) {
  const std::string input = damaged([](hid_t f) {
    removeAttribute(f, fieldPath("Shots", "GPSTime") + "/fragments/Fragment_0", "rank");
  });
  const auto r = runQuillo("check '" + input + "'");
  EXPECT_EQ(r.exitCode, 3) << r.output;
  EXPECT_NE(r.output.find("missing attribute \"rank\""), std::string::npos) << r.output;
  const auto none = runQuillo("check '" + local.file("none.kq") + "'");
  EXPECT_EQ(none.exitCode, 3) << none.output;
  EXPECT_NE(none.output.find("none.kq: error: no such file"), std::string::npos) << none.output;
}

// The h5py example, as a user adapts it: written by Debian's python3 with python3-h5py, then
// checked and run.
TEST_F(CheckCommand, TheWriterExampleChecksAndRuns) {
  const std::string file = local.file("flight_210315_093000.kq");
  const std::string write = "/usr/bin/python3 " + std::string(QUILLO_SOURCE_DIR) +
                            "/examples/write_kq.py '" + file + "' 2>&1";
  ASSERT_EQ(std::system(write.c_str()), 0) << "needs python3-h5py (tools/install-deps.sh)";
  const auto check = runQuillo("check '" + file + "'");
  EXPECT_EQ(check.exitCode, 0) << check.output;
  EXPECT_NE(check.output.find("usable: 2 fragments, 10000 shots, 10000 waveform rows, 10000 "
                              "online records"),
            std::string::npos)
      << check.output;
  EXPECT_EQ(check.output.find("warning"), std::string::npos) << check.output;
  const auto run = runQuillo("run --quiet '" + file + "' --out-dir '" + local.file("out") + "'");
  EXPECT_EQ(run.exitCode, 0) << run.output;
  EXPECT_EQ(count(run.output, "[verified]"), 2u) << run.output;
}
