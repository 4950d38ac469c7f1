// `lumiflux plugins`, run as a user runs it.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "test_paths.h"

namespace {

namespace fs = std::filesystem;

std::string tool(const std::string& dir, const std::string& arguments)
{
    return "LUMIFLUX_NO_SYSLOG=1 LUMIFLUX_PLUGIN_DIR='" + dir + "' " LUMIFLUX_TOOL " plugins " + arguments;
}

TEST(PluginsTool, ListsEachModuleWithPriorityAndManagersAndRefusesAMissingDirectory)
{
    const std::string dir = lumiflux_test::freshDirectory("tool");
    fs::copy_file(std::string(LUMIFLUX_FIXTURE_DIR) + "/fixture_second_module.so", dir + "/second.so");
    std::ofstream(dir + "/notes.txt") << "text";

    std::string out;
    ASSERT_EQ(lumiflux_test::runCommand(tool(dir, "2>/dev/null"), &out), 0);
    EXPECT_NE(out.find("plug-in directory: " + dir), std::string::npos) << out;
    EXPECT_NE(out.find(dir + "/second.so"), std::string::npos) << out;
    EXPECT_NE(out.find("priority 7, camera manager: no, codec manager: no"), std::string::npos) << out;

    ASSERT_EQ(lumiflux_test::runCommand(tool(dir, "--json 2>/dev/null"), &out), 0);
    std::istringstream lines(out);
    std::string line;
    std::vector<nlohmann::json> records;
    while (std::getline(lines, line))
        records.push_back(nlohmann::json::parse(line));
    ASSERT_EQ(records.size(), 2u) << out;
    EXPECT_EQ(records[0], (nlohmann::json{{"event", "directory"}, {"path", dir}, {"modules", 1}}));
    EXPECT_EQ(records[1], (nlohmann::json{{"event", "module"},
                                          {"path", dir + "/second.so"},
                                          {"priority", 7},
                                          {"cameraManager", false},
                                          {"codecManager", false}}));

    EXPECT_EQ(lumiflux_test::runCommand(tool(dir + "/absent", "2>&1"), &out), 1);
    EXPECT_NE(out.find("'" + dir + "/absent' does not exist"), std::string::npos) << out;
}

} // namespace
