// The `batch` command and its subcommands: options and what each prints.
#include "app/BatchCommands.hpp"

#include <cstdio>
#include <memory>

#include "app/BatchLocal.hpp"
#include "app/BatchPlan.hpp"
#include "app/BatchSlurm.hpp"
#include "app/BatchStatus.hpp"
#include "app/BatchTask.hpp"
#include "app/CliError.hpp"
#include "app/Json.hpp"
#include "app/RunOptions.hpp"

namespace quillo::cli {

namespace {

void addPlanCommand(CLI::App& batch) {
  auto r = std::make_shared<PlanRequest>();
  CLI::App* c = batch.add_subcommand("plan", "Write the plan of a batch: one task per input");
  c->add_option("inputs", r->inputs, "Input .kq files (the strips)")->required();
  c->add_option("--out-dir", r->outDir, "Folder of the outputs, reports and logs")->required();
  c->add_option("--plan", r->planPath, "The plan file (default: OUT_DIR/plan.json)");
  c->add_option("--date", r->date, "Acquisition date YYMMDD_HHMMSS for names that carry none");
  c->add_flag("--wave-counts", r->waveCounts,
              "Also count uncertain and repaired waves per strip (a second pass, slower)");
  addModuleOptions(*c, r->module);
  addRefineOption(*c, r->module);
  c->callback([r] {
    const BatchPlan plan = makePlan(*r);
    savePlan(plan);
    std::printf("%s: %zu tasks, outputs in %s\n", plan.path.c_str(), plan.tasks.size(),
                plan.outDir.c_str());
  });
}

void warnAboutVersion(const BatchPlan& plan) {
  if (plan.quilloVersion != quilloVersion())
    std::fprintf(stderr, "note: %s was made by quillo %s, this is quillo %s\n", plan.path.c_str(),
                 plan.quilloVersion.c_str(), quilloVersion().c_str());
}

void addRunTaskCommand(CLI::App& batch) {
  auto plan = std::make_shared<std::string>();
  auto task = std::make_shared<long>(-1);
  CLI::App* c = batch.add_subcommand("run", "Run one task of a plan (skipped when done)");
  c->add_option("plan", *plan, "The plan file")->required();
  c->add_option("--task", *task, "Task number, from 0")->required();
  auto threads = std::make_shared<unsigned>(usableCores());
  c->add_option("--threads", *threads,
                "Threads for the task's fragments (default: this process's CPUs)")
      ->check(CLI::Range(1u, 256u));
  c->callback([plan, task, threads] {
    const BatchPlan p = loadPlan(*plan);
    warnAboutVersion(p);
    const BatchTask& t = taskOf(p, *task);
    const TaskResult result = runTask(p, t, *threads);
    if (result.outcome == TaskOutcome::Failed)
      throw CliError(kFailure, "task " + std::to_string(t.index) + " (" + t.input +
                                   ") failed: " + result.message);
    std::printf(
        "task %zu %s: %s\n", t.index,
        result.outcome == TaskOutcome::Skipped ? "skipped, its outputs are complete" : "done",
        t.input.c_str());
  });
}

void addLocalCommand(CLI::App& batch) {
  auto plan = std::make_shared<std::string>();
  auto jobs = std::make_shared<unsigned>(1);
  auto quiet = std::make_shared<bool>(false);
  CLI::App* c = batch.add_subcommand("local", "Run every task of a plan on this machine");
  c->add_option("plan", *plan, "The plan file")->required();
  c->add_option("--jobs", *jobs, "Tasks at a time")->check(CLI::Range(1u, 64u));
  auto threads = std::make_shared<unsigned>(usableCores());
  c->add_option(
       "--threads", *threads,
       "Threads in all (default: this machine's CPUs); each running task gets threads / jobs")
      ->check(CLI::Range(1u, 256u));
  c->add_flag("--quiet", *quiet, "No progress bar");
  c->callback([plan, jobs, threads, quiet] {
    const BatchPlan p = loadPlan(*plan);
    warnAboutVersion(p);
    const std::size_t failed = runLocally(p, *jobs, *threads, *quiet);
    std::fputs(statusText(p, collectStatus(p, {})).c_str(), stdout);
    if (failed) throw CliError(kFailure, std::to_string(failed) + " tasks failed");
  });
}

void addSlurmCommand(CLI::App& batch) {
  auto plan = std::make_shared<std::string>();
  auto r = std::make_shared<SlurmRequest>();
  auto doSubmit = std::make_shared<bool>(false);
  CLI::App* c = batch.add_subcommand("slurm", "Write (and submit) the Slurm job array of a plan");
  c->add_option("plan", *plan, "The plan file")->required();
  c->add_option("--partition", r->partition, "Slurm partition");
  c->add_option("--time", r->time, "Time limit per task (default: from measured strips)");
  c->add_option("--cpus-per-task", r->cpusPerTask, "CPUs per task")->check(CLI::Range(1u, 1024u));
  c->add_option("--mem", r->mem, "Memory per task, e.g. 2G (default: from the measured peak)");
  c->add_option("--max-parallel", r->maxParallel, "Array tasks running at a time")
      ->check(CLI::Range(1u, 100000u));
  c->add_flag("--submit", *doSubmit, "Submit it with sbatch and print the job id");
  c->callback([plan, r, doSubmit] {
    const BatchPlan p = loadPlan(*plan);
    const std::string script = writeSbatchScript(p, *r);
    std::printf("%s: job array of %zu tasks\n", script.c_str(), p.tasks.size());
    if (*doSubmit) std::printf("submitted job %s\n", submit(p, std::nullopt).c_str());
  });
}

void addStatusCommand(CLI::App& batch) {
  auto plan = std::make_shared<std::string>();
  auto resubmit = std::make_shared<bool>(false);
  CLI::App* c = batch.add_subcommand("status", "Done, failed, running and missing tasks");
  c->add_option("plan", *plan, "The plan file")->required();
  c->add_flag("--resubmit", *resubmit, "Submit the tasks not done (and not queued) to Slurm");
  c->callback([plan, resubmit] {
    const BatchPlan p = loadPlan(*plan);
    const auto statuses = collectStatus(p, queueStates(p));
    std::fputs(statusText(p, statuses).c_str(), stdout);
    if (!*resubmit) return;
    std::vector<std::size_t> redo;
    for (const auto& s : statuses)
      if (s.state == TaskState::Failed || s.state == TaskState::Missing) redo.push_back(s.task);
    if (redo.empty()) {
      std::printf("nothing to resubmit\n");
      return;
    }
    std::printf("resubmitted tasks %s as job %s\n", arraySpec(redo, 0).c_str(),
                submit(p, redo).c_str());
  });
}

void addReportCommand(CLI::App& batch) {
  auto plan = std::make_shared<std::string>();
  auto json = std::make_shared<std::string>();
  CLI::App* c = batch.add_subcommand("report", "One summary over all strips of a plan");
  c->add_option("plan", *plan, "The plan file")->required();
  c->add_option("--json", *json, "Also write the summary as JSON");
  c->callback([plan, json] {
    const BatchPlan p = loadPlan(*plan);
    const nlohmann::json summary = batchSummary(p, collectStatus(p, queueStates(p)));
    std::fputs(summaryText(summary).c_str(), stdout);
    if (!json->empty()) writeFileAtomically(*json, summary.dump(2) + "\n");
  });
}

}  // namespace

void addBatchCommand(CLI::App& app) {
  CLI::App* batch = app.add_subcommand("batch",
                                       "Many strips: plan, run one task, run all here "
                                       "or on Slurm, status, report");
  batch->require_subcommand(1);
  addPlanCommand(*batch);
  addRunTaskCommand(*batch);
  addLocalCommand(*batch);
  addSlurmCommand(*batch);
  addStatusCommand(*batch);
  addReportCommand(*batch);
  batch->footer(
      "Examples:\n  quillo batch plan strips/*.kq --out-dir results\n"
      "  quillo batch local results/plan.json --jobs 2\n"
      "  quillo batch slurm results/plan.json --partition batch --max-parallel 50 --submit\n"
      "  quillo batch status results/plan.json --resubmit\n"
      "  quillo batch report results/plan.json --json summary.json");
}

}  // namespace quillo::cli
