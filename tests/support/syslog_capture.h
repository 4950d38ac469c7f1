#pragma once
// Captures what the library sends to syslog. The test program defines openlog() and syslog() itself; the dynamic
// linker binds the library's calls to these definitions ahead of the C library's, so every record is seen.
#include <string>
#include <vector>

namespace lumiflux_test {

struct SyslogRecord {
    int priority;
    std::string text;
};

struct OpenlogCall {
    std::string ident;
    int option, facility;
};

std::vector<SyslogRecord> syslogRecords();
std::vector<OpenlogCall> openlogCalls();
void clearSyslog();
std::vector<SyslogRecord> syslogRecordsContaining(const std::string& needle);

} // namespace lumiflux_test
