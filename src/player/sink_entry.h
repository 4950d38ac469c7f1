#pragma once

// What the frame hand-off keeps per track: the caps last negotiated and what
// was derived from them. Shared by pointer so that a frame being handed off
// keeps its entry's data alive while a new stream collection replaces the
// list.

#include <mutex>

#include <gst/gst.h>

#include "core/glib_ref.h"

namespace Tevara::Lumiflux {

struct SinkEntry {
    std::mutex mutex;
    Internal::Ref<GstCaps> caps;
};

} // namespace Tevara::Lumiflux
