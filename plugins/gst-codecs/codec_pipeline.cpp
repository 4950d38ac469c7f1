#include "codec_pipeline.h"

#include <thread>

#include "element_parameters.h"
#include "pipeline_util.h"

namespace Tevara::Lumiflux::GstCodecs {

// What GStreamer calls back into: held by the appsink's callbacks and the
// bus handler, so it outlives the codec when the pipeline goes down late.
struct CodecPipeline::Shared {
    Handlers handlers;
    // Valid for as long as the bus handler is installed.
    GstElement* source = nullptr;

    // The Shared whose handler this thread is running, if any.
    static thread_local const Shared* running;

    template <typename Call> void run(Call call)
    {
        const Shared* outer = running;
        running = this;
        call(handlers);
        running = outer;
    }

    static GstFlowReturn onNewSample(GstAppSink* sink, gpointer data)
    {
        auto sample = Internal::Ref<GstSample>::adopt(gst_app_sink_pull_sample(sink));
        if (sample)
            holder(data)->run([&](Handlers& h) { h.sample(sample.get()); });
        return GST_FLOW_OK;
    }
    static void onEos(GstAppSink*, gpointer data)
    {
        holder(data)->run([](Handlers& h) { h.eos(); });
    }
    static GstBusSyncReply onBusMessage(GstBus*, GstMessage* message, gpointer data)
    {
        if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
            // The stream has stopped and takes nothing more: a push waiting
            // for room in the source's queue would wait for ever. A new
            // limit wakes it.
            g_object_set(holder(data)->source, "block", FALSE, "max-buffers", static_cast<guint64>(0), nullptr);
            holder(data)->run([&](Handlers& h) { h.error(errorText(message)); });
        }
        // Nobody pops this bus: every message ends here.
        return GST_BUS_DROP;
    }

    // Each registration owns one reference, dropped with the registration.
    static gpointer newReference(const std::shared_ptr<Shared>& shared) { return new std::shared_ptr<Shared>(shared); }
    static void dropReference(gpointer data) { delete static_cast<std::shared_ptr<Shared>*>(data); }
    static Shared* holder(gpointer data) { return static_cast<std::shared_ptr<Shared>*>(data)->get(); }
};

thread_local const CodecPipeline::Shared* CodecPipeline::Shared::running = nullptr;

CodecPipeline::~CodecPipeline()
{
    stop();
}

bool CodecPipeline::start(const CodecEntry& entry, const Internal::ParameterSet& parameters, GstCaps* caps,
                          guint64 maxBuffers, Handlers handlers, std::string* error)
{
    PipelineParts parts;
    if (!buildPipeline(entry, &parts, error) || !applyParameters(parts.codec.get(), parameters, entry, error))
        return false;

    g_object_set(parts.source.get(), "caps", caps, "format", GST_FORMAT_TIME, "is-live", FALSE, "block", TRUE,
                 "max-buffers", maxBuffers, nullptr);
    shared = std::make_shared<Shared>();
    shared->handlers = std::move(handlers);
    shared->source = parts.source.get();
    GstAppSinkCallbacks callbacks{};
    callbacks.new_sample = &Shared::onNewSample;
    callbacks.eos = &Shared::onEos;
    // Both registrations end with the pipeline, releasing their reference.
    gst_app_sink_set_callbacks(GST_APP_SINK(parts.sink.get()), &callbacks, Shared::newReference(shared),
                               &Shared::dropReference);
    auto bus = Internal::Ref<GstBus>::adopt(gst_element_get_bus(parts.pipeline.get()));
    gst_bus_set_sync_handler(bus.get(), &Shared::onBusMessage, Shared::newReference(shared), &Shared::dropReference);

    pipeline = parts.pipeline;
    appSource = parts.source;
    codecElement = parts.codec;
    if (gst_element_set_state(pipeline.get(), GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        *error = "the pipeline does not start";
        stop();
        return false;
    }
    return true;
}

bool CodecPipeline::flush()
{
    if (!pipeline)
        return false;
    // Back to READY drops whatever is queued in every element; the stream
    // then starts afresh with the next input.
    gst_element_set_state(pipeline.get(), GST_STATE_READY);
    return gst_element_set_state(pipeline.get(), GST_STATE_PLAYING) != GST_STATE_CHANGE_FAILURE;
}

void CodecPipeline::stop()
{
    if (!pipeline)
        return;
    auto ending = std::move(pipeline);
    codecElement.reset();
    appSource.reset();
    const bool onOwnThread = Shared::running != nullptr && Shared::running == shared.get();
    shared.reset();
    auto takeDown = [](Internal::Ref<GstElement> taken) {
        // Joins the streaming threads: no handler runs after this.
        gst_element_set_state(taken.get(), GST_STATE_NULL);
        unwatchBus(taken.get());
    };
    if (onOwnThread)
        std::thread(takeDown, std::move(ending)).detach();
    else
        takeDown(std::move(ending));
}

} // namespace Tevara::Lumiflux::GstCodecs
