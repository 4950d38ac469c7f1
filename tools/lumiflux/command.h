#pragma once

// Subcommands register themselves: each command file defines one static
// CommandRegistration, so adding a command never touches main.cpp.

#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "output.h"

namespace lumiflux_tool {

struct Command {
    std::string name;
    std::string description;
    // Adds the command's options to its subcommand and returns the action
    // that runs it; the action returns the process exit status.
    std::function<std::function<int(Output&)>(CLI::App&)> setup;
    int order = 100; ///< place in the help listing
};

std::vector<Command>& commands();

/**
 * Runs the registered command `name` as if `arguments` had been typed after
 * it on the command line, writing to `out`. Returns its exit status; 2 with
 * a "BadArgument" error when the arguments do not parse, 1 with "NoCommand"
 * when no such command is registered. Lets one command (the tour) reuse the
 * others exactly as a user would run them.
 */
int runCommand(const std::string& name, const std::vector<std::string>& arguments, Output& out);

struct CommandRegistration {
    explicit CommandRegistration(Command command) { commands().push_back(std::move(command)); }
};

} // namespace lumiflux_tool
