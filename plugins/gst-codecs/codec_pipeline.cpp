#include "codec_pipeline.h"

#include "element_parameters.h"
#include "pipeline_util.h"

namespace Tevara::Lumiflux::GstCodecs {

CodecPipeline::~CodecPipeline()
{
    stop();
}

bool CodecPipeline::start(const CodecEntry& entry, const Internal::ParameterSet& parameters, GstCaps* caps,
                          guint64 maxBuffers, Handlers newHandlers, std::string* error)
{
    PipelineParts parts;
    if (!buildPipeline(entry, &parts, error) || !applyParameters(parts.codec.get(), parameters, entry, error))
        return false;
    for (const auto& property : entry.fixedProperties)
        gst_util_set_object_arg(G_OBJECT(parts.codec.get()), property.first.c_str(), property.second.c_str());

    g_object_set(parts.source.get(), "caps", caps, "format", GST_FORMAT_TIME, "is-live", FALSE, "block", TRUE,
                 "max-buffers", maxBuffers, nullptr);
    handlers = std::move(newHandlers);
    GstAppSinkCallbacks callbacks{};
    callbacks.new_sample = &CodecPipeline::onNewSample;
    callbacks.eos = &CodecPipeline::onEos;
    // The callbacks and the bus handler end with the pipeline, in stop().
    gst_app_sink_set_callbacks(GST_APP_SINK(parts.sink.get()), &callbacks, this, nullptr);
    watchBus(parts.pipeline.get(), &CodecPipeline::onBusMessage, this);

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
    // Joins the streaming threads: no callback runs after this.
    gst_element_set_state(pipeline.get(), GST_STATE_NULL);
    unwatchBus(pipeline.get());
    codecElement.reset();
    appSource.reset();
    pipeline.reset();
}

GstFlowReturn CodecPipeline::onNewSample(GstAppSink* sink, gpointer self)
{
    auto sample = Internal::Ref<GstSample>::adopt(gst_app_sink_pull_sample(sink));
    if (sample)
        static_cast<CodecPipeline*>(self)->handlers.sample(sample.get());
    return GST_FLOW_OK;
}

void CodecPipeline::onEos(GstAppSink*, gpointer self)
{
    static_cast<CodecPipeline*>(self)->handlers.eos();
}

GstBusSyncReply CodecPipeline::onBusMessage(GstBus*, GstMessage* message, gpointer self)
{
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR)
        static_cast<CodecPipeline*>(self)->handlers.error(errorText(message));
    // Nobody pops this bus: every message ends here.
    return GST_BUS_DROP;
}

} // namespace Tevara::Lumiflux::GstCodecs
