#include "app/RunCommand.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <memory>
#include <mutex>
#include <regex>
#include <utility>

#include "app/CaughtError.hpp"
#include "app/CliError.hpp"
#include "app/FragmentProbe.hpp"
#include "app/InputCheck.hpp"
#include "app/Json.hpp"
#include "app/LoadKq.hpp"
#include "app/RunOptions.hpp"
#include "app/Spread.hpp"
#include "tessal/Schema.hpp"

namespace quillo::cli {

namespace schema = Tessal::schema;

namespace {

unsigned defaultThreads() {
  return usableCores();
}

struct RunCommandOptions {
  std::vector<std::string> inputs;
  ModuleOptions module;
  std::string outDir, date, report;
  bool verbose = false, quiet = false, hist = false;
  unsigned jobs = 1;
  unsigned threads = defaultThreads();
};

void printSummary(const RunSummary& s) {
  if (!s.result.empty()) {
    std::fprintf(stderr, "%s: run failed: %s\n", s.input.c_str(), s.result.c_str());
    return;
  }
  if (s.refined)
    std::printf("%s: refinement moved %llu point(s) to another zone, classified %llu as noise\n",
                s.input.c_str(), static_cast<unsigned long long>(s.refineMoved),
                static_cast<unsigned long long>(s.refineMarkedNoise));
  for (const auto& out : s.outputs) {
    std::printf("%s: %llu points (%llu noise) -> %s [%s]\n", s.input.c_str(),
                static_cast<unsigned long long>(out.points),
                static_cast<unsigned long long>(out.noisePoints), out.path.c_str(),
                out.verification.empty() ? "verified" : out.verification.c_str());
    if (out.pointsWithoutPosition)
      std::fprintf(stderr,
                   "quillo: warning: %s: %llu point(s) have no finite position (their shot's "
                   "direction or origin is unusable, or their echo time is not a number); "
                   "export leaves them out\n",
                   out.path.c_str(), static_cast<unsigned long long>(out.pointsWithoutPosition));
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

Json outputAsJson(const OutputSummary& o) {
  Json zones = Json::object();
  for (const auto& [zone, n] : o.pointsPerZone) zones[std::to_string(zone)] = n;
  return {{"path", o.path},
          {"points", o.points},
          {"noise_points", o.noisePoints},
          {"points_without_position", o.pointsWithoutPosition},
          {"points_per_zone", zones},
          {"verification", o.verification}};
}

}  // namespace

std::string runReportJson(const std::vector<RunSummary>& runs, const RunSettings& settings) {
  Json list = Json::array();
  for (const auto& r : runs) {
    Json outputs = Json::array();
    for (const auto& o : r.outputs) outputs.push_back(outputAsJson(o));
    Json run = {{"input", r.input},
                {"result", r.result},
                {"seconds_per_stage", r.secondsPerStage},
                {"outputs", outputs}};
    if (r.refined)
      run["refinement"] = {{"moved", r.refineMoved}, {"marked_noise", r.refineMarkedNoise}};
    list.push_back(run);
  }
  return jsonText({{"parameters", settings.input.speak()}, {"runs", list}});
}

namespace {

// Runs every input, `jobs` at a time, each on one thread; when any failed, the first failure
// in input order is thrown once all have ended.
std::vector<RunSummary> runAll(const RunCommandOptions& o, const RunSettings& settings,
                               std::vector<Tessal::BundlePtr>& loaded) {
  std::vector<RunSummary> summaries(o.inputs.size());
  spreadOver(o.jobs, o.inputs.size(), [&](std::size_t i) {
    // A failure names its input, whichever thread ran it.
    auto error = caughtError(o.inputs[i], [&] {
      summaries[i] = runOne(o.inputs[i], settings, std::exchange(loaded[i], {}));
    });
    if (error) throw *error;
  });
  return summaries;
}

void makeOutDir(const std::string& dir) {
  if (dir.empty()) return;
  std::error_code ec;
  std::filesystem::create_directories(dir, ec);
  if (!std::filesystem::is_directory(dir, ec))
    throw CliError(kOutput, dir + ": cannot create the folder" + (ec ? ": " + ec.message() : ""));
}

// Wall and CPU time (of all threads) since it was made.
class Stopwatch {
 public:
  double seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  }
  double cpuSeconds() const { return processCpu() - cpuStart_; }

 private:
  static double processCpu() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
  }
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  double cpuStart_ = processCpu();
};

// Checks every input before any run starts, so a run stops with the reasons and fixes rather
// than with the module's short messages. The defaults standing in for missing attributes
// and the warnings are said once per input, also with --quiet (which silences progress). The
// samples' values are left to `quillo check`. Returns the inputs as loaded for the check, for
// the first runs to start (each further input is loaded again when its run starts, so that a
// long list of inputs does not hold every file open).
std::vector<Tessal::BundlePtr> checkInputs(const RunCommandOptions& o) {
  CheckScope scope;
  scope.readSamples = false;
  scope.waveforms = !o.module.skipFWF;
  scope.online = !o.module.skipOnline;
  scope.threads = o.threads;
  std::size_t unusable = 0;
  std::vector<Tessal::BundlePtr> loaded(o.inputs.size());
  for (std::size_t i = 0; i < o.inputs.size(); ++i) {
    const std::string& input = o.inputs[i];
    const Stopwatch watch;
    CheckReport report = checkInput(input, scope);
    if (o.verbose)
      std::fprintf(stderr, "%s: checked in %.2f s (%.2f s CPU on %u thread(s))\n", input.c_str(),
                   watch.seconds(), watch.cpuSeconds(), scope.threads);
    if (i < std::max(1u, o.jobs)) loaded[i] = std::move(report.bundle);
    if (!report.loadError.empty()) {
      // The loader's own words (they name the object), then the error every command gives.
      if (report.loadError != input + ": " + report.findings[0].what)
        std::fprintf(stderr, "%s: %s\n", input.c_str(), report.findings[0].what.c_str());
      throw CliError(kInput, report.loadError);
    }
    if (!report.runnable()) {
      ++unusable;
      std::fputs(findingsAsText(report, {Severity::Error}).c_str(), stderr);
    } else {
      std::fputs(findingsAsText(report, {Severity::Warning, Severity::Default}).c_str(), stderr);
    }
  }
  if (unusable)
    throw CliError(kInput, std::to_string(unusable) +
                               " input(s) cannot be run for the reasons above (quillo check "
                               "INPUT lists every finding)");
  return loaded;
}

void execute(const RunCommandOptions& o) {
  static const std::regex datePattern(schema::kDateTimePattern);
  if (!o.date.empty() && !std::regex_match(o.date, datePattern))
    throw CliError(kUsage, "--date: expected YYMMDD_HHMMSS, got \"" + o.date + "\"");
  RunSettings settings = settingsFrom(o.module);
  makeOutDir(o.outDir);
  std::vector<Tessal::BundlePtr> loaded = checkInputs(o);
  settings.outDir = o.outDir;
  settings.date = o.date;
  settings.verbose = o.verbose;
  settings.quiet = o.quiet || o.jobs > 1;
  // The cores are shared among the inputs run at once rather than multiplied by them.
  settings.threads = std::max(1u, o.threads / std::max(1u, o.jobs));
  std::vector<RunSummary> runs = runAll(o, settings, loaded);
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
  c->add_option("--out-dir", o->outDir,
                "Folder for the outputs, made when missing (default: beside each input)");
  c->add_option("--date", o->date, "Acquisition date YYMMDD_HHMMSS when the input name has none");
  c->add_flag("--verbose", o->verbose, "Print the run parameters");
  c->add_flag("--quiet", o->quiet, "No progress output");
  c->add_flag("--hist", o->hist, "Print the zone histogram of every fragment");
  addRefineOption(*c, o->module);
  c->add_option("--report", o->report, "Write a JSON summary of the runs");
  c->add_option("--jobs", o->jobs, "Inputs run in parallel (they share --threads)")
      ->check(CLI::Range(1u, 64u));
  c->add_option(
       "--threads", o->threads,
       "Threads in all (default: the CPUs this process may use); with --jobs J each input gets "
       "threads / J of them (at least one), so J x that never exceeds the larger of "
       "the two")
      ->check(CLI::Range(1u, 256u));
  c->footer(
      "Each input is checked first (as by quillo check); an unusable one stops the command.\n"
      "Examples:\n  quillo run survey_210315_093000.kq\n"
      "  quillo run a_210315_093000.kq b_210315_101500.kq --jobs 2 --out-dir results\n"
      "  quillo run survey.kq --date 210315_093000 --mta 3 --report run.json\n"
      "  quillo run survey_210315_093000.kq --threads 1   (one core: same output, slower)");
  c->callback([o] { execute(*o); });
}

}  // namespace quillo::cli
