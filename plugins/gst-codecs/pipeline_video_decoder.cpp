#include "pipeline_video_decoder.h"

#include <cstring>

#include "element_parameters.h"
#include "pipeline_util.h"
#include <lumiflux/log_line.h>

namespace Tevara::Lumiflux::GstCodecs {

PipelineVideoDecoder::PipelineVideoDecoder(Internal::BaseCodecManager* owner, const Internal::VideoCodecDesc& codec,
                                           const CodecEntry& codecEntry)
    : BaseVideoDecoder(owner, codec), entry(codecEntry)
{
    registerParameters(parameterSet, entry);
}

PipelineVideoDecoder::~PipelineVideoDecoder()
{
    // Stops the streaming threads before the base class gives the instance back.
    teardown();
}

bool PipelineVideoDecoder::configure(const VideoDecoderMetadata& newMetadata)
{
    if (entry.encoder) {
        LUMIFLUX_LOG_DIGIT(2, "main ") << entry.id << " is an encoder" << std::endl;
        return false;
    }
    if (pipeline) {
        LUMIFLUX_LOG_DIGIT(2, "main ") << entry.id << ": configure while started" << std::endl;
        return false;
    }
    // Zero sizes mean "learn them from the stream"; given sizes must fit.
    if (newMetadata.codecType != getInfo().type ||
        (newMetadata.width != 0 && newMetadata.height != 0 && !supports(newMetadata))) {
        LUMIFLUX_LOG_DIGIT(2, "main ") << entry.id << ": cannot decode this stream" << std::endl;
        return false;
    }
    metadata = newMetadata;
    configured = true;
    return true;
}

bool PipelineVideoDecoder::start()
{
    if (!configured || pipeline) {
        LUMIFLUX_LOG_DIGIT(2, "main ") << entry.id << (pipeline ? ": already started" : ": not configured")
                                       << std::endl;
        return false;
    }
    auto caps = Internal::Ref<GstCaps>::adopt(gst_caps_from_string(entry.encodedCaps.c_str()));
    caps = Internal::Ref<GstCaps>::adopt(gst_caps_make_writable(caps.release()));
    if (metadata.width > 0 && metadata.height > 0)
        gst_caps_set_simple(caps.get(), "width", G_TYPE_INT, metadata.width, "height", G_TYPE_INT, metadata.height,
                            nullptr);
    if (metadata.framerate > 0)
        gst_caps_set_simple(caps.get(), "framerate", GST_TYPE_FRACTION, metadata.framerate, 1, nullptr);
    profileKnown = false;
    unitsGiven = 0;
    framesDelivered = 0;
    failed = false;
    std::string error;
    if (!pipeline.start(entry, parameterSet, caps.get(), 8, weakHandlers(weak_from_this()), &error)) {
        LUMIFLUX_LOG_DIGIT(2, "main ") << entry.id << ": " << error << std::endl;
        return false;
    }
    return true;
}

bool PipelineVideoDecoder::decode(const std::uint8_t* data, std::size_t size, std::int64_t timestamp)
{
    if (!pipeline) {
        LUMIFLUX_LOG_DIGIT(2, "main ") << entry.id << ": decode before start" << std::endl;
        return false;
    }
    if (data == nullptr || size == 0) {
        LUMIFLUX_LOG_DIGIT(2, "main ") << entry.id << ": decode without data" << std::endl;
        return false;
    }
    GstBuffer* buffer = gst_buffer_new_memdup(data, size);
    GST_BUFFER_PTS(buffer) = timestamp >= 0 ? static_cast<GstClockTime>(timestamp) * GST_USECOND : GST_CLOCK_TIME_NONE;
    ++unitsGiven;
    const GstFlowReturn result = gst_app_src_push_buffer(GST_APP_SRC(pipeline.source()), buffer);
    if (result != GST_FLOW_OK) {
        LUMIFLUX_LOG_DIGIT(2, "main ") << entry.id << ": unit refused: " << gst_flow_get_name(result) << std::endl;
        return false;
    }
    return true;
}

bool PipelineVideoDecoder::drain()
{
    if (!pipeline)
        return false;
    return gst_app_src_end_of_stream(GST_APP_SRC(pipeline.source())) == GST_FLOW_OK;
}

bool PipelineVideoDecoder::flush()
{
    return pipeline.flush();
}

bool PipelineVideoDecoder::stop()
{
    if (!pipeline)
        return false;
    teardown();
    return true;
}

void PipelineVideoDecoder::teardown()
{
    pipeline.stop();
    factory.reset();
    factoryCaps.reset();
}

bool PipelineVideoDecoder::setParameter(unsigned id, const std::string& value)
{
    const ParameterBinding* binding = findBinding(entry, id);
    if (binding == nullptr || binding->kind == ParameterBinding::Kind::ReadOnly || pipeline)
        return false;
    std::lock_guard<std::mutex> lock(parameterMutex);
    return parameterSet.set(id, value);
}

std::string PipelineVideoDecoder::getParameter(unsigned id) const
{
    std::lock_guard<std::mutex> lock(parameterMutex);
    return parameterSet.get(id);
}

const Internal::ParameterSet& PipelineVideoDecoder::parameters() const
{
    return parameterSet;
}

void PipelineVideoDecoder::deliver(GstSample* sample)
{
    GstCaps* caps = gst_sample_get_caps(sample);
    GstBuffer* buffer = gst_sample_get_buffer(sample);
    if (caps == nullptr || buffer == nullptr)
        return;
    if (!factory || !factoryCaps || !gst_caps_is_equal(caps, factoryCaps.get())) {
        factory = GraphicBufferFactory::fromCaps(caps);
        factoryCaps = Internal::Ref<GstCaps>::share(caps);
    }
    if (!factory)
        return;
    {
        std::lock_guard<std::mutex> lock(parameterMutex);
        if (!profileKnown && pipeline.codec() != nullptr) {
            // The profile is in the parser's output caps, the codec element's input.
            auto pad = Internal::Ref<GstPad>::adopt(gst_element_get_static_pad(pipeline.codec(), "sink"));
            auto padCaps = Internal::Ref<GstCaps>::adopt(pad ? gst_pad_get_current_caps(pad.get()) : nullptr);
            const std::string profile = capsField(padCaps.get(), "profile");
            if (!profile.empty())
                parameterSet.change(CodecParameter::Profile, profile);
            profileKnown = true;
        }
    }
    // Zero copy: the graphic buffer holds a reference on the sink's buffer.
    std::shared_ptr<GraphicBuffer> frame = factory->create(buffer);
    ++framesDelivered;
    notifyListener(listenerMutex, listener, entry.id, [&](VideoDecoderListener& l) { l.onDecodedFrame(frame); });
}

void PipelineVideoDecoder::endOfStream()
{
    // A decoder that swallowed input without producing a single frame (a
    // parser drops what it cannot frame) did fail, even if no element said so.
    if (unitsGiven > 0 && framesDelivered == 0 && !failed)
        reportError("no frame could be decoded from " + std::to_string(unitsGiven.load()) + " input units");
    notifyListener(listenerMutex, listener, entry.id, [](VideoDecoderListener& l) { l.onDecoderEos(); });
}

void PipelineVideoDecoder::reportError(const std::string& message)
{
    failed = true;
    LUMIFLUX_LOG_DIGIT(2, "main ") << entry.id << ": " << message << std::endl;
    notifyListener(listenerMutex, listener, entry.id, [&](VideoDecoderListener& l) { l.onDecoderError(message); });
}

} // namespace Tevara::Lumiflux::GstCodecs
