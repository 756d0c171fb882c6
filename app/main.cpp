// The quillo command line: parses the command, runs it, and turns every error into one line
// on stderr starting with "quillo:" and the exit code docs/cli.md promises, in one place.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <string>

#include "app/CaughtError.hpp"
#include "app/CliError.hpp"
#include "app/Commands.hpp"
#include "app/HugePageHeap.hpp"
#include "app/Progress.hpp"

namespace {

using namespace quillo::cli;

// One line naming the command the arguments got to, and where its options are listed.
int usageError(const CLI::App& app, const CLI::ParseError& e) {
  const auto named = app.get_subcommands();
  const std::string command = named.empty() ? "" : named.front()->get_name();
  std::fprintf(stderr, "quillo: %s%s (see 'quillo%s --help')\n",
               command.empty() ? "" : (command + ": ").c_str(), e.what(),
               command.empty() ? "" : (" " + command).c_str());
  return kUsage;
}

}  // namespace

int main(int argc, char** argv) {
  useHugePagesForHeap();
  CLI::App app{"quillo: resolves multiple-time-around (MTA) zones of airborne full-waveform LiDAR"};
  app.set_version_flag("--version", "quillo " QUILLO_VERSION);
  app.require_subcommand(0, 1);
  addAllCommands(app);
  app.footer("Run 'quillo COMMAND --help' for the options of a command.");
  ProgressBar::installConsoleSink(false);
  int code = kOk;
  const auto error = caughtError("", [&] {
    try {
      app.parse(argc, argv);
      if (app.get_subcommands().empty()) std::fputs(app.help().c_str(), stdout);
    } catch (const CLI::Success& e) {
      code = app.exit(e);  // --help and --version
    } catch (const CLI::ParseError& e) {
      code = usageError(app, e);
    }
  });
  if (!error) return code;
  std::fprintf(stderr, "quillo: %s\n", error->what());
  return error->code();
}
