#include "quiet_log.h"

#include <cstdlib>
#include <iostream>
#include <streambuf>

#include <lumiflux/log.h>

namespace {

class DiscardBuffer : public std::streambuf {
protected:
    int_type overflow(int_type c) override { return traits_type::not_eof(c); }
    std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

} // namespace

void quietLogging()
{
    static DiscardBuffer discard;
    // Standard error rather than syslog, so LogInit() allocates no buffer that
    // the leak checker would see orphaned below; LogInit() runs first because
    // it runs only once and cannot put its own buffer back afterwards.
    setenv("LUMIFLUX_NO_SYSLOG", "1", 1);
    Tevara::Lumiflux::LogInit();
    std::clog.rdbuf(&discard);
}
