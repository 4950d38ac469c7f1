#pragma once

// Ctrl-C and SIGTERM for commands that run until interrupted: the first
// signal asks the command to finish cleanly.

namespace lumiflux_tool {

/** Installs the handlers (once); later signals keep the default effect. */
void watchForInterrupt();
/** True once SIGINT or SIGTERM arrived. Safe from any thread. */
bool interrupted();

} // namespace lumiflux_tool
