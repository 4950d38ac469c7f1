#pragma once

// The one way the library writes a message: level, component prefix, the
// enclosing function's name, ":", the line, " -- ", then the caller's text
// and std::endl (which sends the record).
//
// Two spellings, and each message states which it uses:
// - LUMIFLUX_LOG(LogLevel::Error, "main ") inserts a LogLevel: the level
//   governs filtering and the syslog priority, and no digit is written.
// - LUMIFLUX_LOG_DIGIT(2, "[lumiflux-player] ") inserts the level as a plain
//   digit. The digit becomes the first character of the record and the
//   pending level stays Debug, so these lines are debug-only on purpose.

#include <iostream>

#include <lumiflux/log.h>

namespace Tevara::Lumiflux::Internal {

inline std::ostream& logWithLevel(const LogLevel& level, const char* component, const char* function, int line)
{
    return std::clog << level << component << function << ":" << line << " -- ";
}

inline std::ostream& logWithDigit(int digit, const char* component, const char* function, int line)
{
    return std::clog << digit << component << function << ":" << line << " -- ";
}

} // namespace Tevara::Lumiflux::Internal

#define LUMIFLUX_LOG(level, component)                                                                                 \
    ::Tevara::Lumiflux::Internal::logWithLevel((level), (component), __func__, __LINE__)

#define LUMIFLUX_LOG_DIGIT(digit, component)                                                                           \
    ::Tevara::Lumiflux::Internal::logWithDigit((digit), (component), __func__, __LINE__)
