#include <lumiflux/gst_graphic_buffer.h>

#include "buffers/owned_info_graphic_buffer.h"
#include <lumiflux/log_line.h>

namespace Tevara::Lumiflux {

namespace {

bool isFixedRawVideo(const GstCaps* caps)
{
    return caps && gst_caps_is_fixed(caps) && gst_structure_has_name(gst_caps_get_structure(caps, 0), "video/x-raw");
}

} // namespace

std::shared_ptr<GraphicBufferFactory> GraphicBufferFactory::fromCaps(const GstCaps* caps)
{
    if (!caps) {
        LUMIFLUX_LOG_DIGIT(2, "main ") << "no caps" << std::endl;
        return {};
    }
    if (!gst_caps_is_fixed(caps)) {
        LUMIFLUX_LOG_DIGIT(2, "main ") << "caps are not fixed" << std::endl;
        return {};
    }
    GstVideoInfo info;
    gst_video_info_init(&info);
    // The parser also accepts encoded video caps (format ENCODED), which have no planes to map.
    if (!isFixedRawVideo(caps) || !gst_video_info_from_caps(&info, caps)) {
        LUMIFLUX_LOG_DIGIT(2, "main ") << "caps are not raw video" << std::endl;
        return {};
    }
    return std::make_shared<GraphicBufferFactory>(Key{}, info);
}

std::shared_ptr<GraphicBufferFactory> GraphicBufferFactory::fromInfo(const GstVideoInfo& info)
{
    if (!info.finfo || GST_VIDEO_INFO_FORMAT(&info) == GST_VIDEO_FORMAT_UNKNOWN ||
        GST_VIDEO_INFO_FORMAT(&info) == GST_VIDEO_FORMAT_ENCODED) {
        LUMIFLUX_LOG_DIGIT(2, "main ") << "video information was never initialised" << std::endl;
        return {};
    }
    return std::make_shared<GraphicBufferFactory>(Key{}, info);
}

GraphicBufferFactory::GraphicBufferFactory(Key, const GstVideoInfo& info) : videoInfo(info) {}

std::shared_ptr<GraphicBuffer> GraphicBufferFactory::create(GstBuffer* buffer, bool copyDmaBuf, int rotation) const
{
    // A copy per buffer: the buffer's constructor writes its video-meta layout
    // into it, and buffers may be made on several threads at once.
    auto ownInfo = std::make_shared<GstVideoInfo>(videoInfo);
    // A producer whose buffers carry another layout than its caps announced
    // cannot be mapped with this information: hand out an empty buffer
    // rather than let the mapping fail inside GStreamer.
    if (buffer) {
        const GstVideoMeta* meta = gst_buffer_get_video_meta(buffer);
        if (meta && (meta->format != GST_VIDEO_INFO_FORMAT(&videoInfo) ||
                     meta->n_planes != GST_VIDEO_INFO_N_PLANES(&videoInfo))) {
            LUMIFLUX_LOG_DIGIT(2, "main ") << "buffer layout " << gst_video_format_to_string(meta->format)
                                           << " does not match the caps" << std::endl;
            buffer = nullptr;
        }
    }
    return std::make_shared<Internal::OwnedInfoGraphicBuffer>(std::move(ownInfo), buffer, copyDmaBuf, rotation);
}

const GstVideoInfo& GraphicBufferFactory::info() const
{
    return videoInfo;
}

bool GraphicBufferFactory::matches(const GstCaps* caps) const
{
    GstVideoInfo other;
    gst_video_info_init(&other);
    return isFixedRawVideo(caps) && gst_video_info_from_caps(&other, caps) &&
           gst_video_info_is_equal(&other, &videoInfo);
}

} // namespace Tevara::Lumiflux
