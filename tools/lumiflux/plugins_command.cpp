// lumiflux plugins: the plug-in directory in use and what each module offers.

#include <filesystem>
#include <system_error>

#include <lumiflux/plugin.h>

#include "command.h"

namespace lumiflux_tool {
namespace {

int listModules(Output& out)
{
    namespace fs = std::filesystem;
    const std::string directory = Tevara::Lumiflux::PluginManager::pluginDirectory();
    std::error_code error;
    if (directory.empty() || !fs::is_directory(directory, error)) {
        out.error("NoPluginDirectory", "plug-in directory '" + directory +
                                           "' does not exist or is not a directory (set LUMIFLUX_PLUGIN_DIR)");
        return 1;
    }

    const auto plugins = Tevara::Lumiflux::PluginManager::get().listPlugins();
    out.text("plug-in directory: " + directory);
    out.record({{"event", "directory"}, {"path", directory}, {"modules", plugins.size()}});
    if (plugins.empty())
        out.text("  no modules");
    for (const auto& plugin : plugins) {
        const int priority = plugin.module->getPriority();
        const bool cameras = plugin.module->getCameraManager() != nullptr;
        const bool codecs = plugin.module->getCodecManager() != nullptr;
        out.text("  " + plugin.path + "\n    priority " + std::to_string(priority) +
                 ", camera manager: " + (cameras ? "yes" : "no") + ", codec manager: " + (codecs ? "yes" : "no"));
        out.record({{"event", "module"},
                    {"path", plugin.path},
                    {"priority", priority},
                    {"cameraManager", cameras},
                    {"codecManager", codecs}});
    }
    return 0;
}

const CommandRegistration registration{Command{"plugins", "list the plug-in modules found and what each offers",
                                               [](CLI::App&) { return std::function<int(Output&)>(listModules); }, 10}};

} // namespace
} // namespace lumiflux_tool
