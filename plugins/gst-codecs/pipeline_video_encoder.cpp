#include "pipeline_video_encoder.h"

#include <cstring>

#include <gst/app/app.h>

#include <lumiflux/gst_graphic_buffer.h>

#include "element_parameters.h"
#include "pipeline_util.h"
#include <lumiflux/log_line.h>

namespace Tevara::Lumiflux::GstCodecs {

PipelineVideoEncoder::PipelineVideoEncoder(Internal::BaseCodecManager* owner, const Internal::VideoCodecDesc& codec,
                                           const CodecEntry& codecEntry)
    : BaseVideoEncoder(owner, codec), entry(codecEntry)
{
    gst_video_info_init(&inputInfo);
    registerParameters(parameterSet, entry);
}

PipelineVideoEncoder::~PipelineVideoEncoder()
{
    // Stops the streaming threads before the base class gives the instance back.
    teardown();
}

bool PipelineVideoEncoder::configure(const VideoEncoderMetadata& newMetadata)
{
    if (!entry.encoder) {
        LUMIFLUX_LOG_DIGIT(2, "main ") << entry.id << " is a decoder" << std::endl;
        return false;
    }
    if (pipeline) {
        LUMIFLUX_LOG_DIGIT(2, "main ") << entry.id << ": configure while started" << std::endl;
        return false;
    }
    if (!supports(newMetadata)) {
        LUMIFLUX_LOG_DIGIT(2, "main ") << entry.id << ": cannot encode " << newMetadata.width << "x"
                                       << newMetadata.height << std::endl;
        return false;
    }
    GstVideoFormat format;
    if (newMetadata.format == PixelFormat::YUV420SemiPlanar)
        format = GST_VIDEO_FORMAT_NV12;
    else if (newMetadata.format == PixelFormat::YUV420Planar)
        format = GST_VIDEO_FORMAT_I420;
    else {
        LUMIFLUX_LOG_DIGIT(2, "main ") << entry.id << ": frames must be NV12 or I420, not "
                                       << toString(newMetadata.format) << std::endl;
        return false;
    }
    if (newMetadata.width <= 0 || newMetadata.height <= 0 || newMetadata.framerate <= 0 ||
        !gst_video_info_set_format(&inputInfo, format, static_cast<guint>(newMetadata.width),
                                   static_cast<guint>(newMetadata.height))) {
        LUMIFLUX_LOG_DIGIT(2, "main ") << entry.id << ": invalid frame size or rate" << std::endl;
        return false;
    }
    GST_VIDEO_INFO_FPS_N(&inputInfo) = newMetadata.framerate;
    GST_VIDEO_INFO_FPS_D(&inputInfo) = 1;
    metadata = newMetadata;
    configured = true;
    return true;
}

bool PipelineVideoEncoder::start()
{
    if (!configured || pipeline) {
        LUMIFLUX_LOG_DIGIT(2, "main ") << entry.id << (pipeline ? ": already started" : ": not configured")
                                       << std::endl;
        return false;
    }
    auto caps = Internal::Ref<GstCaps>::adopt(gst_video_info_to_caps(&inputInfo));
    frameCount = 0;
    pending = 0;
    std::string error;
    if (!pipeline.start(entry, parameterSet, caps.get(), 4, weakHandlers(weak_from_this()), &error)) {
        LUMIFLUX_LOG_DIGIT(2, "main ") << entry.id << ": " << error << std::endl;
        return false;
    }
    return true;
}

GstBuffer* PipelineVideoEncoder::inputBuffer(GraphicBuffer& frame)
{
    // Zero copy: a buffer that already holds this layout goes in as it is,
    // with its strides described by a video meta.
    if (auto* gstFrame = dynamic_cast<GstGraphicBuffer*>(&frame);
        gstFrame != nullptr && gstFrame->buffer != nullptr && gstFrame->info != nullptr &&
        GST_VIDEO_INFO_FORMAT(gstFrame->info) == GST_VIDEO_INFO_FORMAT(&inputInfo)) {
        GstBuffer* buffer = gst_buffer_copy_region(gstFrame->buffer, GST_BUFFER_COPY_ALL, 0, -1);
        if (gst_buffer_get_video_meta(buffer) == nullptr) {
            const GstVideoInfo* info = gstFrame->info;
            gst_buffer_add_video_meta_full(buffer, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_INFO_FORMAT(info),
                                           GST_VIDEO_INFO_WIDTH(info), GST_VIDEO_INFO_HEIGHT(info),
                                           GST_VIDEO_INFO_N_PLANES(info), const_cast<gsize*>(info->offset),
                                           const_cast<gint*>(info->stride));
        }
        return buffer;
    }

    auto view = frame.mapYCbCr();
    if (!view)
        return nullptr;
    GstBuffer* buffer = gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&inputInfo), nullptr);
    GstVideoFrame out;
    if (!gst_video_frame_map(&out, &inputInfo, buffer, GST_MAP_WRITE)) {
        gst_buffer_unref(buffer);
        return nullptr;
    }
    copyYCbCr(*view, &out);
    gst_video_frame_unmap(&out);
    return buffer;
}

bool PipelineVideoEncoder::encode(const std::shared_ptr<GraphicBuffer>& frame, bool forceKeyFrame)
{
    if (!pipeline) {
        LUMIFLUX_LOG_DIGIT(2, "main ") << entry.id << ": encode before start" << std::endl;
        return false;
    }
    if (!frame) {
        LUMIFLUX_LOG_DIGIT(2, "main ") << entry.id << ": encode without a frame" << std::endl;
        return false;
    }
    if (frame->width != metadata.width || frame->height != metadata.height) {
        LUMIFLUX_LOG_DIGIT(2, "main ") << entry.id << ": frame of " << frame->width << "x" << frame->height
                                       << " given to an encoder configured for " << metadata.width << "x"
                                       << metadata.height << std::endl;
        return false;
    }
    GstBuffer* buffer = inputBuffer(*frame);
    if (buffer == nullptr) {
        LUMIFLUX_LOG_DIGIT(2, "main ") << entry.id << ": the frame cannot be mapped as NV12 or I420" << std::endl;
        return false;
    }
    const GstClockTime duration = gst_util_uint64_scale_int(GST_SECOND, 1, metadata.framerate);
    GST_BUFFER_PTS(buffer) = frame->timestamp >= 0 ? static_cast<GstClockTime>(frame->timestamp) * GST_USECOND
                                                   : static_cast<GstClockTime>(frameCount) * duration;
    GST_BUFFER_DTS(buffer) = GST_CLOCK_TIME_NONE;
    GST_BUFFER_DURATION(buffer) = duration;
    ++frameCount;

    if (forceKeyFrame) {
        // Serialized with the buffers, so it applies to exactly this frame.
        GstEvent* event = gst_video_event_new_downstream_force_key_unit(GST_BUFFER_PTS(buffer), GST_CLOCK_TIME_NONE,
                                                                        GST_CLOCK_TIME_NONE, TRUE, 0);
        gst_element_send_event(pipeline.source(), event);
    }
    ++pending;
    const GstFlowReturn result = gst_app_src_push_buffer(GST_APP_SRC(pipeline.source()), buffer);
    if (result != GST_FLOW_OK) {
        --pending;
        LUMIFLUX_LOG_DIGIT(2, "main ") << entry.id << ": frame refused: " << gst_flow_get_name(result) << std::endl;
        return false;
    }
    return true;
}

void PipelineVideoEncoder::eos()
{
    if (pipeline)
        gst_app_src_end_of_stream(GST_APP_SRC(pipeline.source()));
}

bool PipelineVideoEncoder::flush()
{
    // Frames are given from the one application thread that also flushes,
    // so none is in flight once the pipeline has dropped its queue.
    const bool flushed = pipeline.flush();
    pending = 0;
    return flushed;
}

bool PipelineVideoEncoder::stop()
{
    if (!pipeline)
        return false;
    teardown();
    return true;
}

void PipelineVideoEncoder::teardown()
{
    pipeline.stop();
    pending = 0;
}

bool PipelineVideoEncoder::setParameter(unsigned id, const std::string& value)
{
    const ParameterBinding* binding = findBinding(entry, id);
    if (binding == nullptr || binding->kind == ParameterBinding::Kind::ReadOnly)
        return false;
    std::lock_guard<std::mutex> lock(parameterMutex);
    if (pipeline.codec() != nullptr && !changeableWhilePlaying(pipeline.codec(), binding->property)) {
        LUMIFLUX_LOG_DIGIT(2, "main ") << entry.id << ": parameter " << id << " cannot change while started"
                                       << std::endl;
        return false;
    }
    if (!parameterSet.set(id, value))
        return false;
    if (pipeline.codec() != nullptr)
        applyParameter(pipeline.codec(), parameterSet, *binding);
    return true;
}

std::string PipelineVideoEncoder::getParameter(unsigned id) const
{
    std::lock_guard<std::mutex> lock(parameterMutex);
    return parameterSet.get(id);
}

const Internal::ParameterSet& PipelineVideoEncoder::parameters() const
{
    return parameterSet;
}

int PipelineVideoEncoder::pendingFrames() const
{
    return pending.load();
}

void PipelineVideoEncoder::deliver(GstSample* sample)
{
    GstBuffer* buffer = gst_sample_get_buffer(sample);
    if (buffer == nullptr)
        return;
    {
        std::lock_guard<std::mutex> lock(parameterMutex);
        if (!profileKnown) {
            const std::string profile = capsField(gst_sample_get_caps(sample), "profile");
            if (!profile.empty())
                parameterSet.change(CodecParameter::Profile, profile);
            profileKnown = true;
        }
    }
    GstMapInfo map;
    if (!gst_buffer_map(buffer, &map, GST_MAP_READ))
        return;
    EncodedFrame frame;
    frame.data = map.data;
    frame.size = map.size;
    // Some encoders (x264) shift their output by an offset, which their
    // segment takes back: the stream time is the input frame's time.
    GstClockTime pts = GST_BUFFER_PTS(buffer);
    if (const GstSegment* segment = gst_sample_get_segment(sample); segment != nullptr && GST_CLOCK_TIME_IS_VALID(pts))
        pts = gst_segment_to_stream_time(segment, GST_FORMAT_TIME, pts);
    frame.timestamp = GST_CLOCK_TIME_IS_VALID(pts) ? static_cast<std::int64_t>(pts / 1000) : -1;
    frame.keyFrame = !GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
    if (pending > 0)
        --pending;
    notifyListener(listenerMutex, listener, entry.id, [&](VideoEncoderListener& l) { l.onEncodedFrame(frame); });
    gst_buffer_unmap(buffer, &map);
}

void PipelineVideoEncoder::endOfStream()
{
    pending = 0;
    notifyListener(listenerMutex, listener, entry.id, [](VideoEncoderListener& l) { l.onEncoderEos(); });
}

void PipelineVideoEncoder::reportError(const std::string& message)
{
    LUMIFLUX_LOG_DIGIT(2, "main ") << entry.id << ": " << message << std::endl;
    notifyListener(listenerMutex, listener, entry.id, [&](VideoEncoderListener& l) { l.onEncoderError(message); });
}

} // namespace Tevara::Lumiflux::GstCodecs
