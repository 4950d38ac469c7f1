#include "player/http_answer_watch.h"

namespace Tevara::Lumiflux::Internal {

void HttpAnswerWatch::watch(GstElement* element)
{
    // The watch outlives every probe call: the player keeps it until the
    // source no longer streams, and a call that comes from a pad no longer
    // watched changes nothing.
    PadProbe probe(element, "src",
                   static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST |
                                                GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM | GST_PAD_PROBE_TYPE_EVENT_FLUSH),
                   &HttpAnswerWatch::onPadTraffic, this);
    PadProbe previous;
    {
        MutexLock lock(mutex);
        previous = std::exchange(traffic, std::move(probe));
        outstanding = false;
    }
    answered.notify_all();
}

void HttpAnswerWatch::release()
{
    PadProbe previous;
    {
        MutexLock lock(mutex);
        previous = std::move(traffic);
        outstanding = false;
    }
    answered.notify_all();
}

void HttpAnswerWatch::failed(GstObject* from)
{
    {
        MutexLock lock(mutex);
        // The watched source is the parent of the pad the probe sits on.
        GstPad* pad = traffic.padHandle();
        if (!pad || from != GST_OBJECT_PARENT(pad))
            return;
        outstanding = false;
    }
    answered.notify_all();
}

bool HttpAnswerWatch::waitForAnswer(std::chrono::steady_clock::time_point deadline)
{
    MutexLock lock(mutex);
    while (outstanding) {
        if (answered.wait_until(lock, deadline) == std::cv_status::timeout)
            return !outstanding;
    }
    return true;
}

namespace {

// What traffic on the source's pad says of its request: -1 nothing, 0
// answered (or given up), 1 sent and waiting for the answer.
int requestStateAfter(GstPadProbeInfo* info)
{
    if (!(GST_PAD_PROBE_INFO_TYPE(info) & GST_PAD_PROBE_TYPE_EVENT_BOTH))
        return 0; // data: the answer is being read
    GstEvent* event = GST_PAD_PROBE_INFO_EVENT(info);
    switch (GST_EVENT_TYPE(event)) {
    case GST_EVENT_STREAM_START:
    case GST_EVENT_FLUSH_STOP:
        // The source sends its request right after either of these.
        return 1;
    case GST_EVENT_EOS:
        return 0;
    case GST_EVENT_CUSTOM_DOWNSTREAM_STICKY: {
        // The source pushes the answer's headers once it holds the answer.
        const GstStructure* structure = gst_event_get_structure(event);
        return structure && gst_structure_has_name(structure, "http-headers") ? 0 : -1;
    }
    default:
        return -1;
    }
}

} // namespace

GstPadProbeReturn HttpAnswerWatch::onPadTraffic(GstPad* pad, GstPadProbeInfo* info, gpointer data)
{
    const int state = requestStateAfter(info);
    auto* self = static_cast<HttpAnswerWatch*>(data);
    if (state < 0 || self->outstanding.load() == (state == 1))
        return GST_PAD_PROBE_OK;
    {
        MutexLock lock(self->mutex);
        if (pad != self->traffic.padHandle() || self->outstanding == (state == 1))
            return GST_PAD_PROBE_OK;
        self->outstanding = state == 1;
    }
    if (state == 0)
        self->answered.notify_all();
    return GST_PAD_PROBE_OK;
}

} // namespace Tevara::Lumiflux::Internal
