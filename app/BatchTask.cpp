// Runs one task of a plan. Reads: the plan's input of the task and its existing outputs.
// Writes: the outputs (through the run path of `quillo run`) and the task's report.
#include "app/BatchTask.hpp"

#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>

#include "app/CliError.hpp"
#include "app/FragmentProbe.hpp"
#include "app/Json.hpp"
#include "app/LoadKq.hpp"
#include "app/RunCommand.hpp"
#include "run/Verification.hpp"

namespace quillo::cli {

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

std::string hostName() {
  char name[256] = {};
  if (gethostname(name, sizeof name - 1) != 0) return "unknown";
  return name;
}

double peakMemoryMiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return double(usage.ru_maxrss) / 1024.0;  // kilobytes on Linux
}

// Outputs and their temporary files left by an earlier attempt that was stopped mid-run.
void removeEarlierAttempt(const BatchTask& task) {
  std::error_code ec;
  for (const auto& output : task.outputs) {
    fs::remove(output, ec);
    const fs::path p(output);
    const std::string prefix = p.filename().string() + ".tmp-";
    for (const auto& entry : fs::directory_iterator(p.parent_path(), ec))
      if (entry.path().filename().string().rfind(prefix, 0) == 0) fs::remove(entry.path(), ec);
  }
  fs::remove(task.report, ec);
}

// The peak memory recorded with it grows by about one fragment per thread, hence the threads.
json baseReport(const BatchPlan& plan, const BatchTask& task, const std::string& start,
                unsigned threads) {
  return {{"task", task.index},    {"input", task.input},
          {"plan", plan.path},     {"host", hostName()},
          {"pid", long(getpid())}, {"threads", threads},
          {"start", start},        {"quillo_version", quilloVersion()}};
}

// Counts uncertain and repaired waves over every fragment (a second pass over the input).
json waveCounts(const std::string& input, const RunSettings& settings) {
  Tessal::BundlePtr bundle = loadKqFile(input);
  FragmentProbe probe(bundle, settings.input);
  std::uint64_t waves = 0, uncertain = 0, repaired = 0;
  for (std::uint32_t f = 0; f < probe.fragmentCount(); ++f) {
    const FragmentReport r = probe.inspect(f);
    waves += r.waves, uncertain += r.uncertain, repaired += r.repaired;
  }
  return {{"waves", waves}, {"uncertain", uncertain}, {"repaired", repaired}};
}

std::string failureOf(const RunSummary& run) {
  if (!run.result.empty()) return run.result;
  for (const auto& o : run.outputs)
    if (!o.verification.empty()) return o.path + ": " + o.verification;
  return "";
}

// Runs the task's input; fills the report's "run" and returns the failure text, if any.
std::string runInto(json& report, const BatchPlan& plan, const BatchTask& task, unsigned threads) {
  RunSettings settings = planSettings(plan);
  settings.threads = std::max(1u, threads);
  const RunSummary run = runOne(task.input, settings);
  report["run"] = json::parse(runReportJson({run}, settings));
  const std::string failure = failureOf(run);
  if (failure.empty() && plan.waveCounts) report["wave_counts"] = waveCounts(task.input, settings);
  return failure;
}

}  // namespace

std::string outputsIncomplete(const BatchTask& task) {
  std::error_code ec;
  for (const auto& output : task.outputs) {
    if (!fs::exists(output, ec)) return output + ": not there";
    const std::string text = FullWaveform::successfullyConverted(output, true);
    if (!text.empty()) return output + ": " + text;
  }
  return "";
}

json readTaskReport(const BatchTask& task) {
  std::ifstream in(task.report);
  if (!in) return nullptr;
  json report = json::parse(in, nullptr, false);
  return report.is_discarded() || !report.is_object() ? json(nullptr) : report;
}

TaskResult runTask(const BatchPlan& plan, const BatchTask& task, unsigned threads) {
  if (outputsIncomplete(task).empty()) return {TaskOutcome::Skipped, ""};
  removeEarlierAttempt(task);
  const std::string start = utcNow();
  const auto clockStart = std::chrono::steady_clock::now();
  json report = baseReport(plan, task, start, threads);
  report["state"] = "running";
  writeFileAtomically(task.report, report.dump(2) + "\n");
  std::string failure;
  int exitStatus = kOk;
  try {
    failure = runInto(report, plan, task, threads);
    if (!failure.empty()) exitStatus = kFailure;
  } catch (const CliError& e) {
    failure = e.what();
    exitStatus = e.code();
  }
  report["state"] = failure.empty() ? "done" : "failed";
  report["end"] = utcNow();
  report["exit_status"] = exitStatus;
  report["seconds"] =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - clockStart).count();
  report["message"] = failure;
  report["peak_memory_mib"] = peakMemoryMiB();
  writeFileAtomically(task.report, report.dump(2) + "\n");
  return {failure.empty() ? TaskOutcome::Done : TaskOutcome::Failed, failure};
}

}  // namespace quillo::cli
