#pragma once

// The running pipeline of one encoder or decoder, and how both hand results
// to their listener.

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include <gst/app/app.h>
#include <gst/gst.h>

#include <lumiflux/parameters.h>

#include "codec_catalog.h"
#include <lumiflux/gst_ref.h>
#include <lumiflux/log_line.h>

namespace Tevara::Lumiflux::GstCodecs {

/**
 * The pipeline of a started encoder or decoder (see buildPipeline()): start()
 * builds it and sets it playing, flush() empties it, stop() ends it. The
 * handlers run on GStreamer's streaming threads until stop() returns. Not
 * copyable: stop() must know whether it runs on one of its own pipeline's
 * streaming threads.
 */
class CodecPipeline {
public:
    /** What the pipeline reports, on its streaming threads. */
    struct Handlers {
        std::function<void(GstSample*)> sample;        ///< every sample the appsink receives
        std::function<void()> eos;                     ///< the end of the stream at the appsink
        std::function<void(const std::string&)> error; ///< an error message of any element
    };

    CodecPipeline() = default;
    ~CodecPipeline();
    CodecPipeline(const CodecPipeline&) = delete;
    CodecPipeline& operator=(const CodecPipeline&) = delete;

    /**
     * Builds the pipeline of `entry` (with its fixed properties), applies
     * `parameters` to the codec element, gives the appsrc `caps` and room
     * for `maxBuffers` queued buffers (pushing blocks beyond), and sets it
     * playing. False with `error` set, and nothing left running, on failure.
     * The handlers are kept with the pipeline until it is gone, so they must
     * not hold the codec itself (a weak reference).
     */
    bool start(const CodecEntry& entry, const Internal::ParameterSet& parameters, GstCaps* caps, guint64 maxBuffers,
               Handlers handlers, std::string* error);
    /** Drops whatever is queued in every element; the pipeline keeps playing. False when not started. */
    bool flush();
    /**
     * Joins the streaming threads (no handler runs once this returns) and
     * lets the pipeline go. Called from one of those threads (the codec
     * dropped from its own listener), it cannot wait for itself: the
     * pipeline then goes down on a thread of its own, and handlers that
     * still run find their codec gone.
     */
    void stop();

    explicit operator bool() const { return static_cast<bool>(pipeline); } ///< started
    GstElement* source() const { return appSource.get(); }                 ///< the appsrc, or null
    GstElement* codec() const { return codecElement.get(); }               ///< the codec element, or null

private:
    struct Shared;

    std::shared_ptr<Shared> shared;
    Internal::Ref<GstElement> pipeline;
    Internal::Ref<GstElement> appSource;
    Internal::Ref<GstElement> codecElement;
};

/**
 * Calls `call(*listener)` under `mutex` when there is a listener. Nothing may
 * unwind through GStreamer's streaming thread: an exception is logged against
 * codec `id` and dropped.
 */
template <typename Listener, typename Call>
void notifyListener(std::recursive_mutex& mutex, Listener* const& listener, const std::string& id, Call call)
{
    std::lock_guard<std::recursive_mutex> lock(mutex);
    if (listener == nullptr)
        return;
    try {
        call(*listener);
    } catch (...) {
        LUMIFLUX_LOG_DIGIT(2, "main ") << id << ": listener threw" << std::endl;
    }
}

/**
 * Handlers that reach `codec` (its deliver(), endOfStream() and
 * reportError()) while it exists. A handler holds the codec for the length
 * of its call, so that a listener may drop the application's last
 * reference (see GstCodecManager) from inside a call.
 */
template <typename Codec> CodecPipeline::Handlers weakHandlers(const std::weak_ptr<Codec>& codec)
{
    return {[codec](GstSample* sample) {
                if (auto held = codec.lock())
                    held->deliver(sample);
            },
            [codec] {
                if (auto held = codec.lock())
                    held->endOfStream();
            },
            [codec](const std::string& message) {
                if (auto held = codec.lock())
                    held->reportError(message);
            }};
}

} // namespace Tevara::Lumiflux::GstCodecs
