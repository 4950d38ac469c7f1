// Logging: what reaches syslog, at which priority and in which form, for each
// environment. Logging is set up once per process, so each environment runs
// in its own (see CMakeLists.txt); the test program captures syslog() itself.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <regex>
#include <syslog.h>
#include <thread>
#include <vector>

#include <lumiflux/log_line.h>

#include "syslog_capture.h"

using namespace lumiflux_test;
using Tevara::Lumiflux::LogInit;
using Tevara::Lumiflux::LogLevel;

namespace {

std::streambuf* const originalClogBuffer = std::clog.rdbuf();
using Records = std::vector<std::pair<int, std::string>>;

// What was sent, line numbers of log heads written as N.
Records sent()
{
    Records result;
    for (const auto& record : syslogRecords())
        result.emplace_back(record.priority, std::regex_replace(record.text, std::regex(":[0-9]+ -- "), ":N -- "));
    return result;
}

TEST(LogInitRace, FirstCallsFromManyThreadsAtOnceInstallOneBuffer)
{
    std::atomic<int> waiting{8};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&waiting] {
            for (--waiting; waiting.load() > 0;) {
            } // all start together, so the first initialisation is contested
            LogInit();
        });
    for (auto& t : threads)
        t.join();
    std::streambuf* installed = std::clog.rdbuf();
    LogInit();
    EXPECT_NE(installed, originalClogBuffer);
    EXPECT_EQ(std::clog.rdbuf(), installed);
    const auto opens = openlogCalls();
    ASSERT_EQ(opens.size(), 1u);
    EXPECT_EQ(opens[0].ident + " " + std::to_string(opens[0].option) + " " + std::to_string(opens[0].facility),
              "lumiflux " + std::to_string(LOG_PID) + " " + std::to_string(LOG_USER));
    std::clog << LogLevel::Error << "after the race" << std::endl;
    EXPECT_EQ(sent(), (Records{{LOG_ERR, "after the race\n"}}));
}

// Runs with syslog on, LUMIFLUX_DEBUG unset or set (to anything, "" and "0" included).
TEST(LogSyslog, EachFlushSendsOneRecordAtItsLevelsPriority)
{
    LogInit();
    clearSyslog();
    LUMIFLUX_LOG(LogLevel::Error, "main ") << "cannot open plugin: "
                                           << "reason" << std::endl;
    std::clog << LogLevel::Error << "line one\nline two" << '\n' << std::flush; // one record until the flush
    std::clog << LogLevel{5} << "odd level" << std::endl;                       // kept, sent as debug
    std::clog << LogLevel{-3} << "negative level" << std::endl;                 // below every minimum
    std::clog << LogLevel::Info << "info" << std::endl;
    std::clog << "no level" << std::endl;
    std::clog << LogLevel::Error << std::flush; // empty: sends nothing, still resets the level
    std::clog << "after the empty flush" << std::endl;
    LUMIFLUX_LOG_DIGIT(2, "[lumiflux-player] ") << "Failed to change the state to PAUSED" << std::endl;
    std::clog << "lost " << LogLevel::Error << "kept" << std::endl; // text before the level is dropped as it comes
    const bool debug = std::getenv("LUMIFLUX_DEBUG") != nullptr;
    Records expected{{LOG_ERR, "main TestBody:N -- cannot open plugin: reason\n"},
                     {LOG_ERR, "line one\nline two\n"},
                     {LOG_DEBUG, "odd level\n"},
                     {LOG_INFO, "info\n"}};
    if (debug)
        expected.insert(expected.end(), {{LOG_DEBUG, "no level\n"},
                                         {LOG_DEBUG, "after the empty flush\n"},
                                         {LOG_DEBUG, "2[lumiflux-player] TestBody:N -- Failed to change the state "
                                                     "to PAUSED\n"}});
    expected.emplace_back(LOG_ERR, debug ? "lost kept\n" : "kept\n");
    EXPECT_EQ(sent(), expected);
}

TEST(LogSyslogOff, NothingIsInstalledAndEverythingGoesToStandardError)
{
    LogInit();
    EXPECT_EQ(std::clog.rdbuf(), originalClogBuffer);
    EXPECT_TRUE(openlogCalls().empty());
    testing::internal::CaptureStderr();
    LUMIFLUX_LOG_DIGIT(0, "main ") << "debug digit" << std::endl;
    LUMIFLUX_LOG(LogLevel::Error, "main ") << "error level" << std::endl;
    std::clog << LogLevel::Debug << "debug level" << std::endl;
    EXPECT_EQ(std::regex_replace(testing::internal::GetCapturedStderr(), std::regex(":[0-9]+ -- "), ":N -- "),
              "0main TestBody:N -- debug digit\nmain TestBody:N -- error level\ndebug level\n");
    EXPECT_TRUE(syslogRecords().empty());
}

int occurrences(const std::string& text, const std::string& needle)
{
    int count = 0;
    for (auto at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1))
        ++count;
    return count;
}

// Runs with LUMIFLUX_DEBUG set, so that the library's buffer keeps every line
// whichever thread's flush resets the level; its lock keeps each insertion whole.
TEST(LogFormat, PointersOnOneThreadNeverTurnAnotherThreadsNumbersHexadecimal)
{
    LogInit();
    clearSyslog();
    constexpr int count = 100000;
    std::thread numbers([] {
        for (int i = 0; i < count; ++i)
            LUMIFLUX_LOG_DIGIT(0, "main ") << "value " << 207 << std::endl;
    });
    const auto* pointer = reinterpret_cast<const void*>(std::uintptr_t{0xdeadbeef0});
    for (int i = 0; i < count; ++i)
        LUMIFLUX_LOG_DIGIT(0, "main ") << Tevara::Lumiflux::Internal::LogPointer{pointer} << std::endl;
    numbers.join();
    std::string text;
    for (const auto& record : syslogRecords())
        text += record.text;
    // The pointers are the only hexadecimal text; every value and line number stays decimal.
    EXPECT_EQ(occurrences(text, "0x"), count);
    EXPECT_EQ(occurrences(text, "0xdeadbeef0"), count);
    EXPECT_EQ(occurrences(text, "207"), count);
}

} // namespace
