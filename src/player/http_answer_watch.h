#pragma once

// Knows whether an HTTP source has a request out that the server has not
// answered yet, and lets the player wait for that answer before it flushes
// the source or takes it down.
//
// Why: GStreamer 1.22's HTTP source cancels its request when it is flushed
// or stopped. When the answer's headers are being read at that moment,
// libsoup 3.2 closes the response stream after it has already dropped the
// message's I/O state, and the process crashes on the source's session
// thread. Once the answer has been handed over, cancelling is harmless, and
// a server that does not answer at all is cancelled safely as well (nothing
// is being read): the player waits a short, bounded time and then goes on.

#include <atomic>
#include <chrono>

#include <gst/gst.h>

#include "core/pad_probe.h"
#include "core/thread_safety.h"

namespace Tevara::Lumiflux::Internal {

class HttpAnswerWatch {
public:
    HttpAnswerWatch() = default;
    HttpAnswerWatch(const HttpAnswerWatch&) = delete;
    HttpAnswerWatch& operator=(const HttpAnswerWatch&) = delete;

    /**
     * Watches `source` from now on, in place of any source watched before.
     * Its requests count as unanswered from the start of each stream or
     * flush until its first data, its headers event, its end of stream or
     * an error it posts.
     */
    void watch(GstElement* source);
    /** Stops watching. Call once no thread streams through the source. */
    void release();
    /** The source posted an error: nothing is read any more. */
    void failed(GstObject* from);
    /**
     * Waits until the watched source has no unanswered request or until
     * `deadline`. True when nothing is outstanding any more.
     */
    bool waitForAnswer(std::chrono::steady_clock::time_point deadline);

private:
    static GstPadProbeReturn onPadTraffic(GstPad* pad, GstPadProbeInfo* info, gpointer watch);

    Mutex mutex; // a leaf lock
    ConditionVariable answered;
    PadProbe traffic LUMIFLUX_GUARDED_BY(mutex);
    // Written under the mutex; read without it by the probe, which sees
    // every buffer and returns at once while nothing changes.
    std::atomic<bool> outstanding{false};
};

} // namespace Tevara::Lumiflux::Internal
