#include "app/CheckCommand.hpp"

#include <cstdio>
#include <memory>

#include "app/CliError.hpp"
#include "app/InputCheck.hpp"
#include "app/RunOptions.hpp"

namespace quillo::cli {

namespace {

struct CheckOptions {
  std::vector<std::string> inputs;
  bool json = false;
  unsigned threads = usableCores();
};

void execute(const CheckOptions& o) {
  std::vector<CheckReport> reports;
  std::size_t unusable = 0;
  CheckScope scope;
  scope.threads = o.threads;
  for (const auto& input : o.inputs) {
    reports.push_back(checkInput(input, scope));
    unusable += !reports.back().runnable();
    if (!o.json) std::fputs(reportAsText(reports.back()).c_str(), stdout);
  }
  if (o.json) std::fputs(reportAsJson(reports).c_str(), stdout);
  if (unusable)
    throw CliError(kInput, std::to_string(unusable) + " of " + std::to_string(reports.size()) +
                               " input(s) would not run");
}

}  // namespace

void addCheckCommand(CLI::App& app) {
  auto o = std::make_shared<CheckOptions>();
  CLI::App* c =
      app.add_subcommand("check", "Check inputs against the .kq input schema without running them");
  c->add_option("inputs", o->inputs, "Input .kq files")->required();
  c->add_flag("--json", o->json, "Write the findings as JSON");
  c->add_option("--threads", o->threads,
                "Fragments read and checked at once (default: the CPUs this process may use); the "
                "findings are the same for any number")
      ->check(CLI::Range(1u, 256u));
  c->footer(
      "Exit code 0 when every input would run; 3 when one would not. Each finding names the\n"
      "grid, field, fragment or attribute and the fix; docs/kq-format.md has the schema.\n"
      "Examples:\n  quillo check survey_210315_093000.kq\n  quillo check survey.kq --json");
  c->callback([o] { execute(*o); });
}

}  // namespace quillo::cli
