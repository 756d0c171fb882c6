#include "app/Commands.hpp"

#include "app/BatchCommands.hpp"
#include "app/CheckCommand.hpp"
#include "app/DemoCommand.hpp"
#include "app/ExportCommand.hpp"
#include "app/FileCommands.hpp"
#include "app/QuicklookCommand.hpp"
#include "app/RunCommand.hpp"
#include "app/SurveyCommands.hpp"

namespace quillo::cli {

void addAllCommands(CLI::App& app) {
  addDemoCommand(app);
  addSimulateCommand(app);
  addCheckCommand(app);
  addRunCommand(app);
  addScoreCommand(app);
  addInfoCommand(app);
  addVerifyCommand(app);
  addHistCommand(app);
  addExportCommand(app);
  addQuicklookCommand(app);
  addBatchCommand(app);
}

}  // namespace quillo::cli
