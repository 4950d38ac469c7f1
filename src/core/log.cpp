#include <lumiflux/log.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <mutex>
#include <syslog.h>

#include "core/syslog_buffer.h"

namespace Tevara::Lumiflux {
namespace Internal {

namespace {
int syslogPriority(std::int32_t level)
{
    switch (level) {
    case 1:
        return LOG_INFO;
    case 2:
        return LOG_ERR;
    default:
        return LOG_DEBUG;
    }
}
} // namespace

SysLogBuffer::SysLogBuffer(std::int32_t minimumLevel) : minLevel(minimumLevel)
{
    std::strncpy(ident, "lumiflux", sizeof(ident) - 1);
    ident[sizeof(ident) - 1] = '\0';
}

SysLogBuffer::~SysLogBuffer() = default;

void SysLogBuffer::setLevel(std::int32_t newLevel)
{
    std::lock_guard<std::mutex> lock(guard);
    level = newLevel;
}

int SysLogBuffer::sync()
{
    std::lock_guard<std::mutex> lock(guard);
    if (level >= minLevel && !message.empty()) {
        syslog(syslogPriority(level), "%s", message.c_str());
        message.clear();
    }
    level = 0;
    return 0;
}

std::streamsize SysLogBuffer::xsputn(const char* s, std::streamsize n)
{
    std::lock_guard<std::mutex> lock(guard);
    if (level < minLevel)
        return n;
    message.append(s, static_cast<std::size_t>(n));
    return n;
}

SysLogBuffer::int_type SysLogBuffer::overflow(int_type c)
{
    if (traits_type::eq_int_type(c, traits_type::eof())) {
        sync();
        return traits_type::eof();
    }
    std::lock_guard<std::mutex> lock(guard);
    if (level >= minLevel)
        message.push_back(traits_type::to_char_type(c));
    return c;
}

} // namespace Internal

namespace {
std::mutex initMutex;
std::atomic<bool> initialised{false};
} // namespace

void LogInit()
{
    if (initialised.load(std::memory_order_acquire))
        return;
    std::lock_guard<std::mutex> lock(initMutex);
    if (initialised.load(std::memory_order_relaxed))
        return;

    const char* debug = std::getenv("LUMIFLUX_DEBUG");
    const char* noSyslog = std::getenv("LUMIFLUX_NO_SYSLOG");
    // Only an unset variable or exactly "0" keeps syslog; even "" turns it off.
    const bool useSyslog = noSyslog == nullptr || std::strcmp(noSyslog, "0") == 0;

    if (useSyslog) {
        // Never freed on purpose: std::clog may be written to until the very
        // end of the process, after every static destructor has run.
        auto* buffer = new Internal::SysLogBuffer(debug != nullptr ? 0 : 1);
        openlog(buffer->identifier(), LOG_PID, LOG_USER);
        std::clog.rdbuf(buffer);
    }
    initialised.exchange(true, std::memory_order_acq_rel);
}

} // namespace Tevara::Lumiflux

std::ostream& operator<<(std::ostream& stream, const Tevara::Lumiflux::LogLevel& level)
{
    // Only our own buffer carries a level; on any other stream it is ignored.
    if (auto* buffer = dynamic_cast<Tevara::Lumiflux::Internal::SysLogBuffer*>(stream.rdbuf()))
        buffer->setLevel(level.level);
    return stream;
}
