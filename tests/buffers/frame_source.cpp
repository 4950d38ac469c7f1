#include "frame_source.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include <gst/allocators/gstdmabuf.h>

namespace lumiflux_test {

SourceFrame makeFrame(GstVideoFormat format, int width, int height)
{
    gst_init(nullptr, nullptr);
    SourceFrame frame;
    gst_video_info_set_format(&frame.info, format, static_cast<guint>(width), static_cast<guint>(height));
    frame.buffer = Ref<GstBuffer>::adopt(gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&frame.info), nullptr));
    GstMapInfo map;
    if (gst_buffer_map(frame.buffer.get(), &map, GST_MAP_WRITE)) {
        std::uint32_t state = 0x9E3779B9u; // xorshift32
        for (gsize i = 0; i < map.size; ++i) {
            state ^= state << 13;
            state ^= state >> 17;
            state ^= state << 5;
            map.data[i] = static_cast<guint8>(state);
        }
        gst_buffer_unmap(frame.buffer.get(), &map);
    }
    GST_BUFFER_PTS(frame.buffer.get()) = GST_SECOND;
    return frame;
}

namespace {

// Rows and bytes per row of `plane`, from its first component.
int firstComponent(const GstVideoFrame& frame, int plane)
{
    gint components[GST_VIDEO_MAX_COMPONENTS];
    gst_video_format_info_component(frame.info.finfo, static_cast<guint>(plane), components);
    return components[0];
}
int planeRows(const GstVideoFrame& frame, int plane)
{
    return GST_VIDEO_FRAME_COMP_HEIGHT(&frame, firstComponent(frame, plane));
}
int planeRowBytes(const GstVideoFrame& frame, int plane)
{
    const int comp = firstComponent(frame, plane);
    return GST_VIDEO_FRAME_COMP_WIDTH(&frame, comp) * GST_VIDEO_FRAME_COMP_PSTRIDE(&frame, comp);
}

} // namespace

Ref<GstBuffer> paddedCopy(const SourceFrame& frame, int padding)
{
    GstVideoFrame source;
    GstVideoInfo info = frame.info;
    if (!gst_video_frame_map(&source, &info, frame.buffer.get(), GST_MAP_READ))
        return {};
    gsize offsets[GST_VIDEO_MAX_PLANES] = {};
    gint strides[GST_VIDEO_MAX_PLANES] = {};
    gsize size = 0;
    const guint planes = GST_VIDEO_FRAME_N_PLANES(&source);
    for (guint plane = 0; plane < planes; ++plane) {
        offsets[plane] = size;
        strides[plane] = GST_VIDEO_FRAME_PLANE_STRIDE(&source, plane) + padding;
        size += static_cast<gsize>(strides[plane]) * static_cast<gsize>(planeRows(source, static_cast<int>(plane)));
    }
    Ref<GstBuffer> copy = Ref<GstBuffer>::adopt(gst_buffer_new_allocate(nullptr, size, nullptr));
    gst_buffer_memset(copy.get(), 0, 0xEE, size);
    gst_buffer_add_video_meta_full(copy.get(), GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_INFO_FORMAT(&info),
                                   static_cast<guint>(GST_VIDEO_INFO_WIDTH(&info)),
                                   static_cast<guint>(GST_VIDEO_INFO_HEIGHT(&info)), planes, offsets, strides);
    GST_BUFFER_PTS(copy.get()) = GST_BUFFER_PTS(frame.buffer.get());
    GstVideoFrame target;
    if (gst_video_frame_map(&target, &info, copy.get(), GST_MAP_WRITE)) {
        if (!gst_video_frame_copy(&target, &source))
            copy.reset();
        gst_video_frame_unmap(&target);
    } else {
        copy.reset();
    }
    gst_video_frame_unmap(&source);
    return copy;
}

Ref<GstBuffer> dmaBufCopy(const SourceFrame& frame)
{
    const gsize size = gst_buffer_get_size(frame.buffer.get());
    const int fd = memfd_create("lumiflux-test-frame", MFD_CLOEXEC);
    if (fd < 0 || ftruncate(fd, static_cast<off_t>(size)) != 0) {
        if (fd >= 0)
            close(fd);
        return {};
    }
    Ref<GstAllocator> allocator = Ref<GstAllocator>::adopt(gst_dmabuf_allocator_new());
    Ref<GstBuffer> copy = Ref<GstBuffer>::adopt(gst_buffer_new());
    // The memory takes over the descriptor.
    gst_buffer_append_memory(copy.get(), gst_dmabuf_allocator_alloc(allocator.get(), fd, size));
    GstMapInfo source;
    if (!gst_buffer_map(frame.buffer.get(), &source, GST_MAP_READ))
        return {};
    const gsize written = gst_buffer_fill(copy.get(), 0, source.data, size);
    gst_buffer_unmap(frame.buffer.get(), &source);
    GST_BUFFER_PTS(copy.get()) = GST_BUFFER_PTS(frame.buffer.get());
    return written == size ? copy : Ref<GstBuffer>{};
}

::testing::AssertionResult samePlane(const std::uint8_t* data, int stride, const GstVideoFrame& reference, int plane)
{
    if (!data)
        return ::testing::AssertionFailure() << "plane " << plane << " has no data";
    const auto* expected = static_cast<const std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&reference, plane));
    const int expectedStride = GST_VIDEO_FRAME_PLANE_STRIDE(&reference, plane);
    const int bytes = planeRowBytes(reference, plane);
    for (int row = 0; row < planeRows(reference, plane); ++row)
        if (std::memcmp(data + row * stride, expected + row * expectedStride, static_cast<size_t>(bytes)) != 0)
            return ::testing::AssertionFailure() << "plane " << plane << " differs in row " << row;
    return ::testing::AssertionSuccess();
}

} // namespace lumiflux_test
