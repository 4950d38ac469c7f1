#pragma once

// Holds back the data of a source that pushes as soon as it starts, until the
// pipeline's state change has reached every element.
//
// Why: GStreamer 1.22's URI decoding bin moves its source bin to PAUSED
// before its decoding bin. A descriptor source starts pushing at once, and
// when its data reaches the decoding bin's queue before that bin is active,
// the push fails as "flushing": the source pauses without an error and the
// preroll never ends. Held until the player's state change returns, the data
// only meets active elements.

#include <gst/gst.h>

#include "core/pad_probe.h"
#include "core/thread_safety.h"

namespace Tevara::Lumiflux::Internal {

class SourceStartHold {
public:
    SourceStartHold() = default;
    SourceStartHold(const SourceStartHold&) = delete;
    SourceStartHold& operator=(const SourceStartHold&) = delete;

    /** Holds the data `source` pushes from now on, in place of any source held before. */
    void hold(GstElement* source);
    /** Lets the held data through; nothing is held afterwards. */
    void release();

private:
    Mutex mutex; // a leaf lock
    PadProbe block LUMIFLUX_GUARDED_BY(mutex);
};

} // namespace Tevara::Lumiflux::Internal
