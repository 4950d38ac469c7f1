// The plug-in scan against real module files, once per process: each plug-in directory runs in its own.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <regex>
#include <stdexcept>
#include <thread>
#include <unistd.h>

#include <lumiflux/plugin.h>

#include "syslog_capture.h"
#include "test_paths.h"

using namespace lumiflux_test;
using Tevara::Lumiflux::PluginManager;
namespace fs = std::filesystem;

namespace {

void copyFixture(const std::string& name, const std::string& to)
{
    fs::copy_file(std::string(LUMIFLUX_FIXTURE_DIR) + "/" + name + ".so", to, fs::copy_options::overwrite_existing);
}

std::vector<std::string> scan()
{
    std::vector<std::string> result;
    for (const auto& p : PluginManager::get().listPlugins())
        result.push_back(p.path);
    return result;
}

// An empty directory, a missing one (created after the scan) and an empty value (not the working directory).
TEST(PluginScanNothing, NothingIsLoadedLoggedOrScannedAgain)
{
    const std::string base = freshDirectory("nothing"), kind = std::getenv("LUMIFLUX_TEST_SCAN");
    copyFixture("fixture_valid_module", base + "/here.so");
    fs::create_directory(base + "/empty");
    ASSERT_EQ(chdir(base.c_str()), 0);
    const std::string dir = kind == "Empty" ? base + "/empty" : kind == "MissingDirectory" ? base + "/not-yet" : "";
    setenv("LUMIFLUX_PLUGIN_DIR", dir.c_str(), 1);
    EXPECT_EQ(PluginManager::pluginDirectory(), dir);
    EXPECT_TRUE(scan().empty());
    if (!dir.empty()) {
        fs::create_directories(dir);
        copyFixture("fixture_valid_module", dir + "/late.so");
    }
    EXPECT_TRUE(scan().empty() && syslogRecords().empty());
}

TEST(PluginScanMixed, OnlyRealModulesAreKeptAndEachBadFileIsLoggedOnce)
{
    const std::string dir = freshDirectory("mixed");
    for (const char* name : {"valid_module", "no_entry", "null_module", "unresolved_module"})
        copyFixture(std::string("fixture_") + name, dir + "/" + name + ".so");
    setenv("LUMIFLUX_PLUGIN_DIR", dir.c_str(), 1);
    std::ofstream(dir + "/readme.txt") << "not a shared object\n";
    fs::create_directory(dir + "/subdir");
    fs::create_symlink(dir + "/nowhere.so", dir + "/dangling.so");
    // No filter on names: a link without an extension is loaded under its own path.
    fs::create_symlink(std::string(LUMIFLUX_FIXTURE_DIR) + "/fixture_second_module.so", dir + "/linked-module");
    std::vector<std::string> paths, racing, expected; // two first calls at once scan once
    std::thread other([&racing] { racing = scan(); });
    paths = scan();
    other.join();
    for (const auto& entry : fs::directory_iterator(dir)) // the directory's own order, not a sorted one
        if (entry.path().filename() == "valid_module.so" || entry.path().filename() == "linked-module")
            expected.push_back(entry.path().string());
    ASSERT_EQ(paths, expected);
    EXPECT_EQ(racing, expected);
    for (const auto& plugin : PluginManager::get().listPlugins()) {
        int calls = 0;
        EXPECT_EQ(reinterpret_cast<void* (*)(int*)>(dlsym(plugin.handle, "fixtureGlobals"))(&calls),
                  static_cast<void*>(Tevara::Lumiflux::Internal::globals()));
        EXPECT_EQ(plugin.module->getPriority() * 10 + calls, plugin.path == dir + "/valid_module.so" ? 31 : 71);
    }
    // Each bad file is logged once at LOG_ERR; a symbol that nothing defines fails at load time.
    std::string logged;
    for (const auto& record : syslogRecords())
        logged += std::to_string(record.priority) + " " + record.text;
    for (const std::string& line : std::vector<std::string>{
             "cannot open plugin: .*readme\\.txt.*", dir + "/no_entry\\.so is not a lumiflux module",
             "cannot open plugin: .*unresolved_module\\.so.*lumifluxFixtureFunctionDefinedNowhere.*",
             dir + "/null_module\\.so returned no module"})
        EXPECT_TRUE(std::regex_search(logged, std::regex("(^|\n)3 main listPlugins:[0-9]+ -- " + line + "\n"))) << line;
    EXPECT_EQ(std::count(logged.begin(), logged.end(), '\n'), 4) << logged;
    clearSyslog(); // later calls return the same list and load nothing again
    EXPECT_EQ(scan(), expected);
    EXPECT_TRUE(syslogRecords().empty());
}

TEST(PluginScanThrowing, ThrowingEntryLeavesTheManagerUnscannedUntilAScanSucceeds)
{
    const std::string dir = freshDirectory("throwing");
    copyFixture("fixture_valid_module", dir + "/valid.so");
    copyFixture("fixture_throwing_module", dir + "/throwing.so");
    setenv("LUMIFLUX_PLUGIN_DIR", dir.c_str(), 1);
    EXPECT_THROW(scan(), std::runtime_error);
    EXPECT_THROW(scan(), std::runtime_error);
    fs::remove(dir + "/throwing.so");
    EXPECT_EQ(scan(), std::vector<std::string>{dir + "/valid.so"});
    copyFixture("fixture_second_module", dir + "/later.so"); // that scan succeeded: no more scans
    EXPECT_EQ(scan().size(), 1u);
}

TEST(PluginsTool, ListsEachModuleAndRefusesAMissingDirectory)
{
    const std::string dir = freshDirectory("tool");
    copyFixture("fixture_second_module", dir + "/second.so");
    std::ofstream(dir + "/notes.txt") << "text";
    std::string out, json;
    const auto run = [&](const std::string& where, const std::string& options, std::string* output) {
        return runCommand(
            "LUMIFLUX_NO_SYSLOG=1 LUMIFLUX_PLUGIN_DIR='" + where + "' " LUMIFLUX_TOOL " plugins " + options, output);
    };
    ASSERT_EQ(run(dir, "2>/dev/null", &out) + run(dir, "--json 2>/dev/null", &json), 0);
    EXPECT_EQ(out, "plug-in directory: " + dir + "\n  " + dir +
                       "/second.so\n    priority 7, camera manager: no, codec manager: no\n");
    EXPECT_EQ(json, "{\"event\":\"directory\",\"modules\":1,\"path\":\"" + dir +
                        "\"}\n{\"cameraManager\":false,\"codecManager\":false,\"event\":\"module\",\"path\":\"" + dir +
                        "/second.so\",\"priority\":7}\n");
    EXPECT_EQ(run(dir + "/absent", "2>&1", &out), 1);
    EXPECT_NE(out.find("'" + dir + "/absent' does not exist"), std::string::npos) << out;
}

} // namespace
