#pragma once

// The one owner of the pipeline's elements. The player thread builds a
// pipeline whole (playbin, bus, output bin with its converter and fake video
// sink, audio sink) and publishes it only once nothing can fail any more;
// elements that GStreamer makes while the pipeline runs (the HTTP source, an
// adaptive demuxer, the PulseAudio sink used for muting) are handed over by
// the streaming threads that see them. Every element is held with a
// reference of its own, so a reader on any thread gets a reference too and
// never an element that may be freed under it.

#include <gst/gst.h>

#include "core/thread_safety.h"
#include <lumiflux/gst_ref.h>

namespace Tevara::Lumiflux::Internal {

// playbin3's "flags" (GstPlayFlags, which its headers do not install).
inline constexpr guint kPlayFlagVideo = 1u << 0;
inline constexpr guint kPlayFlagAudio = 1u << 1;
inline constexpr guint kPlayFlagBuffering = 1u << 8;

class PipelineOwner {
public:
    /** What createPipeline builds, as one piece. */
    struct Built {
        Ref<GstElement> playbin;
        Ref<GstBus> bus;
        Ref<GstElement> audioSink;
        Ref<GstElement> outputBin;
        Ref<GstElement> videoconvert;
        Ref<GstElement> fakeVideoSink;
    };
    /** Everything held, handed back whole by takeDown(). */
    struct Held {
        Built built;
        Ref<GstElement> httpSource;
        Ref<GstElement> adaptiveDemuxer;
        Ref<GstElement> audioMuteElement;
    };

    PipelineOwner() = default;
    PipelineOwner(const PipelineOwner&) = delete;
    PipelineOwner& operator=(const PipelineOwner&) = delete;

    /** Player thread: makes a complete pipeline the current one. */
    void publish(Built&& built) LUMIFLUX_EXCLUDES(mutex);
    /** Player thread: lets go of the pipeline; the caller drops what it returns. */
    Held takeDown() LUMIFLUX_EXCLUDES(mutex);

    // Handed over by streaming threads, each in place of the one before.
    void setHttpSource(GstElement* element) LUMIFLUX_EXCLUDES(mutex);
    void setAdaptiveDemuxer(GstElement* element) LUMIFLUX_EXCLUDES(mutex);
    void setAudioMuteElement(GstElement* element) LUMIFLUX_EXCLUDES(mutex);

    // Any thread: a reference of the caller's own, or none.
    Ref<GstElement> playbin() const LUMIFLUX_EXCLUDES(mutex);
    Ref<GstElement> fakeVideoSink() const LUMIFLUX_EXCLUDES(mutex);
    Ref<GstElement> httpSource() const LUMIFLUX_EXCLUDES(mutex);
    Ref<GstElement> adaptiveDemuxer() const LUMIFLUX_EXCLUDES(mutex);
    Ref<GstElement> audioMuteElement() const LUMIFLUX_EXCLUDES(mutex);
    /** The HTTP source, no longer held here (it is taken down first). */
    Ref<GstElement> takeHttpSource() LUMIFLUX_EXCLUDES(mutex);

private:
    // A leaf lock: nothing is called out while it is held, and references
    // are dropped only after it is released (a last unref may finalise).
    mutable Mutex mutex;
    Held held LUMIFLUX_GUARDED_BY(mutex);
};

} // namespace Tevara::Lumiflux::Internal
