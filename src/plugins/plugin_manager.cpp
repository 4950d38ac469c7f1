#include <lumiflux/log.h>
#include <lumiflux/plugin.h>

#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <system_error>

#include <lumiflux/log_line.h>

#ifndef LUMIFLUX_DEFAULT_PLUGIN_DIR
#define LUMIFLUX_DEFAULT_PLUGIN_DIR "/usr/lib64/lumiflux/plugins"
#endif

namespace Tevara::Lumiflux {

namespace fs = std::filesystem;

PluginManager& PluginManager::get()
{
    static PluginManager instance;
    return instance;
}

// Modules are deliberately never closed: objects they handed out may outlive us.
PluginManager::~PluginManager() = default;

std::string PluginManager::pluginDirectory()
{
    // An empty value is used as it stands: it names no directory.
    const char* dir = std::getenv("LUMIFLUX_PLUGIN_DIR");
    return dir != nullptr ? std::string(dir) : std::string(LUMIFLUX_DEFAULT_PLUGIN_DIR);
}

namespace {

bool isDirectory(const fs::path& path)
{
    std::error_code error;
    return fs::is_directory(path, error);
}

bool isRegularFile(const fs::directory_entry& entry)
{
    // Follows symbolic links; a dangling link is simply not a regular file.
    std::error_code error;
    return entry.is_regular_file(error);
}

} // namespace

std::vector<Plugin> PluginManager::listPlugins()
{
    std::lock_guard<std::mutex> lock(mutex);
    if (scanned)
        return plugins;

    const fs::path directory = pluginDirectory();
    LogInit();

    if (!directory.empty() && isDirectory(directory)) {
        // Throws std::filesystem::filesystem_error when the walk itself fails;
        // scanned then stays false and the next call scans again.
        for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
            if (!isRegularFile(entry))
                continue;
            const std::string path = entry.path().string();

            dlerror();
            void* handle = dlopen(path.c_str(), RTLD_NOW);
            if (handle == nullptr) {
                const char* reason = dlerror();
                LUMIFLUX_LOG(LogLevel::Error, "main ")
                    << "cannot open plugin: " << (reason != nullptr ? reason : "") << std::endl;
                continue;
            }
            // A file without the entry symbol keeps its handle open on purpose.
            auto entryFunction = reinterpret_cast<PluginEntryFunction>(dlsym(handle, "LumifluxModule"));
            if (entryFunction == nullptr) {
                LUMIFLUX_LOG(LogLevel::Error, "main ") << path << " is not a lumiflux module" << std::endl;
                continue;
            }
            PluginModule* module = entryFunction(Internal::globals());
            if (module == nullptr) {
                // Every consumer would call through the module: keep it out.
                LUMIFLUX_LOG(LogLevel::Error, "main ") << path << " returned no module" << std::endl;
                continue;
            }
            plugins.push_back(Plugin{path, handle, module});
        }
    }
    scanned = true;
    return plugins;
}

} // namespace Tevara::Lumiflux
