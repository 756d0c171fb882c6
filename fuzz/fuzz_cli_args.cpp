// libFuzzer target: the command line's argument parsing. The input is the argument list, one
// argument per line; the app is built as app/main.cpp builds it, but parsing stops once a
// command's arguments are parsed and checked, before its callback would run, so no command
// touches a file. For `run`, the module options are then also turned into run settings, as the
// command would before running.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "app/CliError.hpp"
#include "app/Commands.hpp"
#include "app/RunOptions.hpp"

namespace {

constexpr std::size_t kMaxArguments = 64;

// Thrown when a command's arguments are parsed and checked. Replacing the commands' callbacks
// instead would free the option values they own.
struct CommandParsed {};

std::vector<std::string> argumentsOf(const std::uint8_t* data, std::size_t size) {
  std::vector<std::string> args;
  std::istringstream lines(std::string(reinterpret_cast<const char*>(data), size));
  for (std::string line; args.size() < kMaxArguments && std::getline(lines, line);)
    args.push_back(line.c_str());  // an argument ends at its first NUL, as in a real argv
  return args;
}

// CLI11 takes an argument vector last argument first.
std::vector<std::string> reversed(std::vector<std::string> args) {
  std::reverse(args.begin(), args.end());
  return args;
}

void parseModuleOptions(const std::vector<std::string>& args) {
  CLI::App probe;
  quillo::cli::ModuleOptions options;
  quillo::cli::addModuleOptions(probe, options);
  probe.allow_extras();
  std::vector<std::string> backwards = reversed(args);
  probe.parse(backwards);
  quillo::cli::settingsFrom(options);
}

void parseCommandLine(const std::vector<std::string>& args) {
  CLI::App app{"quillo"};
  app.set_version_flag("--version", "quillo 0.1.0");
  app.require_subcommand(0, 1);
  quillo::cli::addAllCommands(app);
  for (CLI::App* command : app.get_subcommands([](CLI::App*) { return true; }))
    command->parse_complete_callback([] { throw CommandParsed{}; });
  std::ostringstream out, err;
  bool parsed = false;
  try {
    std::vector<std::string> backwards = reversed(args);
    app.parse(backwards);
  } catch (const CommandParsed&) {
    parsed = true;
  } catch (const CLI::ParseError& e) {
    app.exit(e, out, err);  // renders the help or error text main() would print
  }
  if (!parsed || !app.got_subcommand("run")) return;
  const auto run = std::find(args.begin(), args.end(), "run");
  try {
    parseModuleOptions({run + 1, args.end()});
  } catch (const CLI::ParseError&) {
  } catch (const quillo::cli::CliError&) {
    // A bad value named in a message: what the command reports before running.
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  parseCommandLine(argumentsOf(data, size));
  return 0;
}
