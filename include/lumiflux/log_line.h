#pragma once

/**
 * @file log_line.h
 * The one way the library, and the plug-ins built on it, write a message:
 * level, component prefix, the enclosing function's name, ":", the line,
 * " -- ", then the caller's text and std::endl (which sends the record).
 *
 * Two spellings, and each message states which it uses:
 * - `LUMIFLUX_LOG(LogLevel::Error, "main ") << "text" << std::endl;` inserts
 *   a LogLevel: the level governs filtering and the syslog priority, and no
 *   digit is written.
 * - `LUMIFLUX_LOG_DIGIT(2, "main ") << "text" << std::endl;` inserts the
 *   level as a plain digit. The digit becomes the first character of the
 *   record and the pending level stays Debug, so these lines are kept only
 *   when LUMIFLUX_DEBUG is set (or syslog is off): debug-only on purpose.
 *
 * Never insert a raw pointer into std::clog (it switches the shared stream
 * to hexadecimal for a moment, under other threads' numbers): write
 * `Internal::LogPointer{p}`.
 */

#include <cstdint>
#include <cstdio>
#include <iostream>
#include <string>

#include <lumiflux/log.h>

namespace Tevara::Lumiflux::Internal {

/// @cond LOG_HELPERS

// std::clog's format state (base, show-base, width) is shared by every thread
// that logs. Inserting a pointer with << switches it to hexadecimal for a
// moment, and a line number that another thread inserted in that moment came
// out as "0xcf". So nothing the library logs reads or changes that state
// more than it must: the head of each line is formatted here into a string of
// its own and written as text, and pointers go through LogPointer.
inline std::string logHead(const char* component, const char* function, int line)
{
    std::string head(component);
    head += function;
    head += ':';
    head += std::to_string(line);
    head += " -- ";
    return head;
}

inline std::ostream& logWithLevel(const LogLevel& level, const char* component, const char* function, int line)
{
    return std::clog << level << logHead(component, function, line);
}

// The digit is written as text: the pending level of the line stays Debug.
inline std::ostream& logWithDigit(int digit, const char* component, const char* function, int line)
{
    return std::clog << (std::to_string(digit) + logHead(component, function, line));
}

/// @endcond

/** A pointer for a log line, as "0x..." text; never insert a raw pointer into std::clog. */
struct LogPointer {
    const void* pointer; ///< the pointer to write
};

/** Writes `value.pointer` as "0x" and lower-case hexadecimal digits, formatted apart from `stream`. */
inline std::ostream& operator<<(std::ostream& stream, LogPointer value)
{
    char text[2 + 2 * sizeof(void*) + 1];
    std::snprintf(text, sizeof text, "0x%jx",
                  static_cast<std::uintmax_t>(reinterpret_cast<std::uintptr_t>(value.pointer)));
    return stream << text;
}

} // namespace Tevara::Lumiflux::Internal

/** Starts a log line at `level` (a LogLevel), from `component` ("main ", ...): insert the text, then std::endl. */
#define LUMIFLUX_LOG(level, component)                                                                                 \
    ::Tevara::Lumiflux::Internal::logWithLevel((level), (component), __func__, __LINE__)

/** Starts a debug-only log line whose first character is `digit` (0, 1 or 2); insert the text, then std::endl. */
#define LUMIFLUX_LOG_DIGIT(digit, component)                                                                           \
    ::Tevara::Lumiflux::Internal::logWithDigit((digit), (component), __func__, __LINE__)
