#pragma once

// Frames for the buffer tests: GStreamer buffers of pseudo-random pixels in
// the layout GStreamer gives a format and size, and copies of them in layouts
// no ordinary source produces (padded strides, DMA-buf memory).

#include <cstdint>

#include <gst/gst.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <lumiflux/gst_ref.h>

namespace lumiflux_test {

using Tevara::Lumiflux::Internal::Ref;

/** One frame and its video information. */
struct SourceFrame {
    Ref<GstBuffer> buffer;
    GstVideoInfo info;
};

/** A frame of pseudo-random pixels, presentation time one second. */
SourceFrame makeFrame(GstVideoFormat format, int width, int height);

/**
 * A copy of `frame` in a fresh buffer whose rows are `padding` bytes longer
 * than needed on every plane, described by a GstVideoMeta. Same pixels and
 * presentation time.
 */
Ref<GstBuffer> paddedCopy(const SourceFrame& frame, int padding);

/** A copy of `frame` in DMA-buf memory over a memfd (no video meta), same presentation time. */
Ref<GstBuffer> dmaBufCopy(const SourceFrame& frame);

/** GStreamer's own mapping of a buffer, as the oracle for what a view shows. */
struct Reference {
    Reference(GstBuffer* buffer, const GstVideoInfo& videoInfo) : info(videoInfo)
    {
        mapped = gst_video_frame_map(&frame, &info, buffer, GST_MAP_READ);
    }
    ~Reference()
    {
        if (mapped)
            gst_video_frame_unmap(&frame);
    }
    Reference(const Reference&) = delete;
    Reference& operator=(const Reference&) = delete;
    GstVideoInfo info;
    GstVideoFrame frame;
    bool mapped = false;
};

/** Whether the plane at `data` (rows `stride` apart) equals plane `plane` of `reference`. */
::testing::AssertionResult samePlane(const std::uint8_t* data, int stride, const GstVideoFrame& reference, int plane);

/** The reference count of a buffer, as GStreamer keeps it. */
inline int refCount(GstBuffer* buffer)
{
    return GST_MINI_OBJECT_REFCOUNT_VALUE(buffer);
}

} // namespace lumiflux_test
