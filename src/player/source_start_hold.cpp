#include "player/source_start_hold.h"

#include <utility>

namespace Tevara::Lumiflux::Internal {

namespace {

GstPadProbeReturn keepBlocked(GstPad*, GstPadProbeInfo*, gpointer)
{
    return GST_PAD_PROBE_OK;
}

} // namespace

void SourceStartHold::hold(GstElement* source)
{
    // Pushed data only: a pulling peer (type finding in pull mode) must never
    // be blocked, it pulls from the state change itself. A source taken down
    // while held is released by its own deactivation.
    PadProbe probe(source, "src",
                   static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BLOCK | GST_PAD_PROBE_TYPE_PUSH |
                                                GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST),
                   &keepBlocked, nullptr);
    PadProbe previous;
    {
        MutexLock lock(mutex);
        previous = std::exchange(block, std::move(probe));
    }
}

void SourceStartHold::release()
{
    PadProbe held;
    {
        MutexLock lock(mutex);
        held = std::move(block);
    }
}

} // namespace Tevara::Lumiflux::Internal
