// The plug-in scan against real module files in per-test directories. The
// scan happens once per process, so each suite runs in its own process.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <regex>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>

#include <lumiflux/plugin.h>

#include "syslog_capture.h"
#include "test_paths.h"

using lumiflux_test::syslogRecordsContaining;
using Tevara::Lumiflux::Plugin;
using Tevara::Lumiflux::PluginManager;

namespace {

namespace fs = std::filesystem;

std::string fixture(const std::string& name)
{
    return std::string(LUMIFLUX_FIXTURE_DIR) + "/" + name + ".so";
}

// A plug-in directory of this process, selected for the scan.
std::string pluginDirectory(const std::string& name)
{
    const std::string dir = lumiflux_test::freshDirectory(name);
    setenv("LUMIFLUX_PLUGIN_DIR", dir.c_str(), 1);
    return dir;
}

void copyFixture(const std::string& name, const std::string& dir, const std::string& as)
{
    fs::copy_file(fixture(name), fs::path(dir) / as, fs::copy_options::overwrite_existing);
}

template <typename T> T moduleSymbol(const Plugin& plugin, const char* name)
{
    void* symbol = dlsym(plugin.handle, name);
    EXPECT_NE(symbol, nullptr) << name;
    return reinterpret_cast<T>(symbol);
}

std::vector<std::string> paths(const std::vector<Plugin>& plugins)
{
    std::vector<std::string> result;
    for (const auto& p : plugins)
        result.push_back(p.path);
    return result;
}

TEST(PluginScanEmpty, EmptyDirectoryGivesNothingAndIsNeverRescanned)
{
    const std::string dir = pluginDirectory("empty");
    EXPECT_TRUE(PluginManager::get().listPlugins().empty());
    copyFixture("fixture_valid_module", dir, "late.so");
    EXPECT_TRUE(PluginManager::get().listPlugins().empty());
}

TEST(PluginScanMissingDirectory, MissingDirectoryGivesNothingEvenWhenCreatedLater)
{
    const std::string dir = lumiflux_test::freshDirectory("missing") + "/not-yet";
    setenv("LUMIFLUX_PLUGIN_DIR", dir.c_str(), 1);
    EXPECT_TRUE(PluginManager::get().listPlugins().empty());
    fs::create_directories(dir);
    copyFixture("fixture_valid_module", dir, "late.so");
    EXPECT_TRUE(PluginManager::get().listPlugins().empty());
    EXPECT_TRUE(lumiflux_test::syslogRecords().empty());
}

TEST(PluginScanEmptyVariable, EmptyVariableNamesNoDirectory)
{
    // The working directory holds modules: an empty value must not mean ".".
    const std::string dir = lumiflux_test::freshDirectory("cwd");
    copyFixture("fixture_valid_module", dir, "here.so");
    ASSERT_EQ(chdir(dir.c_str()), 0);
    setenv("LUMIFLUX_PLUGIN_DIR", "", 1);
    EXPECT_EQ(PluginManager::pluginDirectory(), "");
    EXPECT_TRUE(PluginManager::get().listPlugins().empty());
}

TEST(PluginScanMixed, OnlyRealModulesAreKeptAndEachBadFileIsLoggedOnce)
{
    const std::string dir = pluginDirectory("mixed");
    copyFixture("fixture_valid_module", dir, "valid.so");
    copyFixture("fixture_no_entry", dir, "no-entry.so");
    copyFixture("fixture_null_module", dir, "null.so");
    copyFixture("fixture_unresolved_module", dir, "unresolved.so");
    std::ofstream(fs::path(dir) / "readme.txt") << "not a shared object\n";
    fs::create_directory(fs::path(dir) / "subdir");
    fs::create_symlink(fs::path(dir) / "nowhere.so", fs::path(dir) / "dangling.so");
    // No filter on names: a link without an extension to a module is loaded
    // under the link's own path.
    fs::create_symlink(fixture("fixture_second_module"), fs::path(dir) / "linked-module");
    const int sock = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(sock, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string socketPath = dir + "/socket.so";
    ASSERT_LT(socketPath.size(), sizeof(address.sun_path));
    std::strcpy(address.sun_path, socketPath.c_str());
    ASSERT_EQ(bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);

    const auto plugins = PluginManager::get().listPlugins();
    close(sock);

    // The directory's own iteration order, not a sorted one.
    std::vector<std::string> expectedOrder;
    for (const auto& entry : fs::directory_iterator(dir))
        if (entry.path().filename() == "valid.so" || entry.path().filename() == "linked-module")
            expectedOrder.push_back(entry.path().string());
    ASSERT_EQ(expectedOrder.size(), 2u);
    EXPECT_EQ(paths(plugins), expectedOrder);
    for (const auto& plugin : plugins) {
        ASSERT_NE(plugin.module, nullptr);
        ASSERT_NE(plugin.handle, nullptr);
        const int expectedPriority = plugin.path == dir + "/valid.so" ? 3 : 7;
        EXPECT_EQ(plugin.module->getPriority(), expectedPriority);
        EXPECT_EQ(plugin.module->getCameraManager(), nullptr);
        EXPECT_EQ(plugin.module->getCodecManager(), nullptr);
        // Each module received the one process-wide Globals object.
        EXPECT_EQ(moduleSymbol<void* (*)()>(plugin, "fixtureGlobals")(),
                  static_cast<void*>(Tevara::Lumiflux::Internal::globals()));
        EXPECT_EQ(moduleSymbol<int (*)()>(plugin, "fixtureEntryCalls")(), 1);
    }

    // Each bad file is logged once at LOG_ERR: the text file and the module
    // with a symbol that nothing defines (every symbol is bound at load time)
    // cannot be opened.
    const std::string prefix = "main listPlugins:[0-9]+ -- ";
    const std::pair<const char*, std::string> messages[] = {
        {"readme.txt", prefix + "cannot open plugin: .*readme\\.txt.*\n"},
        {"lumifluxFixtureFunctionDefinedNowhere", prefix + "cannot open plugin: .*unresolved\\.so.*\n"},
        {" is not a lumiflux module", prefix + dir + "/no-entry\\.so is not a lumiflux module\n"},
        {" returned no module", prefix + dir + "/null\\.so returned no module\n"}};
    for (const auto& [needle, pattern] : messages) {
        const auto records = syslogRecordsContaining(needle);
        ASSERT_EQ(records.size(), 1u) << needle;
        EXPECT_EQ(records[0].priority, LOG_ERR);
        EXPECT_TRUE(std::regex_match(records[0].text, std::regex(pattern))) << records[0].text;
    }
    EXPECT_EQ(lumiflux_test::syslogRecords().size(), 4u);

    // Later calls return the same list without loading anything again.
    lumiflux_test::clearSyslog();
    const auto again = PluginManager::get().listPlugins();
    EXPECT_EQ(paths(again), paths(plugins));
    for (const auto& plugin : again)
        EXPECT_EQ(moduleSymbol<int (*)()>(plugin, "fixtureEntryCalls")(), 1);
    EXPECT_TRUE(lumiflux_test::syslogRecords().empty());
}

TEST(PluginScanThrowing, ThrowingEntryLeavesTheManagerUnscannedUntilAScanSucceeds)
{
    const std::string dir = pluginDirectory("throwing");
    copyFixture("fixture_valid_module", dir, "valid.so");
    copyFixture("fixture_throwing_module", dir, "throwing.so");

    EXPECT_THROW(PluginManager::get().listPlugins(), std::runtime_error);
    EXPECT_THROW(PluginManager::get().listPlugins(), std::runtime_error);

    fs::remove(fs::path(dir) / "throwing.so");
    const auto plugins = PluginManager::get().listPlugins();
    ASSERT_FALSE(plugins.empty());
    for (const auto& plugin : plugins)
        EXPECT_EQ(plugin.path, dir + "/valid.so");

    // That scan succeeded: nothing is scanned again.
    copyFixture("fixture_second_module", dir, "later.so");
    EXPECT_EQ(PluginManager::get().listPlugins().size(), plugins.size());
}

TEST(PluginScanRace, TwoFirstCallsAtOnceScanOnce)
{
    const std::string dir = pluginDirectory("race");
    copyFixture("fixture_valid_module", dir, "valid.so");

    std::vector<Plugin> first;
    std::vector<Plugin> second;
    std::thread a([&] { first = PluginManager::get().listPlugins(); });
    std::thread b([&] { second = PluginManager::get().listPlugins(); });
    a.join();
    b.join();

    ASSERT_EQ(first.size(), 1u);
    ASSERT_EQ(second.size(), 1u);
    EXPECT_EQ(first[0].module, second[0].module);
    EXPECT_EQ(moduleSymbol<int (*)()>(first[0], "fixtureEntryCalls")(), 1);
}

} // namespace
