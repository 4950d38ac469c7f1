#pragma once

// Real frames for the buffer tests: pulled from GStreamer pipelines, then
// repacked where a test needs a layout no source produces (padded strides,
// DMA-buf memory).

#include <cstdint>
#include <string>

#include <gst/gst.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include "core/glib_ref.h"

namespace lumiflux_test {

using Tevara::Lumiflux::Internal::Ref;

/** One frame and the video information of its caps. */
struct SourceFrame {
    Ref<GstBuffer> buffer;
    GstVideoInfo info;
};

/**
 * Runs videotestsrc (random pixels) ! capsfilter caps=`caps` ! appsink and
 * takes its first frame. Fails, never skips, when the pipeline cannot run.
 */
::testing::AssertionResult pullFrame(const std::string& caps, SourceFrame* out);

/**
 * A frame of pseudo-random pixels in a plain GStreamer buffer, made without a
 * pipeline. For the ThreadSanitizer scenario: pipeline teardown is
 * synchronised inside GStreamer through GLib's futex-based locks, which the
 * sanitizer cannot see, and reported in frames that carry no symbols.
 */
SourceFrame patternFrame(GstVideoFormat format, int width, int height);

/**
 * A copy of `frame` in a fresh buffer whose rows are `padding` bytes longer
 * than needed on every plane, described by a GstVideoMeta. Same pixels and
 * presentation time.
 */
Ref<GstBuffer> paddedCopy(const SourceFrame& frame, int padding);

/**
 * A copy of `frame` in DMA-buf memory over a memfd (no video meta), with the
 * same presentation time.
 */
Ref<GstBuffer> dmaBufCopy(const SourceFrame& frame);

/** Whether the plane at `data` (rows `stride` apart) equals plane `plane` of `reference`. */
::testing::AssertionResult samePlane(const std::uint8_t* data, int stride, const GstVideoFrame& reference, int plane);

/** The reference count of a buffer, as GStreamer keeps it. */
inline int refCount(GstBuffer* buffer)
{
    return GST_MINI_OBJECT_REFCOUNT_VALUE(buffer);
}

} // namespace lumiflux_test
