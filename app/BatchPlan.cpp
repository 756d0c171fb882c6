// Makes, writes and reads batch plans. Reads: the inputs' "Shots" attributes (for the data
// segment that names the outputs). Writes: the plan JSON, atomically.
#include "app/BatchPlan.hpp"

#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>

#include "app/CliError.hpp"
#include "app/Json.hpp"
#include "app/LoadKq.hpp"
#include "tessal/Schema.hpp"

namespace quillo::cli {

namespace schema = Tessal::schema;

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

constexpr const char* kPlanFormat = "quillo-batch-plan";
constexpr int kPlanFormatVersion = 1;

std::string absolute(const std::string& path) {
  return fs::absolute(path).lexically_normal().string();
}

// The outputs a run of `input` writes into `outDir` (named by the module from the input's
// name and data segment).
std::vector<std::string> outputsOf(const std::string& input, const std::string& outDir,
                                   const RunSettings& settings) {
  FullWaveform::Input in = settings.input;
  if (!settings.segmentGiven) {
    Tessal::BundlePtr bundle = loadKqFile(input);
    in.setIsDataFrom_RDBX_File(bundle);
  }
  auto [first, second] = in.getOutFileName(fs::path(input));
  std::vector<std::string> outputs;
  for (const fs::path& p : {first, second})
    if (!p.empty()) outputs.push_back((fs::path(outDir) / p.filename()).string());
  return outputs;
}

std::string reportPathOf(const std::string& input, const std::string& outDir) {
  return (fs::path(outDir) / (fs::path(input).stem().string() + ".task.json")).string();
}

// Every file a task writes must belong to it alone and must not be an input.
std::vector<std::string> clashes(const std::vector<BatchTask>& tasks) {
  std::map<std::string, std::string> owner;  // file -> input
  for (const auto& t : tasks) owner[t.input] = t.input;
  std::vector<std::string> problems;
  for (const auto& t : tasks) {
    std::vector<std::string> files = t.outputs;
    files.push_back(t.report);
    for (const auto& f : files) {
      auto [it, fresh] = owner.emplace(f, t.input);
      if (fresh) continue;
      problems.push_back(it->second == f ? t.input + ": its output " + f + " would replace an input"
                                         : t.input + ": its output " + f + " clashes with " +
                                               it->second + "'s");
    }
  }
  return problems;
}

BatchTask taskFor(const std::string& input, std::size_t index, const std::string& outDir,
                  const RunSettings& settings, const std::string& date) {
  if (!nameCarriesDate(input) && date.empty())
    throw CliError(kUsage, input + ": the file name carries no acquisition date; give --date");
  BatchTask t;
  t.index = index;
  t.input = input;
  t.outputs = outputsOf(input, outDir, settings);
  t.report = reportPathOf(input, outDir);
  t.log = (fs::path(outDir) / "logs" / ("task-" + std::to_string(index) + ".log")).string();
  return t;
}

std::string joinLines(const std::vector<std::string>& lines) {
  std::string text;
  for (const auto& l : lines) text += "\n  " + l;
  return text;
}

json optionsJson(const BatchPlan& p) {
  const ModuleOptions& m = p.module;
  return {{"mta", m.mta},
          {"mode", m.mode},
          {"noise_level", m.noiseLevel},
          {"export_fwf", m.exportFWF},
          {"skip_fwf", m.skipFWF},
          {"skip_online", m.skipOnline},
          {"segment", m.segment},
          {"fragments", m.fragments},
          {"peak_settings", m.peakSettings},
          {"refine", m.refine},
          {"date", p.date},
          {"wave_counts", p.waveCounts}};
}

void readOptions(const json& o, BatchPlan& p) {
  ModuleOptions& m = p.module;
  m.mta = o.at("mta").get<std::string>();
  m.mode = o.at("mode").get<std::string>();
  m.noiseLevel = o.at("noise_level").get<double>();
  m.exportFWF = o.at("export_fwf").get<bool>();
  m.skipFWF = o.at("skip_fwf").get<bool>();
  m.skipOnline = o.at("skip_online").get<bool>();
  m.segment = o.at("segment").get<int>();
  m.fragments = o.at("fragments").get<std::string>();
  m.peakSettings = o.at("peak_settings").get<std::string>();
  m.refine = o.value("refine", false);  // plans of earlier versions ran without it
  p.date = o.at("date").get<std::string>();
  p.waveCounts = o.at("wave_counts").get<bool>();
}

BatchTask readTask(const json& t, std::size_t index) {
  BatchTask task;
  task.index = index;
  if (t.at("task").get<std::size_t>() != index)
    throw CliError(kInput, "task " + std::to_string(index) + " is numbered out of order");
  task.input = t.at("input").get<std::string>();
  task.outputs = t.at("outputs").get<std::vector<std::string>>();
  task.report = t.at("report").get<std::string>();
  task.log = t.at("log").get<std::string>();
  return task;
}

}  // namespace

std::string quilloVersion() {
  return QUILLO_VERSION;
}

std::string utcNow() {
  const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  std::tm tm{};
  gmtime_r(&now, &tm);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return text;
}

std::string logDir(const BatchPlan& plan) {
  return (fs::path(plan.outDir) / "logs").string();
}

RunSettings planSettings(const BatchPlan& plan) {
  static const std::regex datePattern(schema::kDateTimePattern);
  if (!plan.date.empty() && !std::regex_match(plan.date, datePattern))
    throw CliError(kUsage, "--date: expected YYMMDD_HHMMSS, got \"" + plan.date + "\"");
  RunSettings settings = settingsFrom(plan.module);
  settings.outDir = plan.outDir;
  settings.date = plan.date;
  settings.quiet = true;
  return settings;
}

const BatchTask& taskOf(const BatchPlan& plan, long index) {
  if (index < 0 || std::size_t(index) >= plan.tasks.size())
    throw CliError(kUsage, "--task: " + plan.path + " has tasks 0 to " +
                               std::to_string(long(plan.tasks.size()) - 1) + ", not " +
                               std::to_string(index));
  return plan.tasks[std::size_t(index)];
}

BatchPlan makePlan(const PlanRequest& r) {
  BatchPlan plan;
  plan.quilloVersion = quilloVersion();
  plan.created = utcNow();
  plan.outDir = absolute(r.outDir);
  plan.path =
      absolute(r.planPath.empty() ? (fs::path(r.outDir) / "plan.json").string() : r.planPath);
  plan.module = r.module;
  if (!plan.module.peakSettings.empty()) plan.module.peakSettings = absolute(r.module.peakSettings);
  plan.date = r.date;
  plan.waveCounts = r.waveCounts;
  const RunSettings settings = planSettings(plan);  // a typo fails here, before any task runs
  std::vector<std::string> problems;
  for (const auto& input : r.inputs) {
    try {
      plan.tasks.push_back(
          taskFor(absolute(input), plan.tasks.size(), plan.outDir, settings, plan.date));
    } catch (const CliError& e) {
      problems.push_back(e.what());
    }
  }
  for (const auto& clash : clashes(plan.tasks)) problems.push_back(clash);
  if (!problems.empty()) throw CliError(kInput, "the plan was not written:" + joinLines(problems));
  return plan;
}

void savePlan(const BatchPlan& plan) {
  json tasks = json::array();
  for (const auto& t : plan.tasks)
    tasks.push_back({{"task", t.index},
                     {"input", t.input},
                     {"outputs", t.outputs},
                     {"report", t.report},
                     {"log", t.log}});
  const json j = {{"format", kPlanFormat},
                  {"format_version", kPlanFormatVersion},
                  {"quillo_version", plan.quilloVersion},
                  {"created", plan.created},
                  {"out_dir", plan.outDir},
                  {"run_options", optionsJson(plan)},
                  {"tasks", tasks}};
  std::error_code ec;
  fs::create_directories(plan.outDir, ec);
  if (ec) throw CliError(kOutput, plan.outDir + ": cannot create the folder: " + ec.message());
  writeFileAtomically(plan.path, j.dump(2) + "\n");
}

BatchPlan loadPlan(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw CliError(kInput, path + ": cannot read the plan");
  BatchPlan plan;
  plan.path = absolute(path);
  try {
    const json j = json::parse(in);
    if (j.at("format") != kPlanFormat || j.at("format_version") != kPlanFormatVersion)
      throw CliError(kInput, "not a quillo batch plan of format version " +
                                 std::to_string(kPlanFormatVersion));
    plan.quilloVersion = j.at("quillo_version").get<std::string>();
    plan.created = j.at("created").get<std::string>();
    plan.outDir = j.at("out_dir").get<std::string>();
    readOptions(j.at("run_options"), plan);
    for (const auto& t : j.at("tasks")) plan.tasks.push_back(readTask(t, plan.tasks.size()));
  } catch (const json::exception& e) {
    throw CliError(kInput, path + ": not a valid batch plan: " + e.what());
  } catch (const CliError& e) {
    throw CliError(kInput, path + ": " + e.what());
  }
  return plan;
}

}  // namespace quillo::cli
