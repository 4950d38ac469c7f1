#pragma once

// A probe on an element's pad, removed when its owner lets go of it.

#include <utility>

#include <gst/gst.h>

#include <lumiflux/gst_ref.h>

namespace Tevara::Lumiflux::Internal {

class PadProbe {
public:
    PadProbe() = default;
    /** Adds `callback` on `element`'s static pad `padName`; empty when there is no such pad. */
    PadProbe(GstElement* element, const char* padName, GstPadProbeType mask, GstPadProbeCallback callback,
             gpointer data)
        : pad(Ref<GstPad>::adopt(gst_element_get_static_pad(element, padName)))
    {
        if (pad)
            id = gst_pad_add_probe(pad.get(), mask, callback, data, nullptr);
    }
    PadProbe(PadProbe&& other) noexcept : pad(std::move(other.pad)), id(std::exchange(other.id, 0)) {}
    PadProbe& operator=(PadProbe&& other) noexcept
    {
        if (this != &other) {
            reset();
            pad = std::move(other.pad);
            id = std::exchange(other.id, 0);
        }
        return *this;
    }
    PadProbe(const PadProbe&) = delete;
    PadProbe& operator=(const PadProbe&) = delete;
    ~PadProbe() { reset(); }

    /** Removes the probe. A call already running on a streaming thread may still finish. */
    void reset()
    {
        if (pad && id)
            gst_pad_remove_probe(pad.get(), id);
        id = 0;
        pad.reset();
    }
    GstPad* padHandle() const { return pad.get(); }
    explicit operator bool() const { return id != 0; }

private:
    Ref<GstPad> pad;
    gulong id = 0;
};

} // namespace Tevara::Lumiflux::Internal
