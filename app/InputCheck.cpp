// Input check: loads the file, runs the structure, value and scanner steps, and writes the
// findings as text (errors first, each with its fix) or as JSON.
#include "app/InputCheck.hpp"

#include <nlohmann/json.hpp>

#include "app/CliError.hpp"
#include "app/InputCheckSteps.hpp"
#include "app/LoadKq.hpp"
#include "vorlap/Console.hpp"

namespace quillo::cli {

const char* severityName(Severity s) {
  switch (s) {
    case Severity::Error:
      return "error";
    case Severity::Warning:
      return "warning";
    case Severity::Default:
      return "default";
    case Severity::Note:
      return "note";
  }
  return "error";
}

void CheckReport::add(Severity s, std::string where, std::string what, std::string fix) {
  findings.push_back({s, std::move(where), std::move(what), std::move(fix)});
}

std::size_t CheckReport::count(Severity s) const {
  std::size_t n = 0;
  for (const auto& f : findings) n += f.severity == s;
  return n;
}

CheckReport checkInput(const std::string& path, const CheckScope& scope) {
  Tessal::BundlePtr bundle;
  std::string loadMessage, loadError;
  {
    Vorlap::ConsoleCapture capture;  // the loader says what is wrong inside the file
    try {
      bundle = loadKqFile(path);
    } catch (const CliError& e) {
      loadError = e.what();
      loadMessage = capture.messages().empty() ? e.what() : capture.joined();
    }
  }
  if (!loadMessage.empty()) {
    while (!loadMessage.empty() && loadMessage.back() == '\n') loadMessage.pop_back();
    if (loadMessage.rfind(path + ": ", 0) == 0) loadMessage.erase(0, path.size() + 2);
    CheckReport report;
    report.input = path;
    report.loadError = loadError;
    report.add(Severity::Error, "", loadMessage, "see docs/kq-format.md for the layout");
    return report;
  }
  CheckReport report = checkBundle(bundle, path, scope);
  report.bundle = bundle;
  return report;
}

CheckReport checkBundle(const Tessal::BundlePtr& bundle, const std::string& path,
                        const CheckScope& scope) {
  CheckReport report;
  report.input = path;
  const InputGrids grids = findGrids(bundle, scope, report);
  Transform toMap{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
  try {
    toMap = scannerToMap(bundle);
  } catch (const CliError& e) {
    report.add(Severity::Error,
               std::string("attribute \"") + kScannerToMapAttribute + "\" of grid \"Shots\"",
               e.what(), "give 12 finite numbers: the rows of [R | t], map = R * scanner + t");
  }
  ShotFigures figures;
  if (checkStructure(grids, report)) checkValues(grids, toMap, scope, report, figures);
  checkScanner(grids, figures, report);
  return report;
}

std::string findingsAsText(const CheckReport& report, std::initializer_list<Severity> kinds) {
  std::string text;
  for (Severity s : kinds)
    for (const auto& f : report.findings) {
      if (f.severity != s) continue;
      text += report.input + ": " + severityName(s) + ": " + f.where +
              (f.where.empty() ? "" : " ") + f.what + "\n";
      if (!f.fix.empty()) text += "    fix: " + f.fix + "\n";
    }
  return text;
}

std::string reportAsText(const CheckReport& report) {
  std::string text = findingsAsText(
      report, {Severity::Error, Severity::Warning, Severity::Default, Severity::Note});
  const std::size_t errors = report.count(Severity::Error);
  text += report.input + ": " +
          (errors ? std::to_string(errors) + " error(s): a run would not work"
                  : "usable: " + std::to_string(report.fragments) + " fragments, " +
                        std::to_string(report.shots) + " shots, " +
                        std::to_string(report.waveformRows) + " waveform rows, " +
                        std::to_string(report.onlineRecords) + " online records") +
          "\n";
  return text;
}

std::string reportAsJson(const std::vector<CheckReport>& reports) {
  nlohmann::json all = nlohmann::json::array();
  for (const auto& r : reports) {
    nlohmann::json findings = nlohmann::json::array();
    for (const auto& f : r.findings)
      findings.push_back({{"severity", severityName(f.severity)},
                          {"where", f.where},
                          {"what", f.what},
                          {"fix", f.fix}});
    all.push_back({{"input", r.input},
                   {"usable", r.runnable()},
                   {"fragments", r.fragments},
                   {"shots", r.shots},
                   {"waveform_rows", r.waveformRows},
                   {"online_records", r.onlineRecords},
                   {"findings", findings}});
  }
  return (reports.size() == 1 ? all[0] : all).dump(2) + "\n";
}

}  // namespace quillo::cli
