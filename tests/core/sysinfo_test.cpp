// The screen rotation angle from a real dconf database, compiled with `dconf
// compile` and selected through DCONF_PROFILE. The angle is read once per
// process, so each database (LUMIFLUX_TEST_DCONF) runs in its own.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <thread>
#include <vector>

#include <lumiflux/sysinfo.h>

#include "test_paths.h"

using Tevara::Lumiflux::Internal::globals;
using Tevara::Lumiflux::Internal::SysInfo;

namespace {

// Compiles a database whose rotation key holds `value` ("" for no key).
void compileDatabase(const std::string& dir, const std::string& value)
{
    std::filesystem::remove_all(dir + "/keys");
    std::filesystem::create_directories(dir + "/keys");
    std::ofstream(dir + "/keys/00-test") << (value.empty() ? "[desktop/vantel/other]\nunrelated=1\n"
                                                           : "[desktop/vantel/components]\nscreen_rotation_angle=" +
                                                                 value + "\n");
    ASSERT_EQ(lumiflux_test::runCommand("dconf compile '" + dir + "/db' '" + dir + "/keys'"), 0)
        << "dconf compile failed (is dconf-cli installed?)";
}

TEST(SysInfo, AngleComesFromTheSettingsOnceAndNeverChanges)
{
    const std::map<std::string, std::pair<std::string, int>> settings{
        {"unset", {"", 0}}, {"270", {"270", 270}}, {"string", {"'portrait'", 0}}};
    const char* which = std::getenv("LUMIFLUX_TEST_DCONF");
    ASSERT_TRUE(which != nullptr && settings.count(which) == 1) << "LUMIFLUX_TEST_DCONF";
    const auto& [value, expected] = settings.at(which);
    const std::string dir = lumiflux_test::freshDirectory("dconf");
    compileDatabase(dir, value);
    std::ofstream(dir + "/profile") << "file-db:" << dir << "/db\n";
    setenv("DCONF_PROFILE", (dir + "/profile").c_str(), 1);

    // Threads asking first read the settings once and share one object.
    std::vector<SysInfo*> seen(6, nullptr);
    std::vector<std::thread> threads;
    for (auto& slot : seen)
        threads.emplace_back([&slot] { slot = globals()->sysInfo(); });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(std::set<SysInfo*>(seen.begin(), seen.end()).size(), 1u);
    EXPECT_EQ(seen[0]->screenRotationAngle(), expected);
    compileDatabase(dir, "90"); // a later change is not seen
    EXPECT_EQ(globals()->sysInfo()->screenRotationAngle(), expected);
}

} // namespace
