#pragma once

/**
 * @file log.h
 * The library's log: every message goes through std::clog, which LogInit()
 * redirects into syslog (identifier "lumiflux").
 *
 * Environment, read once by LogInit():
 * - LUMIFLUX_NO_SYSLOG: unset or exactly "0" sends messages to syslog; any
 *   other value, the empty one included, leaves std::clog on standard error.
 * - LUMIFLUX_DEBUG: when set (to anything, even ""), debug messages are kept.
 */

#include <cstdint>
#include <ostream>

#include <lumiflux/export.h>

namespace Tevara::Lumiflux {

/**
 * The level of one log message. Insert it into std::clog before the text:
 * `std::clog << LogLevel::Error << "text" << std::endl;`
 */
struct LUMIFLUX_EXPORT LogLevel {
    std::int32_t level; ///< 0 Debug, 1 Info, 2 Error; any other value counts as Debug.

    static const LogLevel Debug; ///< level 0: kept only when LUMIFLUX_DEBUG is set
    static const LogLevel Info;  ///< level 1
    static const LogLevel Error; ///< level 2
};

inline constexpr LogLevel LogLevel::Debug{0};
inline constexpr LogLevel LogLevel::Info{1};
inline constexpr LogLevel LogLevel::Error{2};

/**
 * Sets up logging once per process: installs the syslog stream buffer on
 * std::clog unless LUMIFLUX_NO_SYSLOG turns syslog off. Idempotent and safe
 * to call from any thread; the library calls it itself before its first
 * message.
 */
LUMIFLUX_EXPORT void LogInit();

} // namespace Tevara::Lumiflux

/**
 * Sets the pending level of the message being written to `stream`. Writes
 * nothing. On a stream whose buffer is not the library's syslog buffer the
 * level is ignored.
 */
LUMIFLUX_EXPORT std::ostream& operator<<(std::ostream& stream, const Tevara::Lumiflux::LogLevel& level);
