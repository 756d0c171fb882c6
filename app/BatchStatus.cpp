// Status and summary of a batch. Reads: the tasks' reports and outputs (the conversion check)
// and the queue states handed in. Writes nothing.
#include "app/BatchStatus.hpp"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <filesystem>

#include "app/BatchTask.hpp"

namespace quillo::cli {

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

constexpr std::size_t kSlowestShown = 3;

std::string thisHost() {
  char name[256] = {};
  return gethostname(name, sizeof name - 1) == 0 ? name : "";
}

// A task started here by `batch local` and still running: its process is alive.
bool aliveHere(const json& report) {
  if (report.value("host", "") != thisHost()) return false;
  const long pid = report.value("pid", 0L);
  return pid > 0 && (kill(pid_t(pid), 0) == 0 || errno == EPERM);
}

TaskStatus fromReport(const BatchTask& task, json report) {
  TaskStatus s{task.index, TaskState::Missing, "", std::move(report)};
  const json& r = s.report;
  if (r.is_null()) return s;
  const std::string state = r.value("state", "");
  if (state == "failed") {
    s.state = TaskState::Failed;
    s.detail = r.value("message", "");
  } else if (state == "running" && aliveHere(r)) {
    s.state = TaskState::Running;
    s.detail = "since " + r.value("start", "");
  } else if (state == "running") {
    s.detail = "started " + r.value("start", "") + " on " + r.value("host", "") +
               ", stopped before the end (cancelled or killed)";
  } else if (state == "done") {
    const std::string incomplete = outputsIncomplete(task);
    s.state = incomplete.empty() ? TaskState::Done : TaskState::Missing;
    s.detail = incomplete;
  }
  return s;
}

json stripOf(const BatchPlan& plan, const TaskStatus& s) {
  const BatchTask& task = plan.tasks[s.task];
  json strip = {{"task", s.task},
                {"input", task.input},
                {"state", stateName(s.state)},
                {"message", s.detail}};
  if (s.state != TaskState::Done) return strip;
  std::uint64_t points = 0, noise = 0;
  std::map<std::string, std::uint64_t> perZone;
  for (const auto& run : s.report.at("run").at("runs"))
    for (const auto& o : run.at("outputs")) {
      points += o.at("points").get<std::uint64_t>();
      noise += o.at("noise_points").get<std::uint64_t>();
      for (const auto& [zone, n] : o.at("points_per_zone").items())
        perZone[zone] += n.get<std::uint64_t>();
    }
  strip["points"] = points;
  strip["noise_points"] = noise;
  strip["points_per_zone"] = perZone;
  strip["seconds"] = s.report.value("seconds", 0.0);
  strip["peak_memory_mib"] = s.report.value("peak_memory_mib", 0.0);
  if (s.report.contains("wave_counts")) strip["wave_counts"] = s.report["wave_counts"];
  return strip;
}

void addToTotal(json& total, const json& strip) {
  if (strip.at("state") != "done") return;
  for (const char* key : {"points", "noise_points", "seconds"})
    total[key] = total.value(key, 0.0) + strip.at(key).get<double>();
  for (const auto& [zone, n] : strip.at("points_per_zone").items())
    total["points_per_zone"][zone] =
        total["points_per_zone"].value(zone, 0ull) + n.get<std::uint64_t>();
  if (!strip.contains("wave_counts")) return;
  for (const auto& [key, n] : strip.at("wave_counts").items())
    total["wave_counts"][key] = total["wave_counts"].value(key, 0ull) + n.get<std::uint64_t>();
}

json slowest(const json& strips) {
  std::vector<json> done;
  for (const auto& s : strips)
    if (s.at("state") == "done") done.push_back(s);
  std::sort(done.begin(), done.end(),
            [](const json& a, const json& b) { return a.at("seconds") > b.at("seconds"); });
  json out = json::array();
  for (std::size_t i = 0; i < std::min(kSlowestShown, done.size()); ++i)
    out.push_back({{"input", done[i].at("input")}, {"seconds", done[i].at("seconds")}});
  return out;
}

std::string zonesText(const json& perZone) {
  std::string text;
  for (const auto& [zone, n] : perZone.items())
    text += (text.empty() ? "" : " ") + (zone == "255" ? std::string("none") : zone) + ":" +
            std::to_string(n.get<std::uint64_t>());
  return text;
}

std::string waveCountsText(const json& item) {
  if (!item.contains("wave_counts")) return "";
  const json& w = item.at("wave_counts");
  return ", uncertain waves " + std::to_string(w.value("uncertain", 0ull)) + ", repaired " +
         std::to_string(w.value("repaired", 0ull));
}

std::string stripLine(const json& s) {
  char line[512];
  if (s.at("state") != "done") {
    std::snprintf(line, sizeof line, "  %-40s %s\n", fs::path(s.at("input")).filename().c_str(),
                  s.at("state").get<std::string>().c_str());
    return line;
  }
  std::snprintf(line, sizeof line, "  %-40s %10llu points, noise %llu, %.1f s; zones %s",
                fs::path(s.at("input")).filename().c_str(),
                (unsigned long long)s.at("points").get<std::uint64_t>(),
                (unsigned long long)s.at("noise_points").get<std::uint64_t>(),
                s.at("seconds").get<double>(), zonesText(s.at("points_per_zone")).c_str());
  return line + waveCountsText(s) + "\n";
}

}  // namespace

const char* stateName(TaskState state) {
  switch (state) {
    case TaskState::Done:
      return "done";
    case TaskState::Failed:
      return "failed";
    case TaskState::Running:
      return "running";
    case TaskState::Missing:
      return "missing";
  }
  return "?";
}

std::vector<TaskStatus> collectStatus(const BatchPlan& plan,
                                      const std::map<std::size_t, std::string>& queue) {
  std::vector<TaskStatus> statuses;
  for (const auto& task : plan.tasks) {
    auto queued = queue.find(task.index);
    if (queued != queue.end())
      statuses.push_back(
          {task.index, TaskState::Running, "queue: " + queued->second, readTaskReport(task)});
    else
      statuses.push_back(fromReport(task, readTaskReport(task)));
  }
  return statuses;
}

std::string statusText(const BatchPlan& plan, const std::vector<TaskStatus>& statuses) {
  std::map<TaskState, std::size_t> counts;
  std::string text;
  for (const auto& s : statuses) {
    counts[s.state] += 1;
    text += "task " + std::to_string(s.task) + " " + stateName(s.state) + " " +
            fs::path(plan.tasks[s.task].input).filename().string() +
            (s.detail.empty() ? "" : ": " + s.detail) + "\n";
  }
  text += std::to_string(statuses.size()) + " tasks: ";
  for (TaskState st : {TaskState::Done, TaskState::Failed, TaskState::Running, TaskState::Missing})
    text +=
        std::to_string(counts[st]) + " " + stateName(st) + (st == TaskState::Missing ? "\n" : ", ");
  return text;
}

json batchSummary(const BatchPlan& plan, const std::vector<TaskStatus>& statuses) {
  json strips = json::array(), failures = json::array();
  json total = {
      {"points", 0}, {"noise_points", 0}, {"seconds", 0.0}, {"points_per_zone", json::object()}};
  std::map<std::string, std::size_t> counts;
  for (const auto& s : statuses) {
    strips.push_back(stripOf(plan, s));
    addToTotal(total, strips.back());
    counts[stateName(s.state)] += 1;
    if (s.state == TaskState::Failed)
      failures.push_back(
          {{"task", s.task}, {"input", plan.tasks[s.task].input}, {"message", s.detail}});
  }
  const std::size_t done = counts["done"];
  total["seconds_per_strip"] = done ? total["seconds"].get<double>() / double(done) : 0.0;
  return {{"plan", plan.path},          {"tasks", counts},     {"strips", strips}, {"total", total},
          {"slowest", slowest(strips)}, {"failures", failures}};
}

std::string summaryText(const json& summary) {
  std::string text = "strips of " + summary.at("plan").get<std::string>() + "\n";
  for (const auto& s : summary.at("strips")) text += stripLine(s);
  const json& t = summary.at("total");
  char line[512];
  std::snprintf(
      line, sizeof line, "total: %llu points, noise %llu, %.1f s (%.1f s per strip); zones %s",
      (unsigned long long)t.at("points").get<double>(),
      (unsigned long long)t.at("noise_points").get<double>(), t.at("seconds").get<double>(),
      t.at("seconds_per_strip").get<double>(), zonesText(t.at("points_per_zone")).c_str());
  text += line + waveCountsText(t) + "\ntasks:";
  for (const auto& [state, n] : summary.at("tasks").items())
    text += " " + std::to_string(n.get<std::size_t>()) + " " + state;
  text += "\nslowest:";
  for (const auto& s : summary.at("slowest")) {
    std::snprintf(line, sizeof line, " %s (%.1f s)", fs::path(s.at("input")).filename().c_str(),
                  s.at("seconds").get<double>());
    text += line;
  }
  text += "\n";
  for (const auto& f : summary.at("failures"))
    text += "failed: task " + std::to_string(f.at("task").get<std::size_t>()) + " " +
            f.at("input").get<std::string>() + ": " + f.at("message").get<std::string>() + "\n";
  return text;
}

}  // namespace quillo::cli
