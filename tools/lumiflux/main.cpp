// The lumiflux command-line tool: one subcommand per capability of the
// library; with no subcommand it runs the default one.

#include <algorithm>
#include <exception>
#include <iostream>
#include <memory>

#include "command.h"
#include "plugin_directory.h"

namespace lumiflux_tool {

std::vector<Command>& commands()
{
    static std::vector<Command> list;
    return list;
}

int runCommand(const std::string& name, const std::vector<std::string>& arguments, Output& out)
{
    for (Command& command : commands()) {
        if (command.name != name)
            continue;
        CLI::App app{command.description, command.name};
        std::function<int(Output&)> action = command.setup(app);
        // CLI11 takes the arguments last first.
        std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
        try {
            app.parse(reversed);
        } catch (const CLI::ParseError& error) {
            out.error("BadArgument", name + ": " + error.what());
            return 2;
        }
        return action(out);
    }
    out.error("NoCommand", "no command named '" + name + "'");
    return 1;
}

namespace {
// The command run when none is named: the tour once it exists, the plug-in
// listing until then.
const char* defaultCommandName()
{
    for (const Command& command : commands())
        if (command.name == "tour")
            return "tour";
    return "plugins";
}
} // namespace

} // namespace lumiflux_tool

int main(int argc, char** argv)
{
    using namespace lumiflux_tool;

    CLI::App app{"lumiflux: cameras, codecs, playback and H.264 probing from the command line"};
    bool json = false;
    app.add_flag("--json", json, "one JSON object per line, for scripts");
    app.require_subcommand(0, 1);

    std::sort(commands().begin(), commands().end(),
              [](const Command& a, const Command& b) { return a.order < b.order; });
    std::vector<std::pair<CLI::App*, std::function<int(Output&)>>> actions;
    for (Command& command : commands()) {
        CLI::App* sub = app.add_subcommand(command.name, command.description);
        // --json is accepted after the subcommand as well.
        sub->add_flag("--json", json, "one JSON object per line, for scripts");
        actions.emplace_back(sub, command.setup(*sub));
    }

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error);
    }

    selectPluginDirectory();
    Output output(json);
    try {
        for (auto& [sub, action] : actions)
            if (sub->parsed())
                return action(output);
        for (auto& [sub, action] : actions)
            if (sub->get_name() == defaultCommandName())
                return action(output);
    } catch (const std::exception& error) {
        output.error("Failure", error.what());
        return 1;
    }
    std::cerr << "lumiflux: no command\n";
    return 1;
}
