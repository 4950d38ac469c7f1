// Logging: what reaches syslog, at which priority, in which form, for each
// environment. Each environment runs in its own process (see CMakeLists.txt);
// syslog() and openlog() are captured by the test program itself.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <iostream>
#include <mutex>
#include <regex>
#include <sstream>
#include <syslog.h>
#include <thread>
#include <vector>

#include <lumiflux/log.h>

#include "syslog_capture.h"
#include <lumiflux/log_line.h>

using lumiflux_test::clearSyslog;
using lumiflux_test::openlogCalls;
using lumiflux_test::syslogRecords;
using Tevara::Lumiflux::LogInit;
using Tevara::Lumiflux::LogLevel;

namespace {

std::streambuf* const originalClogBuffer = std::clog.rdbuf();

// Priority and text of every record sent so far.
std::vector<std::pair<int, std::string>> sent()
{
    std::vector<std::pair<int, std::string>> result;
    for (const auto& record : syslogRecords())
        result.emplace_back(record.priority, record.text);
    return result;
}

TEST(LogInitRace, FirstCallsFromManyThreadsAtOnceInstallOneBuffer)
{
    ASSERT_EQ(std::clog.rdbuf(), originalClogBuffer);
    std::atomic<int> waiting{8};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&waiting] {
            // Start together, so the first initialisation is contested.
            --waiting;
            while (waiting.load() > 0) {
            }
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
    EXPECT_EQ(opens[0].ident, "lumiflux");
    EXPECT_EQ(opens[0].option, LOG_PID);
    EXPECT_EQ(opens[0].facility, LOG_USER);
    std::clog << LogLevel::Error << "after the race" << std::endl;
    EXPECT_EQ(sent(), (decltype(sent()){{LOG_ERR, "after the race\n"}}));
}

class LogTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        LogInit();
        clearSyslog();
    }
};

using LogSyslogOn = LogTest;
using LogDebugOff = LogTest;
using LogDebugOn = LogTest;
using LogSyslogOff = LogTest;

TEST_F(LogSyslogOn, EachFlushSendsOneRecordAtTheLevelsPriority)
{
    LUMIFLUX_LOG(LogLevel::Error, "main ") << "cannot open plugin: "
                                           << "reason" << std::endl;
    // Embedded newlines stay in one record until the flush.
    std::clog << LogLevel::Error << "line one\nline two" << '\n' << std::flush;
    // Unknown levels at or above Info are kept but sent as debug.
    std::clog << LogLevel{5} << "odd level" << std::endl;
    std::clog << LogLevel{-3} << "negative level" << std::endl;
    // A level inserted into another stream is harmless there.
    std::ostringstream stream;
    EXPECT_EQ(&(stream << LogLevel::Error), &stream);
    stream << "text";
    EXPECT_EQ(stream.str(), "text");

    const auto records = sent();
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0].first, LOG_ERR);
    EXPECT_TRUE(std::regex_match(records[0].second, std::regex("main TestBody:[0-9]+ -- cannot open plugin: reason\n")))
        << records[0].second;
    EXPECT_EQ(records[1], (std::pair<int, std::string>{LOG_ERR, "line one\nline two\n"}));
    EXPECT_EQ(records[2], (std::pair<int, std::string>{LOG_DEBUG, "odd level\n"}));
}

TEST_F(LogSyslogOn, ConcurrentWritersNeverCorruptTheBuffer)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([] {
            for (int i = 0; i < 200; ++i)
                std::clog << LogLevel::Error << "msg" << std::endl;
        });
    for (auto& t : threads)
        t.join();
    std::size_t tokens = 0;
    for (const auto& r : syslogRecords())
        for (std::size_t at = r.text.find("msg"); at != std::string::npos; at = r.text.find("msg", at + 1))
            ++tokens;
    // Records may interleave or lose text to another thread's level reset;
    // the count can never exceed what was written.
    EXPECT_GT(tokens, 0u);
    EXPECT_LE(tokens, 1600u);
}

TEST_F(LogDebugOff, DebugAndDigitMessagesAreDroppedAndEveryFlushResetsTheLevel)
{
    std::clog << LogLevel::Info << "first" << std::endl;
    std::clog << "second, no level" << std::endl;
    std::clog << LogLevel::Error << std::flush; // empty: sends nothing, still resets
    std::clog << "after the empty flush" << std::endl;
    LUMIFLUX_LOG_DIGIT(2, "[lumiflux-player] ") << "Failed to change the state to PAUSED" << std::endl;
    LUMIFLUX_LOG(LogLevel::Debug, "main ") << "debug" << std::endl;
    // Text before a change of level is dropped as it arrives.
    std::clog << "lost " << LogLevel::Error << "kept" << std::endl;
    EXPECT_EQ(sent(), (decltype(sent()){{LOG_INFO, "first\n"}, {LOG_ERR, "kept\n"}}));
}

TEST_F(LogDebugOn, DigitAndUnlevelledMessagesAreKeptAtDebugPriority)
{
    LUMIFLUX_LOG_DIGIT(2, "[lumiflux-player] ") << "Failed to change the state to PAUSED" << std::endl;
    std::clog << "plain" << std::endl;
    const auto records = sent();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].first, LOG_DEBUG);
    EXPECT_TRUE(std::regex_match(records[0].second,
                                 std::regex("2\\[lumiflux-player\\] TestBody:[0-9]+ -- Failed to change the state "
                                            "to PAUSED\n")))
        << records[0].second;
    EXPECT_EQ(records[1], (std::pair<int, std::string>{LOG_DEBUG, "plain\n"}));
}

TEST_F(LogSyslogOff, NothingIsInstalledAndEverythingGoesToStandardError)
{
    EXPECT_EQ(std::clog.rdbuf(), originalClogBuffer);
    EXPECT_TRUE(openlogCalls().empty());

    testing::internal::CaptureStderr();
    LUMIFLUX_LOG_DIGIT(0, "main ") << "debug digit" << std::endl;
    LUMIFLUX_LOG(LogLevel::Error, "main ") << "error level" << std::endl;
    std::clog << LogLevel::Debug << "debug level" << std::endl;
    const std::string err = testing::internal::GetCapturedStderr();

    EXPECT_TRUE(syslogRecords().empty());
    EXPECT_TRUE(std::regex_search(err, std::regex("0main TestBody:[0-9]+ -- debug digit\n"))) << err;
    EXPECT_TRUE(std::regex_search(err, std::regex("\nmain TestBody:[0-9]+ -- error level\n"))) << err;
    EXPECT_NE(err.find("debug level\n"), std::string::npos) << err;
}

// Records every run of characters the stream hands over, under a lock of its
// own, so that the test reads exactly what each insertion produced.
class ChunkRecorder : public std::streambuf {
public:
    std::vector<std::string> chunks()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return recorded;
    }

protected:
    int overflow(int c) override
    {
        if (c != traits_type::eof())
            record(std::string(1, static_cast<char>(c)));
        return c;
    }
    std::streamsize xsputn(const char* s, std::streamsize n) override
    {
        record(std::string(s, static_cast<std::size_t>(n)));
        return n;
    }

private:
    void record(std::string text)
    {
        std::lock_guard<std::mutex> lock(mutex);
        recorded.push_back(std::move(text));
    }
    std::mutex mutex;
    std::vector<std::string> recorded;
};

void logLineNumbers(int count)
{
    for (int i = 0; i < count; ++i)
        LUMIFLUX_LOG_DIGIT(0, "main ") << "value " << 207 << std::endl;
}

TEST(LogFormat, PointersOnOneThreadNeverTurnAnotherThreadsNumbersHexadecimal)
{
    using Tevara::Lumiflux::Internal::LogPointer;
    ChunkRecorder recorder;
    std::streambuf* previous = std::clog.rdbuf(&recorder);
    const auto* pointer = reinterpret_cast<const void*>(std::uintptr_t{0xdeadbeef0});
    constexpr int count = 100000;
    std::thread numbers(logLineNumbers, count);
    for (int i = 0; i < count; ++i)
        LUMIFLUX_LOG_DIGIT(0, "main ") << LogPointer{pointer} << std::endl;
    numbers.join();
    std::clog.rdbuf(previous);

    // Interleaved text is accepted; a number in another base is not. The
    // only hexadecimal text written is the pointer.
    int pointers = 0;
    int values = 0;
    int heads = 0;
    std::vector<std::string> otherHex;
    for (const std::string& chunk : recorder.chunks()) {
        heads += chunk.find("logLineNumbers") != std::string::npos;
        pointers += chunk == "0xdeadbeef0";
        values += chunk == "207";
        if (chunk != "0xdeadbeef0" && chunk.find("0x") != std::string::npos)
            otherHex.push_back(chunk);
    }
    EXPECT_TRUE(otherHex.empty()) << otherHex.size() << " numbers written in hexadecimal, first: " << otherHex.front();
    EXPECT_EQ(pointers, count);
    EXPECT_EQ(values, count);
    EXPECT_EQ(heads, count);
}

} // namespace
