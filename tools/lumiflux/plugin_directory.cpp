#include "plugin_directory.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>

#include <lumiflux/plugin.h>

namespace lumiflux_tool {

namespace fs = std::filesystem;

std::string executableDirectory()
{
    std::error_code error;
    const fs::path self = fs::read_symlink("/proc/self/exe", error);
    return error ? std::string() : self.parent_path().string();
}

std::string selectPluginDirectory()
{
    if (std::getenv("LUMIFLUX_PLUGIN_DIR") == nullptr) {
        std::error_code error;
        const std::string exeDir = executableDirectory();
        const std::string binDir = LUMIFLUX_INSTALLED_BIN_DIR;
        if (fs::equivalent(exeDir, LUMIFLUX_BUILD_TREE_TOOL_DIR, error)) {
            setenv("LUMIFLUX_PLUGIN_DIR", LUMIFLUX_BUILD_TREE_PLUGIN_DIR, 1);
        } else if (exeDir != binDir && exeDir.size() > binDir.size() &&
                   exeDir.compare(exeDir.size() - binDir.size(), binDir.size(), binDir) == 0) {
            // Installed under a staging root (DESTDIR): the plug-ins were
            // staged under the same root.
            const fs::path staged = fs::path(exeDir.substr(0, exeDir.size() - binDir.size())) /
                                    fs::path(LUMIFLUX_INSTALLED_PLUGIN_DIR).relative_path();
            if (fs::is_directory(staged, error))
                setenv("LUMIFLUX_PLUGIN_DIR", staged.c_str(), 1);
        }
        // Otherwise the library's own default directory applies.
    }
    return Tevara::Lumiflux::PluginManager::pluginDirectory();
}

} // namespace lumiflux_tool
