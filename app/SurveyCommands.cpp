#include "app/SurveyCommands.hpp"

#include <malloc.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <regex>

#include "app/CliError.hpp"
#include "app/CrsOption.hpp"
#include "app/Json.hpp"
#include "app/Progress.hpp"
#include "app/RunJob.hpp"
#include "sim/HeightGrid.hpp"
#include "sim/Scoring.hpp"
#include "sim/SurveyBundle.hpp"
#include "sim/TerrainCrs.hpp"
#include "tessal/Schema.hpp"

namespace quillo::cli {

namespace schema = Tessal::schema;

namespace fs = std::filesystem;

namespace {

struct SimulateOptions {
  std::string preset = "tiny", out, scanner = "line-wise", date = "210315_093000", terrain, crs;
  std::uint64_t seed = 1, shots = 0;
  std::uint32_t fragmentShots = 0, lines = 0;
  int kqVersion = 2;
  double prr = 0.0, altitude = 0.0, lineSpacing = 0.0;
  std::optional<double> heading;
  std::optional<std::int32_t> rdbSegment;
  std::optional<double> blindWindowNs, scanGap, dust, scanRate;
  bool noShotsBetweenLines = false;
  bool quiet = false, splitLines = false;
};

void applyScanner(const SimulateOptions& o, sim::SurveyConfig& c) {
  if (o.blindWindowNs) c.blindWindow = *o.blindWindowNs * 1e-9;
  if (o.scanGap) c.scanGapShare = *o.scanGap;
  if (o.scanRate) c.scanRate = *o.scanRate;
  if (o.dust) c.dustShare = *o.dust;
  if (o.noShotsBetweenLines) c.shotsBetweenLines = false;
  if (!c.shotsBetweenLines && c.scanGapShare <= 0.0)
    throw CliError(kUsage, "--no-shots-between-lines: needs a --scan-gap above 0");
}

void applyFlight(const SimulateOptions& o, sim::SurveyConfig& c) {
  if (o.lines) c.lines = o.lines;
  if (o.lineSpacing > 0) c.lineSpacing = o.lineSpacing;
  if (o.heading) {
    if (!std::isfinite(*o.heading)) throw CliError(kUsage, "--heading: expected degrees");
    c.heading = std::fmod(*o.heading, 360.0);
  }
  if (o.rdbSegment) {
    // The module names outputs only for segments 0 and 1.
    if (*o.rdbSegment != 0 && *o.rdbSegment != 1) throw CliError(kUsage, "--rdb-segment: 0 or 1");
    c.rdbSegment = *o.rdbSegment;
  }
  if (!o.terrain.empty()) {
    try {
      c.terrain = sim::loadTerrain(o.terrain);
    } catch (const std::runtime_error& e) {
      throw CliError(kInput, e.what());
    }
  }
}

// --crs, else the terrain's own, else the procedural scene's local system.
std::string sceneCoordinateSystem(const SimulateOptions& o) {
  if (!o.crs.empty()) return coordinateSystemOption(o.crs).wkt;
  if (o.terrain.empty()) return proceduralSceneCoordinateSystem();
  try {
    const auto crs = sim::readLasCoordinateSystem(o.terrain);
    return crs ? crs->wkt : "";
  } catch (const std::runtime_error& e) {
    throw CliError(kInput, std::string(e.what()) + "; give the system with --crs");
  }
}

sim::SurveyConfig configFrom(const SimulateOptions& o) {
  sim::SurveyConfig c;
  if (!sim::presetConfig(o.preset, c)) throw CliError(kUsage, "--preset: tiny, demo or large");
  c.seed = o.seed;
  if (o.shots) c.shots = o.shots;
  if (o.fragmentShots) c.fragmentShots = o.fragmentShots;
  if (o.prr > 0) c.pulseRate = o.prr;
  if (o.altitude > 0) c.altitude = o.altitude;
  if (o.scanner == "radial")
    c.pattern = sim::Pattern::Radial;
  else if (o.scanner != "line-wise")
    throw CliError(kUsage, "--scanner: line-wise or radial");
  if (!std::regex_match(o.date, std::regex(schema::kDateTimePattern)))
    throw CliError(kUsage, "--date: expected YYMMDD_HHMMSS");
  c.date = o.date;
  c.coordinateSystem = sceneCoordinateSystem(o);
  applyFlight(o, c);
  applyScanner(o, c);
  return c;
}

}  // namespace

std::string proceduralSceneCoordinateSystem() {
  return geo::localCoordinateSystem("quillo simulated scene").wkt;
}

void simulateSurvey(const sim::SurveyConfig& config, const std::string& out, bool quiet,
                    Tessal::KqLayout layout) {
  std::error_code ec;
  const fs::path parent = fs::path(out).parent_path();
  if (!parent.empty() && !fs::is_directory(parent, ec))
    throw CliError(kOutput, parent.string() + ": no such folder");
  // Every fragment allocates and frees the same large buffers: keeping freed memory in the
  // process spares the page faults of fresh mappings, a good part of the simulation's time.
  mallopt(M_MMAP_THRESHOLD, 1 << 30);
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  ProgressBar bar(fs::path(out).filename().string(), quiet);
  const std::string error = sim::writeSurvey(
      config, out, [&bar](std::uint32_t done, std::uint32_t total) { bar.report("", done, total); },
      layout);
  bar.finish();
  if (!error.empty()) throw CliError(kOutput, error);
}

namespace {

double seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

// OUT's name with the line number before the extension: name_YYMMDD_HHMMSS_line2.kq.
std::string lineFileName(const std::string& out, std::uint32_t line, std::uint32_t lines) {
  const fs::path p(out);
  std::string number = std::to_string(line);
  number.insert(0, std::to_string(lines - 1).size() - number.size(), '0');
  return (p.parent_path() / (p.stem().string() + "_line" + number + p.extension().string()))
      .string();
}

// One file per flight line, each simulated on its own with its own seed (seed + line).
void simulateLines(sim::SurveyConfig config, const std::string& out, bool quiet,
                   Tessal::KqLayout layout) {
  const std::uint64_t seed = config.seed;
  for (std::uint32_t line = 0; line < config.lines; ++line) {
    config.onlyLine = std::int32_t(line);
    config.seed = seed + line;
    const std::string file = lineFileName(out, line, config.lines);
    simulateSurvey(config, file, quiet, layout);
    std::printf("%s: flight line %u of %u\n", file.c_str(), line + 1, config.lines);
  }
}

void addFlightOptions(CLI::App* c, SimulateOptions& o) {
  c->add_option("--altitude", o.altitude, "Flying height above the scene's ground level in m");
  c->add_option("--lines", o.lines, "Number of parallel flight lines (default: the preset's)")
      ->check(CLI::PositiveNumber);
  c->add_option("--line-spacing", o.lineSpacing, "Distance between flight lines in m")
      ->check(CLI::PositiveNumber);
  c->add_option("--heading", o.heading,
                "Flight direction, degrees clockwise from +y (default: along the longer side)");
  c->add_option("--terrain", o.terrain, "LAS 1.0-1.4 file whose points become the scene")
      ->check(CLI::ExistingFile);
  c->add_option("--rdb-segment", o.rdbSegment, "Write the \"RDB_Segment\" attribute (0 or 1)");
  c->add_option("--crs", o.crs,
                std::string(kCrsOptionHelp) +
                    " (default: the terrain's, or a local system for the built-in scene)");
  c->add_flag("--split-lines", o.splitLines,
              "One file per flight line: OUT's name with _line0, _line1, ... (strips for a batch)");
}

void addScannerOptions(CLI::App* c, SimulateOptions& o) {
  c->add_option("--blind-window", o.blindWindowNs,
                "Receiver blind time after each emission in ns (default 10; 0: never blind)")
      ->check(CLI::Range(0.0, 1000.0));
  c->add_option("--scan-gap", o.scanGap,
                "Line-wise: share of each scan line outside the field of view (default 0.2)")
      ->check(CLI::Range(0.0, 0.9));
  c->add_option("--scan-rate", o.scanRate,
                "Scan lines (radial: turns) per second (default: the preset's)")
      ->check(CLI::Range(1.0, 10000.0));
  c->add_flag("--no-shots-between-lines", o.noShotsBetweenLines,
              "Fire no shots while the beam is outside the field of view");
  c->add_option("--dust", o.dust, "Share of shots with an isolated dust echo (default 0.001)")
      ->check(CLI::Range(0.0, 1.0));
}

}  // namespace

void addSimulateCommand(CLI::App& app) {
  auto o = std::make_shared<SimulateOptions>();
  CLI::App* c = app.add_subcommand("simulate", "Simulate a high-pulse-rate survey with its truth");
  c->add_option("out", o->out, "Output .kq file (name_YYMMDD_HHMMSS.kq carries the date)")
      ->required();
  c->add_option("--preset", o->preset, "tiny, demo or large")->capture_default_str();
  c->add_option("--seed", o->seed, "Random seed")->capture_default_str();
  c->add_option("--shots", o->shots, "Number of shots (default: the preset's)");
  c->add_option("--fragment-shots", o->fragmentShots, "Shots per fragment");
  c->add_option("--prr", o->prr, "Pulse repetition rate in Hz");
  c->add_option("--scanner", o->scanner, "line-wise or radial")->capture_default_str();
  c->add_option("--date", o->date, "Acquisition date and time YYMMDD_HHMMSS")
      ->capture_default_str();
  addFlightOptions(c, *o);
  addScannerOptions(c, *o);
  c->add_flag("--quiet", o->quiet, "No progress output");
  c->add_option("--kq-version", o->kqVersion,
                "File layout: 2, one dataset per field; 1, one dataset per fragment (for tools "
                "that read only that)")
      ->check(CLI::IsMember({1, 2}))
      ->capture_default_str();
  c->callback([o] {
    const auto layout = o->kqVersion == 1 ? Tessal::KqLayout::DatasetPerFragment
                                          : Tessal::KqLayout::DatasetPerField;
    const auto start = std::chrono::steady_clock::now();
    const sim::SurveyConfig config = configFrom(*o);
    if (o->splitLines)
      simulateLines(config, o->out, o->quiet, layout);
    else
      simulateSurvey(config, o->out, o->quiet, layout);
    if (config.rdbSegment >= 0 && !fs::path(o->out).stem().string().ends_with("_rdb"))
      std::fprintf(stderr,
                   "note: %s does not end in _rdb.kq; a run names its output like the input\n",
                   o->out.c_str());
    if (!nameCarriesDate(o->out))
      std::fprintf(stderr, "note: %s carries no _YYMMDD_HHMMSS date; runs will need --date %s\n",
                   o->out.c_str(), o->date.c_str());
    std::printf("%s%s: %llu shots in %.1f s\n", o->out.c_str(),
                o->splitLines ? " (one file per line)" : "", (unsigned long long)config.shots,
                seconds(start));
  });
}

void addScoreCommand(CLI::App& app) {
  auto outputs = std::make_shared<std::vector<std::string>>();
  auto truth = std::make_shared<std::string>();
  auto json = std::make_shared<std::string>();
  CLI::App* c = app.add_subcommand("score", "Score run outputs against a simulated survey's truth");
  c->add_option("outputs", *outputs, "Result .kq files of one run")->required();
  c->add_option("--truth", *truth, "The simulated input .kq file")->required();
  c->add_option("--json", *json, "Also write the scores as JSON");
  c->callback([outputs, truth, json] {
    sim::ZoneScoreReport r;
    try {
      r = sim::scoreOutputs(*outputs, *truth);
    } catch (const std::runtime_error& e) {
      throw CliError(kInput, e.what());
    }
    std::fputs(sim::reportAsText(r).c_str(), stdout);
    if (!json->empty()) writeFileAtomically(*json, sim::reportAsJson(r));
  });
}

}  // namespace quillo::cli
