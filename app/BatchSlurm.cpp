// Writes a plan's sbatch script, submits it and reads the queue. Reads: the tasks' reports
// (measured memory and time), PLAN.jobs and squeue's listing. Writes: PLAN.sbatch, PLAN.jobs.
#include "app/BatchSlurm.hpp"

#include <sys/wait.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "app/BatchTask.hpp"
#include "app/CliError.hpp"
#include "app/Json.hpp"

namespace quillo::cli {

namespace fs = std::filesystem;

namespace {

// Headroom over the largest measured peak: strips differ in size.
constexpr double kMemoryHeadroom = 1.5;
constexpr double kTimeHeadroom = 2.0;
constexpr double kTimeMarginMinutes = 5.0;
// Job states in which a task still holds its place in the queue; finished ones may linger
// in squeue's listing for a few minutes.
constexpr const char* kQueuedStates = "PENDING,CONFIGURING,RUNNING,COMPLETING,SUSPENDED";

std::string shellQuote(const std::string& s) {
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

struct Captured {
  int status = -1;
  std::string out;
};

// Runs a shell command line and returns its exit status and standard output.
Captured capture(const std::string& command) {
  Captured c;
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return c;
  char buffer[4096];
  for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
    c.out.append(buffer, n);
  const int status = pclose(pipe);
  c.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return c;
}

bool onPath(const std::string& program) {
  return capture("command -v " + program + " >/dev/null 2>&1").status == 0;
}

std::string jobsPathOf(const BatchPlan& plan) {
  return plan.path + ".jobs";
}

std::vector<std::string> submittedJobs(const BatchPlan& plan) {
  std::ifstream in(jobsPathOf(plan));
  std::vector<std::string> ids;
  for (std::string id; in >> id;) ids.push_back(id);
  return ids;
}

std::string memoryLine(const BatchPlan& plan, const SlurmRequest& r, const MeasuredNeeds& m) {
  if (!r.mem.empty()) return "#SBATCH --mem=" + r.mem + "\n";
  if (m.tasks == 0)
    throw CliError(kUsage,
                   "no task of " + plan.path +
                       " has run yet, so no memory peak is measured: give --mem, or run one "
                       "strip first (quillo batch run PLAN --task 0)");
  const long mib = std::lround(std::ceil(m.peakMemoryMiB * kMemoryHeadroom));
  return "# memory: measured peak " + std::to_string(std::lround(m.peakMemoryMiB)) +
         " MiB, with headroom\n#SBATCH --mem=" + std::to_string(mib) + "M\n";
}

std::string timeLine(const SlurmRequest& r, const MeasuredNeeds& m) {
  if (!r.time.empty()) return "#SBATCH --time=" + r.time + "\n";
  if (m.tasks == 0) return "";  // the partition's default
  const long minutes =
      std::lround(std::ceil(m.slowestSeconds * kTimeHeadroom / 60.0 + kTimeMarginMinutes));
  return "# time: slowest strip so far " + std::to_string(std::lround(m.slowestSeconds)) +
         " s, with headroom\n#SBATCH --time=" + std::to_string(minutes) + "\n";
}

// Reads "%K" off the script's array line, so that a resubmission keeps the limit.
unsigned maxParallelOf(const std::string& script) {
  std::ifstream in(script);
  for (std::string line; std::getline(in, line);)
    if (line.rfind("#SBATCH --array=", 0) == 0 && line.find('%') != std::string::npos)
      return unsigned(std::stoul(line.substr(line.find('%') + 1)));
  return 0;
}

}  // namespace

MeasuredNeeds measuredNeeds(const BatchPlan& plan) {
  MeasuredNeeds m;
  for (const auto& task : plan.tasks) {
    const auto report = readTaskReport(task);
    if (report.is_null() || report.value("state", "") != "done") continue;
    m.tasks += 1;
    m.peakMemoryMiB = std::max(m.peakMemoryMiB, report.value("peak_memory_mib", 0.0));
    m.slowestSeconds = std::max(m.slowestSeconds, report.value("seconds", 0.0));
  }
  return m;
}

std::string arraySpec(const std::vector<std::size_t>& tasks, unsigned maxParallel) {
  std::string arrayRange;
  for (std::size_t i = 0; i < tasks.size();) {
    std::size_t j = i;
    while (j + 1 < tasks.size() && tasks[j + 1] == tasks[j] + 1) ++j;
    arrayRange += (arrayRange.empty() ? "" : ",") + std::to_string(tasks[i]);
    if (j > i) arrayRange += "-" + std::to_string(tasks[j]);
    i = j + 1;
  }
  if (maxParallel > 0) arrayRange += "%" + std::to_string(maxParallel);
  return arrayRange;
}

std::string scriptPathOf(const BatchPlan& plan) {
  return (fs::path(plan.path).replace_extension(".sbatch")).string();
}

std::string sbatchScript(const BatchPlan& plan, const SlurmRequest& r,
                         const std::string& quilloPath) {
  std::vector<std::size_t> all(plan.tasks.size());
  for (std::size_t i = 0; i < all.size(); ++i) all[i] = i;
  const MeasuredNeeds measured = measuredNeeds(plan);
  std::ostringstream s;
  s << "#!/bin/bash\n# quillo batch: one strip of " << plan.path << " per array task\n"
    << "#SBATCH --job-name=quillo-" << fs::path(plan.path).stem().string() << "\n"
    << "#SBATCH --array=" << arraySpec(all, std::min<unsigned>(r.maxParallel, all.size())) << "\n"
    << "#SBATCH --output=" << logDir(plan) << "/task-%a.log\n"
    << "#SBATCH --cpus-per-task=" << r.cpusPerTask << "\n"
    << memoryLine(plan, r, measured) << timeLine(r, measured);
  if (!r.partition.empty()) s << "#SBATCH --partition=" << r.partition << "\n";
  s << "exec " << shellQuote(quilloPath) << " batch run " << shellQuote(plan.path)
    << " --task \"$SLURM_ARRAY_TASK_ID\" --threads " << r.cpusPerTask << "\n";
  return s.str();
}

std::string writeSbatchScript(const BatchPlan& plan, const SlurmRequest& request) {
  const std::string quillo = fs::read_symlink("/proc/self/exe").string();
  const std::string text = sbatchScript(plan, request, quillo);
  std::error_code ec;
  fs::create_directories(logDir(plan), ec);
  if (ec) throw CliError(kOutput, logDir(plan) + ": cannot create the folder: " + ec.message());
  const std::string path = scriptPathOf(plan);
  writeFileAtomically(path, text);
  return path;
}

std::string submit(const BatchPlan& plan, const std::optional<std::vector<std::size_t>>& tasks) {
  const std::string script = scriptPathOf(plan);
  if (!fs::exists(script))
    throw CliError(kUsage, script + ": no such script; write it with quillo batch slurm first");
  if (!onPath("sbatch")) throw CliError(kFailure, "sbatch: not found (is Slurm installed here?)");
  std::string command = "sbatch --parsable";
  if (tasks) command += " --array=" + arraySpec(*tasks, maxParallelOf(script));
  const Captured c = capture(command + " " + shellQuote(script) + " 2>&1");
  const std::string id = c.out.substr(0, c.out.find_first_of(";\n"));
  if (c.status != 0 || id.empty() || id.find_first_not_of("0123456789") != std::string::npos)
    throw CliError(kFailure, "sbatch failed: " + c.out);
  std::ofstream(jobsPathOf(plan), std::ios::app) << id << "\n";
  return id;
}

std::map<std::size_t, std::string> queueStates(const BatchPlan& plan) {
  std::map<std::size_t, std::string> states;
  const auto jobs = submittedJobs(plan);
  if (jobs.empty() || !onPath("squeue")) return states;
  for (const auto& job : jobs) {
    // One job at a time: squeue refuses a whole list when one job has left its memory.
    const Captured c =
        capture("squeue -h -r -j " + job + " -t " + kQueuedStates + " -o '%i %T' 2>/dev/null");
    std::istringstream lines(c.out);
    for (std::string id, state; lines >> id >> state;) {
      const auto underscore = id.find('_');
      if (underscore == std::string::npos || id.substr(0, underscore) != job) continue;
      const std::string task = id.substr(underscore + 1);
      if (task.empty() || task.find_first_not_of("0123456789") != std::string::npos) continue;
      states[std::stoul(task)] = state;
    }
  }
  return states;
}

}  // namespace quillo::cli
