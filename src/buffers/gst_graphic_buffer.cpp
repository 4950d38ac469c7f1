#include <lumiflux/gst_graphic_buffer.h>

#include <gst/allocators/gstdmabuf.h>

#include "buffers/view_mapping.h"

namespace Tevara::Lumiflux {

namespace {

// Time a capture source stamps in wall-clock (Unix epoch) terms.
GstStaticCaps unixTimestampCaps = GST_STATIC_CAPS("timestamp/x-unix");

bool holdsDmaBuf(GstBuffer* buffer)
{
    if (gst_buffer_n_memory(buffer) == 0)
        return false;
    GstMemory* first = gst_buffer_peek_memory(buffer, 0);
    return first && gst_is_dmabuf_memory(first);
}

} // namespace

GstGraphicBuffer::GstGraphicBuffer(GstBuffer* gstBuffer, GstVideoInfo* videoInfo, bool copyDmaBuf, int rotation)
    : info(videoInfo), rotationDegrees(static_cast<std::uint16_t>(rotation))
{
    if (!gstBuffer)
        return;
    if (!videoInfo) {
        // An empty buffer, but one that still owns what it points at.
        buffer = gst_buffer_ref(gstBuffer);
        return;
    }
    // DMA-buf memory may be slow to read from the CPU or tied to a device
    // pool; a creator that hands frames to applications asks for a copy.
    if (copyDmaBuf && holdsDmaBuf(gstBuffer))
        buffer = gst_buffer_copy_deep(gstBuffer);
    else
        buffer = gst_buffer_ref(gstBuffer);
    if (!buffer)
        return; // the copy failed (memory that cannot be read): an empty buffer
    format = PixelFormat::YCbCrFlexible;

    if (GstVideoMeta* meta = gst_buffer_get_video_meta(buffer)) {
        // Bring the caller's information into line with the buffer's real
        // layout, so that mapping uses the padded strides of the producer.
        width = static_cast<std::uint16_t>(meta->width);
        height = static_cast<std::uint16_t>(meta->height);
        GST_VIDEO_INFO_WIDTH(info) = static_cast<gint>(meta->width);
        GST_VIDEO_INFO_HEIGHT(info) = static_cast<gint>(meta->height);
        for (guint plane = 0; plane < meta->n_planes && plane < GST_VIDEO_MAX_PLANES; ++plane) {
            GST_VIDEO_INFO_PLANE_OFFSET(info, plane) = meta->offset[plane];
            GST_VIDEO_INFO_PLANE_STRIDE(info, plane) = meta->stride[plane];
        }
    } else {
        width = static_cast<std::uint16_t>(GST_VIDEO_INFO_WIDTH(info));
        height = static_cast<std::uint16_t>(GST_VIDEO_INFO_HEIGHT(info));
    }

    GstCaps* unixCaps = gst_static_caps_get(&unixTimestampCaps);
    GstReferenceTimestampMeta* reference = gst_buffer_get_reference_timestamp_meta(buffer, unixCaps);
    gst_caps_unref(unixCaps);
    // The wall-clock time replaces the presentation time on purpose: views
    // mapped later read their timestamp from the buffer.
    if (reference)
        GST_BUFFER_PTS(buffer) = reference->timestamp;
    const GstClockTime pts = GST_BUFFER_PTS(buffer);
    if (GST_CLOCK_TIME_IS_VALID(pts))
        timestamp = static_cast<std::int64_t>(pts / 1000);
}

GstGraphicBuffer::GstGraphicBuffer(GstBuffer* gstBuffer, GstVideoInfo* videoInfo, bool copyDmaBuf)
    : GstGraphicBuffer(gstBuffer, videoInfo, copyDmaBuf, 0)
{
}

GstGraphicBuffer::GstGraphicBuffer(GstBuffer* gstBuffer, GstVideoInfo* videoInfo)
    : GstGraphicBuffer(gstBuffer, videoInfo, false, 0)
{
}

GstGraphicBuffer::~GstGraphicBuffer()
{
    if (buffer)
        gst_buffer_unref(buffer);
}

std::shared_ptr<YCbCrFrame> GstGraphicBuffer::mapYCbCr()
{
    if (!buffer || !info || format != PixelFormat::YCbCrFlexible)
        return {};
    return Internal::mapView<GstYCbCrFrame, YCbCrFrame>(buffer, info, nullptr);
}

std::shared_ptr<Frame> GstGraphicBuffer::mapFrame()
{
    if (!buffer || !info || format != PixelFormat::YCbCrFlexible)
        return {};
    return Internal::mapView<GstFrame, Frame>(buffer, info, nullptr);
}

int GstGraphicBuffer::rotation() const
{
    return rotationDegrees;
}

} // namespace Tevara::Lumiflux
