#pragma once
// Buffers of pseudo-random pixels, packed or with padded rows in a video meta, and GStreamer's
// own mapping of a buffer as the oracle for what a view shows.
#include <cstdint>
#include <cstring>

#include <gst/gst.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <lumiflux/gst_ref.h>

namespace lumiflux_test {

using Tevara::Lumiflux::Internal::Ref;

struct SourceFrame {
    Ref<GstBuffer> buffer;
    GstVideoInfo info; ///< the tight layout GStreamer gives format and size
};

// With `padding`, rows of every plane are that much longer, described by a video meta. PTS 1 s.
inline SourceFrame makeFrame(GstVideoFormat format, int width, int height, int padding = 0)
{
    gst_init(nullptr, nullptr);
    SourceFrame frame;
    gst_video_info_set_format(&frame.info, format, static_cast<guint>(width), static_cast<guint>(height));
    const guint planes = GST_VIDEO_INFO_N_PLANES(&frame.info);
    gsize offsets[GST_VIDEO_MAX_PLANES] = {}, size = 0;
    gint strides[GST_VIDEO_MAX_PLANES] = {};
    for (guint p = 0; p < planes; ++p) {
        const gsize end = p + 1 < planes ? GST_VIDEO_INFO_PLANE_OFFSET(&frame.info, p + 1) : frame.info.size;
        const gsize rows = (end - GST_VIDEO_INFO_PLANE_OFFSET(&frame.info, p)) /
                           static_cast<gsize>(GST_VIDEO_INFO_PLANE_STRIDE(&frame.info, p));
        offsets[p] = size;
        strides[p] = GST_VIDEO_INFO_PLANE_STRIDE(&frame.info, p) + padding;
        size += rows * static_cast<gsize>(strides[p]);
    }
    frame.buffer = Ref<GstBuffer>::adopt(gst_buffer_new_allocate(nullptr, size, nullptr));
    GstMapInfo map;
    if (gst_buffer_map(frame.buffer.get(), &map, GST_MAP_WRITE)) {
        std::uint32_t state = 0x9E3779B9u; // xorshift32
        for (gsize i = 0; i < map.size; ++i) {
            state ^= state << 13, state ^= state >> 17, state ^= state << 5;
            map.data[i] = static_cast<guint8>(state);
        }
        gst_buffer_unmap(frame.buffer.get(), &map);
    }
    if (padding > 0)
        gst_buffer_add_video_meta_full(frame.buffer.get(), GST_VIDEO_FRAME_FLAG_NONE, format, static_cast<guint>(width),
                                       static_cast<guint>(height), planes, offsets, strides);
    GST_BUFFER_PTS(frame.buffer.get()) = GST_SECOND;
    return frame;
}

/** GStreamer's own mapping of a buffer (honouring its video meta). */
struct Reference {
    Reference(GstBuffer* buffer, GstVideoInfo videoInfo) : info(videoInfo)
    {
        mapped = gst_video_frame_map(&frame, &info, buffer, GST_MAP_READ);
    }
    ~Reference() { mapped ? gst_video_frame_unmap(&frame) : void(); }
    Reference(const Reference&) = delete;
    GstVideoInfo info;
    GstVideoFrame frame;
    bool mapped = false;
};

/** Whether the plane at `data` (rows `stride` apart) equals plane `plane` of `reference`. */
inline ::testing::AssertionResult samePlane(const std::uint8_t* data, int stride, const GstVideoFrame& reference,
                                            int plane)
{
    gint components[GST_VIDEO_MAX_COMPONENTS];
    gst_video_format_info_component(reference.info.finfo, static_cast<guint>(plane), components);
    const int bytes =
        GST_VIDEO_FRAME_COMP_WIDTH(&reference, components[0]) * GST_VIDEO_FRAME_COMP_PSTRIDE(&reference, components[0]);
    const auto* expected = static_cast<const std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&reference, plane));
    for (int row = 0; row < GST_VIDEO_FRAME_COMP_HEIGHT(&reference, components[0]); ++row)
        if (!data || std::memcmp(data + row * stride, expected + row * GST_VIDEO_FRAME_PLANE_STRIDE(&reference, plane),
                                 static_cast<size_t>(bytes)) != 0)
            return ::testing::AssertionFailure() << "plane " << plane << " differs in row " << row;
    return ::testing::AssertionSuccess();
}

inline int refCount(GstBuffer* buffer)
{
    return GST_MINI_OBJECT_REFCOUNT_VALUE(buffer);
}

} // namespace lumiflux_test
