#include "app/Commands.hpp"

#include "app/InspectCommands.hpp"
#include "app/RunCommand.hpp"

namespace quillo::cli {

void addAllCommands(CLI::App& app) {
  addRunCommand(app);
  addInfoCommand(app);
  addVerifyCommand(app);
  addHistCommand(app);
}

}  // namespace quillo::cli
