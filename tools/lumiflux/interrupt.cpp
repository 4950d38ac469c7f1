#include "interrupt.h"

#include <csignal>

namespace lumiflux_tool {

namespace {
volatile std::sig_atomic_t interruptSeen = 0;

void onSignal(int signal)
{
    interruptSeen = 1;
    // A second Ctrl-C ends the process the usual way.
    std::signal(signal, SIG_DFL);
}
} // namespace

void watchForInterrupt()
{
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
}

bool interrupted()
{
    return interruptSeen != 0;
}

} // namespace lumiflux_tool
