// The plug-in scan against real module files, once per process: each plug-in
// directory runs in its own (see CMakeLists.txt).
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <regex>
#include <stdexcept>
#include <syslog.h>
#include <thread>
#include <unistd.h>

#include <lumiflux/plugin.h>

#include "syslog_capture.h"
#include "test_paths.h"

using namespace lumiflux_test;
using Tevara::Lumiflux::Plugin;
using Tevara::Lumiflux::PluginManager;
namespace fs = std::filesystem;

namespace {

void copyFixture(const std::string& name, const std::string& to)
{
    fs::copy_file(std::string(LUMIFLUX_FIXTURE_DIR) + "/" + name + ".so", to, fs::copy_options::overwrite_existing);
}

// A fresh directory holding the fixtures `modules` (name, file name), selected for the scan.
std::string pluginDirectory(const std::string& name, const std::vector<std::pair<std::string, std::string>>& modules)
{
    const std::string dir = freshDirectory(name);
    for (const auto& [fixture, file] : modules)
        copyFixture(fixture, dir + "/" + file);
    setenv("LUMIFLUX_PLUGIN_DIR", dir.c_str(), 1);
    return dir;
}

// What the fixture module recorded: how often its entry ran, and the Globals it was given.
int entryCalls(const Plugin& plugin)
{
    return reinterpret_cast<int (*)()>(dlsym(plugin.handle, "fixtureEntryCalls"))();
}

std::vector<std::string> paths(const std::vector<Plugin>& plugins)
{
    std::vector<std::string> result;
    for (const auto& p : plugins)
        result.push_back(p.path);
    return result;
}

// An empty directory, a missing one (created after the scan) and an empty
// value, which must not mean the working directory full of modules.
TEST(PluginScanNothing, NothingIsLoadedLoggedOrScannedAgain)
{
    const std::string base = freshDirectory("nothing"), kind = std::getenv("LUMIFLUX_TEST_SCAN");
    copyFixture("fixture_valid_module", base + "/here.so");
    fs::create_directory(base + "/empty");
    ASSERT_EQ(chdir(base.c_str()), 0);
    const std::string dir = kind == "Empty" ? base + "/empty" : kind == "MissingDirectory" ? base + "/not-yet" : "";
    setenv("LUMIFLUX_PLUGIN_DIR", dir.c_str(), 1);
    EXPECT_EQ(PluginManager::pluginDirectory(), dir);
    EXPECT_TRUE(PluginManager::get().listPlugins().empty());
    if (!dir.empty()) {
        fs::create_directories(dir);
        copyFixture("fixture_valid_module", dir + "/late.so");
    }
    EXPECT_TRUE(PluginManager::get().listPlugins().empty());
    EXPECT_TRUE(syslogRecords().empty());
}

TEST(PluginScanMixed, OnlyRealModulesAreKeptAndEachBadFileIsLoggedOnce)
{
    const std::string dir = pluginDirectory("mixed", {{"fixture_valid_module", "valid.so"},
                                                      {"fixture_no_entry", "no-entry.so"},
                                                      {"fixture_null_module", "null.so"},
                                                      {"fixture_unresolved_module", "unresolved.so"}});
    std::ofstream(dir + "/readme.txt") << "not a shared object\n";
    fs::create_directory(dir + "/subdir");
    fs::create_symlink(dir + "/nowhere.so", dir + "/dangling.so");
    // No filter on names: a link without an extension is loaded under its own path.
    fs::create_symlink(std::string(LUMIFLUX_FIXTURE_DIR) + "/fixture_second_module.so", dir + "/linked-module");
    std::vector<Plugin> plugins, racing; // two first calls at once scan once
    std::thread other([&racing] { racing = PluginManager::get().listPlugins(); });
    plugins = PluginManager::get().listPlugins();
    other.join();

    std::vector<std::string> expected; // the directory's own order, not a sorted one
    for (const auto& entry : fs::directory_iterator(dir))
        if (entry.path().filename() == "valid.so" || entry.path().filename() == "linked-module")
            expected.push_back(entry.path().string());
    ASSERT_EQ(paths(plugins), expected);
    EXPECT_EQ(paths(racing), expected);
    for (const auto& plugin : plugins) {
        EXPECT_EQ(plugin.module->getPriority(), plugin.path == dir + "/valid.so" ? 3 : 7);
        EXPECT_EQ(reinterpret_cast<void* (*)()>(dlsym(plugin.handle, "fixtureGlobals"))(),
                  static_cast<void*>(Tevara::Lumiflux::Internal::globals()));
        EXPECT_EQ(entryCalls(plugin), 1);
    }
    // Each bad file is logged once at LOG_ERR. A module with a symbol that
    // nothing defines cannot be opened: every symbol is bound at load time.
    std::string logged;
    for (const auto& record : syslogRecords())
        logged += std::to_string(record.priority) + " " + record.text;
    for (const std::string& line : std::vector<std::string>{
             "cannot open plugin: .*readme\\.txt.*", dir + "/no-entry\\.so is not a lumiflux module",
             "cannot open plugin: .*unresolved\\.so.*lumifluxFixtureFunctionDefinedNowhere.*",
             dir + "/null\\.so returned no module"})
        EXPECT_TRUE(std::regex_search(logged, std::regex("(^|\n)3 main listPlugins:[0-9]+ -- " + line + "\n"))) << line;
    EXPECT_EQ(std::count(logged.begin(), logged.end(), '\n'), 4) << logged;
    clearSyslog(); // later calls return the same list and load nothing again
    EXPECT_EQ(paths(PluginManager::get().listPlugins()), expected);
    EXPECT_TRUE(syslogRecords().empty());
}

TEST(PluginScanThrowing, ThrowingEntryLeavesTheManagerUnscannedUntilAScanSucceeds)
{
    const std::string dir =
        pluginDirectory("throwing", {{"fixture_valid_module", "valid.so"}, {"fixture_throwing_module", "throwing.so"}});
    EXPECT_THROW(PluginManager::get().listPlugins(), std::runtime_error);
    EXPECT_THROW(PluginManager::get().listPlugins(), std::runtime_error);
    fs::remove(dir + "/throwing.so");
    EXPECT_EQ(paths(PluginManager::get().listPlugins()), std::vector<std::string>{dir + "/valid.so"});
    copyFixture("fixture_second_module", dir + "/later.so"); // that scan succeeded: no more scans
    EXPECT_EQ(PluginManager::get().listPlugins().size(), 1u);
}

// `lumiflux plugins`, run as a user runs it.
TEST(PluginsTool, ListsEachModuleAndRefusesAMissingDirectory)
{
    const std::string dir = freshDirectory("tool");
    copyFixture("fixture_second_module", dir + "/second.so");
    std::ofstream(dir + "/notes.txt") << "text";
    const std::string tool = "LUMIFLUX_NO_SYSLOG=1 LUMIFLUX_PLUGIN_DIR='" + dir + "' ",
                      plugins = LUMIFLUX_TOOL " plugins ";
    std::string out;
    ASSERT_EQ(runCommand(tool + plugins + "2>/dev/null", &out), 0);
    EXPECT_EQ(out, "plug-in directory: " + dir + "\n  " + dir +
                       "/second.so\n    priority 7, camera manager: no, codec manager: no\n");
    ASSERT_EQ(runCommand(tool + plugins + "--json 2>/dev/null", &out), 0);
    EXPECT_EQ(out, "{\"event\":\"directory\",\"modules\":1,\"path\":\"" + dir +
                       "\"}\n{\"cameraManager\":false,\"codecManager\":" + "false,\"event\":\"module\",\"path\":\"" +
                       dir + "/second.so\",\"priority\":7}\n");
    EXPECT_EQ(runCommand(tool + "LUMIFLUX_PLUGIN_DIR='" + dir + "/absent' " + plugins + "2>&1", &out), 1);
    EXPECT_NE(out.find("'" + dir + "/absent' does not exist"), std::string::npos) << out;
}

} // namespace
