#include "syslog_capture.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <syslog.h>

namespace lumiflux_test {
namespace {
struct Captured {
    std::mutex lock;
    std::vector<SyslogRecord> records;
    std::vector<OpenlogCall> opens;
};
Captured& captured()
{
    static Captured c;
    return c;
}
void record(int priority, const char* format, va_list args)
{
    va_list copy;
    va_copy(copy, args);
    const int size = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string text(size > 0 ? static_cast<std::size_t>(size) : 0, '\0');
    if (size > 0)
        std::vsnprintf(text.data(), text.size() + 1, format, args);
    std::lock_guard<std::mutex> guard(captured().lock);
    captured().records.push_back({priority, text});
}
} // namespace

std::vector<SyslogRecord> syslogRecords()
{
    std::lock_guard<std::mutex> guard(captured().lock);
    return captured().records;
}

std::vector<OpenlogCall> openlogCalls()
{
    std::lock_guard<std::mutex> guard(captured().lock);
    return captured().opens;
}

void clearSyslog()
{
    std::lock_guard<std::mutex> guard(captured().lock);
    captured().records.clear();
}

std::vector<SyslogRecord> syslogRecordsContaining(const std::string& needle)
{
    std::vector<SyslogRecord> found;
    for (const auto& r : syslogRecords())
        if (r.text.find(needle) != std::string::npos)
            found.push_back(r);
    return found;
}

} // namespace lumiflux_test

extern "C" {

void openlog(const char* ident, int option, int facility)
{
    std::lock_guard<std::mutex> guard(lumiflux_test::captured().lock);
    lumiflux_test::captured().opens.push_back({ident != nullptr ? ident : "", option, facility});
}

void syslog(int priority, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    lumiflux_test::record(priority, format, args);
    va_end(args);
}

} // extern "C"
