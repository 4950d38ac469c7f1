#pragma once

// What the frame hand-off keeps per track: the graphic-buffer factory made
// from the caps last negotiated for it. Frames keep their factory's video
// information alive themselves, so replacing the factory on a caps change, or
// the whole list on a new stream collection, never invalidates a frame the
// application still holds.

#include <memory>

#include <lumiflux/gst_graphic_buffer.h>

#include "core/thread_safety.h"

namespace Tevara::Lumiflux {

struct SinkEntry {
    Internal::Mutex mutex; // a leaf lock
    std::shared_ptr<GraphicBufferFactory> factory LUMIFLUX_GUARDED_BY(mutex);
};

} // namespace Tevara::Lumiflux
