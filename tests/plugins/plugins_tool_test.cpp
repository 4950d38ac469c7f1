// `lumiflux plugins`, run as a user runs it.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "test_paths.h"

namespace {

namespace fs = std::filesystem;

TEST(PluginsTool, ListsEachModuleWithPriorityAndManagers)
{
    const std::string dir = lumiflux_test::freshDirectory("tool");
    fs::copy_file(std::string(LUMIFLUX_FIXTURE_DIR) + "/fixture_second_module.so", dir + "/second.so");
    std::ofstream(dir + "/notes.txt") << "text";

    std::string out;
    ASSERT_EQ(lumiflux_test::runCommand(
                  "LUMIFLUX_NO_SYSLOG=1 LUMIFLUX_PLUGIN_DIR='" + dir + "' " LUMIFLUX_TOOL " plugins 2>/dev/null", &out),
              0);
    EXPECT_NE(out.find("plug-in directory: " + dir), std::string::npos) << out;
    EXPECT_NE(out.find(dir + "/second.so"), std::string::npos) << out;
    EXPECT_NE(out.find("priority 7, camera manager: no, codec manager: no"), std::string::npos) << out;

    ASSERT_EQ(lumiflux_test::runCommand("LUMIFLUX_NO_SYSLOG=1 LUMIFLUX_PLUGIN_DIR='" + dir +
                                            "' " LUMIFLUX_TOOL " plugins --json 2>/dev/null",
                                        &out),
              0);
    std::istringstream lines(out);
    std::string line;
    std::vector<nlohmann::json> records;
    while (std::getline(lines, line))
        records.push_back(nlohmann::json::parse(line));
    ASSERT_EQ(records.size(), 2u) << out;
    EXPECT_EQ(records[0]["event"], "directory");
    EXPECT_EQ(records[0]["path"], dir);
    EXPECT_EQ(records[0]["modules"], 1);
    EXPECT_EQ(records[1]["event"], "module");
    EXPECT_EQ(records[1]["path"], dir + "/second.so");
    EXPECT_EQ(records[1]["priority"], 7);
    EXPECT_EQ(records[1]["cameraManager"], false);
    EXPECT_EQ(records[1]["codecManager"], false);
}

TEST(PluginsTool, MissingDirectoryIsAClearFailure)
{
    const std::string dir = lumiflux_test::freshDirectory("tool-missing") + "/absent";
    std::string out;
    EXPECT_EQ(lumiflux_test::runCommand("LUMIFLUX_PLUGIN_DIR='" + dir + "' " LUMIFLUX_TOOL " plugins 2>&1", &out), 1);
    EXPECT_NE(out.find("'" + dir + "' does not exist"), std::string::npos) << out;
}

} // namespace
