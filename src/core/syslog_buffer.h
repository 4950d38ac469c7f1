#pragma once

#include <cstdint>
#include <mutex>
#include <streambuf>
#include <string>

namespace Tevara::Lumiflux::Internal {

/**
 * The stream buffer LogInit() installs on std::clog. It has no put area, so
 * every insertion reaches overflow() or xsputn(); a flush (std::endl) sends
 * the accumulated message to syslog as one record and resets the level to
 * Debug. Messages below minLevel are dropped as they arrive.
 */
class SysLogBuffer : public std::streambuf {
public:
    explicit SysLogBuffer(std::int32_t minimumLevel);
    ~SysLogBuffer() override;

    /** The syslog identifier this buffer was opened with. */
    const char* identifier() const { return ident; }
    /** Sets the level of the message being built. */
    void setLevel(std::int32_t newLevel);

protected:
    int sync() override;
    std::streamsize xsputn(const char* s, std::streamsize n) override;
    int_type overflow(int_type c) override;

private:
    std::string message;
    char ident[32];
    std::int32_t minLevel;
    std::int32_t level = 0;
    // Records from different threads may still interleave (the log is not
    // serialised); this lock only keeps the string itself intact.
    std::mutex guard;
};

} // namespace Tevara::Lumiflux::Internal
