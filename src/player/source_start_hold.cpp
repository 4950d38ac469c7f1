#include "player/source_start_hold.h"

#include <utility>

namespace Tevara::Lumiflux::Internal {

namespace {

GstPadProbeReturn keepBlocked(GstPad*, GstPadProbeInfo*, gpointer)
{
    return GST_PAD_PROBE_OK;
}

} // namespace

SourceStartHold::~SourceStartHold()
{
    release();
}

void SourceStartHold::hold(GstElement* source)
{
    release();
    Ref<GstPad> sourcePad = Ref<GstPad>::adopt(gst_element_get_static_pad(source, "src"));
    if (!sourcePad)
        return;
    // Pushed data only: a pulling peer (type finding in pull mode) must never
    // be blocked, it pulls from the state change itself. A source taken down
    // while held is released by its own deactivation.
    const gulong id =
        gst_pad_add_probe(sourcePad.get(),
                          static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BLOCK | GST_PAD_PROBE_TYPE_PUSH |
                                                       GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST),
                          &keepBlocked, nullptr, nullptr);
    std::lock_guard<std::mutex> lock(mutex);
    pad = std::move(sourcePad);
    probe = id;
}

void SourceStartHold::release()
{
    Ref<GstPad> heldPad;
    gulong id = 0;
    {
        std::lock_guard<std::mutex> lock(mutex);
        heldPad = std::move(pad);
        id = std::exchange(probe, 0);
    }
    if (heldPad && id)
        gst_pad_remove_probe(heldPad.get(), id);
}

} // namespace Tevara::Lumiflux::Internal
