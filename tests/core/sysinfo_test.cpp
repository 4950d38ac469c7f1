// The screen rotation angle read from a real dconf database, compiled with
// `dconf compile` and selected through DCONF_PROFILE. One process per
// database (LUMIFLUX_TEST_DCONF), since the angle is read once per process.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>
#include <vector>

#include <lumiflux/sysinfo.h>

#include "test_paths.h"

using Tevara::Lumiflux::Internal::globals;
using Tevara::Lumiflux::Internal::SysInfo;

namespace {

namespace fs = std::filesystem;

// Compiles a database holding `value` for the rotation key ("" for no key).
void compileDatabase(const std::string& dir, const std::string& value)
{
    const fs::path keyfiles = fs::path(dir) / "keyfiles";
    fs::remove_all(keyfiles);
    fs::create_directories(keyfiles);
    std::ofstream keyfile(keyfiles / "00-test");
    if (value.empty())
        keyfile << "[desktop/vantel/other]\nunrelated=1\n";
    else
        keyfile << "[desktop/vantel/components]\nscreen_rotation_angle=" << value << "\n";
    keyfile.close();
    const std::string db = (fs::path(dir) / "db").string();
    ASSERT_EQ(lumiflux_test::runCommand("dconf compile '" + db + "' '" + keyfiles.string() + "'"), 0)
        << "dconf compile failed (is dconf-cli installed?)";
}

void selectDatabase(const std::string& dir)
{
    const fs::path profile = fs::path(dir) / "profile";
    std::ofstream(profile) << "file-db:" << (fs::path(dir) / "db").string() << "\n";
    setenv("DCONF_PROFILE", profile.c_str(), 1);
}

std::string scenario()
{
    const char* value = std::getenv("LUMIFLUX_TEST_DCONF");
    return value != nullptr ? value : "";
}

TEST(SysInfo, AngleComesFromTheSettingsOnceAndNeverChanges)
{
    const std::string dir = lumiflux_test::freshDirectory("dconf");
    const std::string which = scenario();
    ASSERT_TRUE(which == "unset" || which == "270" || which == "string") << "LUMIFLUX_TEST_DCONF=" << which;

    compileDatabase(dir, which == "unset" ? "" : which == "270" ? "270" : "'portrait'");
    selectDatabase(dir);

    // Several threads asking first read the settings once and share one object.
    std::vector<std::thread> threads;
    std::vector<SysInfo*> seen(6, nullptr);
    for (std::size_t i = 0; i < seen.size(); ++i)
        threads.emplace_back([&seen, i] { seen[i] = globals()->sysInfo(); });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(std::set<SysInfo*>(seen.begin(), seen.end()).size(), 1u);

    const int expected = which == "270" ? 270 : 0;
    EXPECT_EQ(globals()->sysInfo()->screenRotationAngle(), expected);

    // A later change of the setting is not seen.
    compileDatabase(dir, "90");
    EXPECT_EQ(globals()->sysInfo()->screenRotationAngle(), expected);
    EXPECT_EQ(globals()->sysInfo(), seen[0]);
}

} // namespace
