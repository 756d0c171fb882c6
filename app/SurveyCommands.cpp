#include "app/SurveyCommands.hpp"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <regex>

#include "app/CliError.hpp"
#include "app/Json.hpp"
#include "app/RunJob.hpp"
#include "sim/Scoring.hpp"
#include "sim/SurveyBundle.hpp"

namespace quillo::cli {

namespace fs = std::filesystem;

namespace {

struct SimulateOptions {
  std::string preset = "tiny", out, scanner = "line-wise", date = "210315_093000";
  std::uint64_t seed = 1, shots = 0;
  std::uint32_t fragmentShots = 0;
  double prr = 0.0, altitude = 0.0;
};

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
  if (!std::regex_match(o.date, std::regex("[0-9]{6}_[0-9]{6}")))
    throw CliError(kUsage, "--date: expected YYMMDD_HHMMSS");
  c.date = o.date;
  return c;
}

void simulate(const sim::SurveyConfig& config, const std::string& out) {
  std::error_code ec;
  const fs::path parent = fs::path(out).parent_path();
  if (!parent.empty() && !fs::is_directory(parent, ec))
    throw CliError(kOutput, parent.string() + ": no such folder");
  const std::string error = sim::writeSurvey(config, out);
  if (!error.empty()) throw CliError(kOutput, error);
}

double seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
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
  c->add_option("--altitude", o->altitude, "Flying height above the datum in m");
  c->add_option("--scanner", o->scanner, "line-wise or radial")->capture_default_str();
  c->add_option("--date", o->date, "Acquisition date and time YYMMDD_HHMMSS")
      ->capture_default_str();
  c->callback([o] {
    const auto start = std::chrono::steady_clock::now();
    const sim::SurveyConfig config = configFrom(*o);
    simulate(config, o->out);
    if (!nameCarriesDate(o->out))
      std::fprintf(stderr, "note: %s carries no _YYMMDD_HHMMSS date; runs will need --date %s\n",
                   o->out.c_str(), o->date.c_str());
    std::printf("%s: %llu shots in %.1f s\n", o->out.c_str(), (unsigned long long)config.shots,
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
