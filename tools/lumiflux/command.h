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

struct CommandRegistration {
    explicit CommandRegistration(Command command) { commands().push_back(std::move(command)); }
};

} // namespace lumiflux_tool
