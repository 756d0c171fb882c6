// The quillo command line: parses the command, runs it, and turns every CliError into a
// message and an exit code in one place.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

#include "app/CliError.hpp"
#include "app/Commands.hpp"
#include "app/Progress.hpp"

int main(int argc, char** argv) {
  using namespace quillo::cli;
  CLI::App app{"quillo: resolves multiple-time-around (MTA) zones of airborne full-waveform LiDAR"};
  app.set_version_flag("--version", "quillo " QUILLO_VERSION);
  app.require_subcommand(0, 1);
  addAllCommands(app);
  app.footer("Run 'quillo COMMAND --help' for the options of a command.");
  ProgressBar::installConsoleSink(false);
  try {
    app.parse(argc, argv);
    if (app.get_subcommands().empty()) std::fputs(app.help().c_str(), stdout);
    return kOk;
  } catch (const CLI::ParseError& e) {
    return app.exit(e);
  } catch (const CliError& e) {
    std::fprintf(stderr, "quillo: %s\n", e.what());
    return e.code();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "quillo: internal error: %s\n", e.what());
    return kFailure;
  }
}
