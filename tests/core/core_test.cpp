// Logging, the device facts and the enumeration names; the first two are set up once per process.
#include <gtest/gtest.h>

#include <atomic>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <syslog.h>
#include <thread>

#include <lumiflux/log_line.h>
#include <lumiflux/sysinfo.h>
#include <lumiflux/types.h>

#include "syslog_capture.h"
#include "test_paths.h"

using namespace lumiflux_test;
using namespace Tevara::Lumiflux;

namespace {

std::streambuf* const originalClogBuffer = std::clog.rdbuf();

std::string sent()
{
    std::string result;
    for (const auto& record : syslogRecords())
        result += std::to_string(record.priority) + " " + record.text;
    return std::regex_replace(result, std::regex(":[0-9]+ -- "), ":N -- ");
}

// Eight threads make the first LogInit calls. Syslog on: one buffer and one openlog, one record per flush at its
// level's priority (LUMIFLUX_DEBUG keeps every line). LUMIFLUX_NO_SYSLOG set: every line to standard error.
TEST(LogSyslog, RacingFirstInitsThenOneRecordPerFlush)
{
    std::atomic<int> waiting{8};
    std::vector<std::thread> threads(8);
    for (auto& t : threads)
        t = std::thread([&waiting] {
            for (--waiting; waiting.load() > 0;)
                std::this_thread::yield(); // all start together, so the first initialisation is contested
            LogInit();
        });
    for (auto& t : threads)
        t.join();
    std::streambuf* installed = std::clog.rdbuf();
    LogInit();
    const bool off = std::getenv("LUMIFLUX_TEST_SYSLOG_OFF") != nullptr;
    EXPECT_TRUE((installed != originalClogBuffer) != off && std::clog.rdbuf() == installed);
    const auto opens = openlogCalls();
    ASSERT_EQ(opens.size(), off ? 0u : 1u);
    EXPECT_TRUE(off || (opens[0].ident == "lumiflux" && opens[0].option == LOG_PID && opens[0].facility == LOG_USER));
    testing::internal::CaptureStderr();
    LUMIFLUX_LOG(LogLevel::Error, "main ") << "cannot open "
                                           << "plugin" << std::endl;
    std::clog << LogLevel::Error << "line one\nline two" << '\n' << std::flush; // one record until the flush
    std::clog << LogLevel{5} << "odd level" << std::endl;                       // kept, sent as debug
    std::clog << LogLevel{-3} << "negative level" << std::endl;                 // below every minimum
    std::clog << LogLevel::Info << "info" << std::endl << "no level" << std::endl;
    std::clog << LogLevel::Error << std::flush; // empty: sends nothing, still resets the level
    std::clog << "after the empty flush" << std::endl;
    LUMIFLUX_LOG_DIGIT(2, "[lumiflux-player] ") << "Failed to change the state to PAUSED" << std::endl;
    std::clog << "lost " << LogLevel::Error << "kept" << std::endl; // text before the level is dropped as it comes
    const std::string head = "3 main TestBody:N -- cannot open plugin\n3 line one\nline two\n7 odd level\n",
                      all = "7 no level\n7 after the empty flush\n7 2[lumiflux-player] TestBody:N -- Failed to change "
                            "the state to PAUSED\n3 lost kept\n";
    const std::string logged =
        sent() + "|" + std::regex_replace(testing::internal::GetCapturedStderr(), std::regex(":[0-9]+ -- "), ":N -- ");
    EXPECT_EQ(logged, off ? "|" + std::regex_replace(head + "7 negative level\n6 info\n" + all,
                                                     std::regex("(^|\n)[0-9] "), "$1")
                      : std::getenv("LUMIFLUX_DEBUG") == nullptr ? head + "6 info\n3 kept\n|"
                                                                 : head + "6 info\n" + all + "|");
}

// The rotation angle from a real dconf database, whose key LUMIFLUX_TEST_DCONF names: read once, never again.
TEST(SysInfo, AngleComesFromTheSettingsOnceAndNeverChanges)
{
    const std::map<std::string, std::pair<std::string, int>> settings{
        {"unset", {"", 0}}, {"270", {"270", 270}}, {"string", {"'portrait'", 0}}};
    const auto& [value, expected] = settings.at(std::getenv("LUMIFLUX_TEST_DCONF"));
    const std::string dir = freshDirectory("dconf");
    for (const std::string& key : {value, std::string("90")}) {
        std::filesystem::create_directories(dir + "/keys");
        std::ofstream(dir + "/keys/00") << (key.empty() ? "[desktop/vantel/other]\nunrelated=1\n"
                                                        : "[desktop/vantel/components]\nscreen_rotation_angle=" + key);
        ASSERT_EQ(runCommand("dconf compile '" + dir + "/db' '" + dir + "/keys'"), 0) << "is dconf-cli installed?";
        std::ofstream(dir + "/profile") << "file-db:" << dir << "/db\n";
        setenv("DCONF_PROFILE", (dir + "/profile").c_str(), 1);
        EXPECT_EQ(Internal::globals()->sysInfo()->screenRotationAngle(), expected);
    }
}

// A pixel format without a name of its own is shown as its FourCC: its four bytes, lowest first, unfiltered.
TEST(Types, PixelFormatsWithoutANameShowTheirFourcc)
{
    EXPECT_EQ(toString(PixelFormat::YUV420SemiPlanar) + toString(PixelFormat::YCbCrFlexible) +
                  toString(PixelFormat(0x3231564E)) + toString(fourcc('Y', 'U', '1', '2')) + toString(PixelFormat(3)) +
                  toString(PixelFormat(0xFFFA)) + toString(PixelFormat(-1)),
              std::string("YUV420SemiPlanarYCbCrFlexibleNV12YU12\x03\x00\x00\x00\xFA\xFF\x00\x00\xFF\xFF\xFF\xFF", 49));
}

} // namespace
