// zoltpano: command-line tools around the panorama engine (simulate, and more to come).
#include <cstdio>
#include <exception>

#include <opencv2/core/utils/logger.hpp>

#include "tools/command.h"

namespace zolt::tools {

std::vector<CommandSetup>& registeredCommands() {
  static std::vector<CommandSetup> list;
  return list;
}

CommandRegistration::CommandRegistration(CommandSetup setup) {
  registeredCommands().push_back(std::move(setup));
}

void printError(const std::string& command, const std::string& message) {
  std::string one = message;
  for (char& c : one)
    if (c == '\n' || c == '\r') c = ' ';
  std::fprintf(stderr, "zoltpano%s%s: %s\n", command.empty() ? "" : " ", command.c_str(),
               one.c_str());
}

}  // namespace zolt::tools

int main(int argc, char** argv) {
  using namespace zolt::tools;
  // Our own messages say what went wrong, on one line; OpenCV's warnings would add more.
  cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);
  CLI::App program{"zoltpano: tools around the zoltpano panorama engine"};
  program.name("zoltpano");
  program.require_subcommand(1);
  std::vector<Command> commands;
  for (const CommandSetup& setup : registeredCommands()) commands.push_back(setup(program));
  try {
    program.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return program.exit(e);  // --help
    std::string where;
    for (const Command& c : commands)
      if (c.app->parsed()) where = c.app->get_name();
    printError(where, e.what());
    return kExitUsage;
  }
  for (const Command& c : commands) {
    if (!c.app->parsed()) continue;
    try {
      return c.run();
    } catch (const CommandError& e) {
      printError(c.app->get_name(), e.what());
      return e.status;
    } catch (const std::exception& e) {
      printError(c.app->get_name(), std::string("internal error: ") + e.what());
      return kExitFailure;
    }
  }
  return kExitUsage;
}
