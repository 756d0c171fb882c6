#include "app/RunCommand.hpp"

#include <atomic>
#include <cstdio>
#include <memory>
#include <mutex>
#include <regex>
#include <thread>

#include "app/CliError.hpp"
#include "app/FragmentProbe.hpp"
#include "app/Json.hpp"
#include "app/LoadKq.hpp"
#include "app/RunOptions.hpp"

namespace quillo::cli {

namespace {

struct RunCommandOptions {
  std::vector<std::string> inputs;
  ModuleOptions module;
  std::string outDir, date, report;
  bool verbose = false, quiet = false, hist = false;
  unsigned jobs = 1;
};

void printSummary(const RunSummary& s) {
  if (!s.result.empty()) {
    std::fprintf(stderr, "%s: run failed: %s\n", s.input.c_str(), s.result.c_str());
    return;
  }
  for (const auto& out : s.outputs) {
    std::printf("%s: %llu points (%llu noise) -> %s [%s]\n", s.input.c_str(),
                static_cast<unsigned long long>(out.points),
                static_cast<unsigned long long>(out.noisePoints), out.path.c_str(),
                out.verification.empty() ? "verified" : out.verification.c_str());
  }
}

void printHistograms(const std::string& input, const RunSettings& settings) {
  Tessal::BundlePtr bundle = loadKqFile(input);
  FragmentProbe probe(bundle, settings.input);
  for (std::uint32_t f = 0; f < probe.fragmentCount(); ++f) {
    const FragmentReport r = probe.inspect(f);
    if (r.processed) std::printf("%s Fragment_%u:%s", input.c_str(), f, r.histogram.c_str());
  }
}

}  // namespace

std::string runReportJson(const std::vector<RunSummary>& runs, const RunSettings& settings) {
  JsonWriter j;
  j.beginObject().key("parameters").value(settings.input.speak()).key("runs").beginArray();
  for (const auto& r : runs) {
    j.beginObject().key("input").value(r.input).key("result").value(r.result);
    j.key("seconds_per_stage").beginObject();
    for (const auto& [stage, seconds] : r.secondsPerStage) j.key(stage).value(seconds);
    j.endObject().key("outputs").beginArray();
    for (const auto& o : r.outputs) {
      j.beginObject().key("path").value(o.path).key("points").value(o.points);
      j.key("noise_points").value(o.noisePoints).key("points_per_zone").beginObject();
      for (const auto& [zone, n] : o.pointsPerZone) j.key(std::to_string(zone)).value(n);
      j.endObject().key("verification").value(o.verification).endObject();
    }
    j.endArray().endObject();
  }
  j.endArray().endObject();
  return j.text() + "\n";
}

namespace {

// Runs every input, `jobs` at a time, each on one thread; stops starting new runs after a
// failure to prepare one (a bad input is reported once, not after the others finished).
std::vector<RunSummary> runAll(const RunCommandOptions& o, const RunSettings& settings) {
  std::vector<RunSummary> summaries(o.inputs.size());
  std::vector<std::unique_ptr<CliError>> errors(o.inputs.size());
  std::atomic<std::size_t> next{0};
  auto worker = [&] {
    for (std::size_t i; (i = next++) < o.inputs.size();) {
      try {
        summaries[i] = runOne(o.inputs[i], settings);
      } catch (const CliError& e) {
        errors[i] = std::make_unique<CliError>(e);
      }
    }
  };
  std::vector<std::thread> threads;
  for (unsigned t = 1; t < std::max(1u, o.jobs); ++t) threads.emplace_back(worker);
  worker();
  for (auto& t : threads) t.join();
  for (auto& e : errors)
    if (e) throw *e;
  return summaries;
}

void execute(const RunCommandOptions& o) {
  static const std::regex datePattern("[0-9]{6}_[0-9]{6}");
  if (!o.date.empty() && !std::regex_match(o.date, datePattern))
    throw CliError(kUsage, "--date: expected YYMMDD_HHMMSS, got \"" + o.date + "\"");
  RunSettings settings = settingsFrom(o.module);
  settings.outDir = o.outDir;
  settings.date = o.date;
  settings.verbose = o.verbose;
  settings.quiet = o.quiet || o.jobs > 1;
  std::vector<RunSummary> runs = runAll(o, settings);
  bool failed = false;
  for (const auto& r : runs) {
    printSummary(r);
    failed = failed || !r.result.empty();
    for (const auto& out : r.outputs) failed = failed || !out.verification.empty();
    if (o.hist && r.result.empty()) printHistograms(r.input, settings);
  }
  if (!o.report.empty()) writeFileAtomically(o.report, runReportJson(runs, settings));
  if (failed) throw CliError(kFailure, "not every run succeeded");
}

}  // namespace

void addRunCommand(CLI::App& app) {
  auto o = std::make_shared<RunCommandOptions>();
  CLI::App* c = app.add_subcommand("run", "Resolve the MTA zones of recordings into point clouds");
  c->add_option("inputs", o->inputs, "Input .kq files")->required();
  addModuleOptions(*c, o->module);
  c->add_option("--out-dir", o->outDir, "Folder for the outputs (default: beside each input)");
  c->add_option("--date", o->date, "Acquisition date YYMMDD_HHMMSS when the input name has none");
  c->add_flag("--verbose", o->verbose, "Print the run parameters");
  c->add_flag("--quiet", o->quiet, "No progress output");
  c->add_flag("--hist", o->hist, "Print the zone histogram of every fragment");
  c->add_option("--report", o->report, "Write a JSON summary of the runs");
  c->add_option("--jobs", o->jobs, "Inputs run in parallel (one thread each)")
      ->check(CLI::Range(1u, 64u));
  c->footer(
      "Examples:\n  quillo run survey_210315_093000.kq\n"
      "  quillo run a_210315_093000.kq b_210315_101500.kq --jobs 2 --out-dir results\n"
      "  quillo run survey.kq --date 210315_093000 --mta 3 --report run.json");
  c->callback([o] { execute(*o); });
}

}  // namespace quillo::cli
