#pragma once

/**
 * @file plugin.h
 * Plug-in modules: the interface a module returns from its entry function,
 * the record the library keeps of each loaded module, and the manager that
 * loads them.
 *
 * A module is a shared object in the plug-in directory (LUMIFLUX_PLUGIN_DIR,
 * or the built-in default when that is unset) that exports the C function
 * `LumifluxModule`. Define it with LUMIFLUX_DEFINE_MODULE:
 *
 * @code
 * class MyModule : public Tevara::Lumiflux::PluginModule { ... };
 * LUMIFLUX_DEFINE_MODULE(globals)
 * {
 *     static MyModule module(globals);
 *     return &module;
 * }
 * @endcode
 *
 * The library loads every module once, never unloads it and never deletes
 * the object the entry function returns.
 */

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <lumiflux/export.h>
#include <lumiflux/sysinfo.h>

namespace Tevara::Lumiflux {

class CameraManager;
class CodecManager;

/** What a module's entry function returns. The library never deletes it. */
class LUMIFLUX_EXPORT PluginModule {
public:
    virtual ~PluginModule() = default;
    /** The module's priority, which weights its codecs in the codec order. */
    virtual int getPriority() = 0;
    /** The module's camera manager, or an empty pointer when it has none. */
    virtual std::shared_ptr<CameraManager> getCameraManager() = 0;
    /** The module's codec manager, or an empty pointer when it has none. */
    virtual std::shared_ptr<CodecManager> getCodecManager() = 0;
};

/** One loaded module. */
struct Plugin {
    std::string path;               ///< directory joined with the file name, as scanned
    void* handle = nullptr;         ///< the dlopen handle; never closed
    PluginModule* module = nullptr; ///< owned by the module
};

/** The signature of a module's entry function `LumifluxModule`. */
using PluginEntryFunction = PluginModule* (*)(Internal::Globals* globals);

/**
 * The process-wide loader of plug-in modules. The first listPlugins() scans
 * the directory once; every later call returns the same list.
 */
class LUMIFLUX_EXPORT PluginManager {
public:
    /** The singleton, created on first use. */
    static PluginManager& get();

    /**
     * The loaded modules in load order (the directory's iteration order).
     * Safe from any thread; the first call scans, and entry functions run
     * under the manager's lock, so they must not call back into it.
     * A directory that cannot be walked raises std::filesystem::filesystem_error
     * and leaves the manager unscanned.
     */
    std::vector<Plugin> listPlugins();

    /** The directory the scan uses: LUMIFLUX_PLUGIN_DIR, or the built-in default. */
    static std::string pluginDirectory();

    ~PluginManager();
    PluginManager(const PluginManager&) = delete;
    PluginManager& operator=(const PluginManager&) = delete;

private:
    PluginManager() = default;

    std::vector<Plugin> plugins;
    std::mutex mutex;
    bool scanned = false;
};

} // namespace Tevara::Lumiflux

/**
 * Defines the module entry function `LumifluxModule` with C linkage and
 * default visibility; the parameter name is the Internal::Globals pointer.
 */
#define LUMIFLUX_DEFINE_MODULE(globalsName)                                                                            \
    extern "C" __attribute__((visibility("default"))) ::Tevara::Lumiflux::PluginModule* LumifluxModule(                \
        ::Tevara::Lumiflux::Internal::Globals* globalsName)
