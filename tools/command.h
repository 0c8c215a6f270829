// Subcommands of the zoltpano program. Each lives in a file of its own (<name>_command.cpp)
// and registers itself with a static CommandRegistration; main() only parses and dispatches.
#pragma once

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

namespace zolt::tools {

// Exit status of every subcommand.
enum ExitCode : int {
  kExitOk = 0,       // done
  kExitFailure = 1,  // the work failed: unreadable input, a sweep that does not fit, I/O error
  kExitUsage = 2,    // bad command line: unknown option, preset or value out of range
};

// A command's failure: main() prints it as "zoltpano <command>: <message>" and exits with
// `status`.
struct CommandError : std::runtime_error {
  explicit CommandError(const std::string& message, int status = kExitFailure)
      : std::runtime_error(message), status(status) {}
  int status;
};

// A subcommand added to the program: run() is called when it was chosen and returns the exit
// status.
struct Command {
  CLI::App* app = nullptr;
  std::function<int()> run;
};

using CommandSetup = std::function<Command(CLI::App& program)>;

// Adds subcommand `name` to the program with the record its options fill (shared with its run
// function, which outlives the setup).
template <class Args>
std::pair<std::shared_ptr<Args>, CLI::App*> addCommand(CLI::App& program, const std::string& name,
                                                       const std::string& description) {
  return {std::make_shared<Args>(), program.add_subcommand(name, description)};
}

struct CommandRegistration {
  explicit CommandRegistration(CommandSetup setup);
};

std::vector<CommandSetup>& registeredCommands();

// Prints "zoltpano <command>: <message>" on one line to stderr.
void printError(const std::string& command, const std::string& message);

}  // namespace zolt::tools
