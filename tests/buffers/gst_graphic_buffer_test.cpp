#include <lumiflux/gst_graphic_buffer.h>

#include <sys/mman.h>

#include <cstring>
#include <string>

#include <gst/allocators/gstdmabuf.h>
#include <gtest/gtest.h>

#include "frame_source.h"

using namespace Tevara::Lumiflux;
using namespace lumiflux_test;

namespace {

std::uint32_t code(const char* text)
{
    std::uint32_t value = 0;
    std::memcpy(&value, text, 4); // first character in the lowest byte
    return value;
}

// Checks plane `plane` of a view against the reference: size, stride, pixels.
void expectPlane(const Frame& view, const Reference& ref, int plane, int width, int height)
{
    SCOPED_TRACE("plane " + std::to_string(plane));
    const Frame::Plane& p = view.planes[plane];
    EXPECT_EQ(p.width, width);
    EXPECT_EQ(p.height, height);
    EXPECT_EQ(p.stride, GST_VIDEO_FRAME_PLANE_STRIDE(&ref.frame, plane));
    EXPECT_TRUE(samePlane(p.data, p.stride, ref.frame, plane));
}

struct LayoutCase {
    GstVideoFormat format;
    int width, height;
    const char* fourcc; // nullptr: mapFrame refuses the layout
    bool ycbcr;         // whether mapYCbCr accepts it
};

class GstGraphicBufferLayout : public ::testing::TestWithParam<LayoutCase> {};

TEST_P(GstGraphicBufferLayout, MapsLikeGStreamer)
{
    const LayoutCase& layout = GetParam();
    const int w = layout.width, h = layout.height;
    SourceFrame source = makeFrame(layout.format, w, h);
    GST_BUFFER_PTS(source.buffer.get()) = 123456789;
    GstVideoInfo info = source.info;

    GstGraphicBuffer buffer(source.buffer.get(), &info);
    EXPECT_EQ(buffer.format, PixelFormat::YCbCrFlexible);
    EXPECT_EQ(buffer.width, w);
    EXPECT_EQ(buffer.height, h);
    EXPECT_EQ(buffer.timestamp, 123456);
    EXPECT_EQ(buffer.reserved64, 0u);
    EXPECT_EQ(buffer.reserved32, 0u);
    EXPECT_EQ(buffer.rotation(), 0);
    EXPECT_TRUE(buffer.map() == nullptr);

    Reference ref(source.buffer.get(), source.info);
    ASSERT_TRUE(ref.mapped);
    std::shared_ptr<Frame> frame = buffer.mapFrame();
    ASSERT_EQ(static_cast<bool>(frame), layout.fourcc != nullptr);
    if (frame) {
        EXPECT_EQ(frame->fourcc, code(layout.fourcc));
        EXPECT_EQ(frame->timestamp, 123456u);
        expectPlane(*frame, ref, 0, w, h);
        // Chroma planes round odd sizes up; interleaved chroma is described
        // with the full width in samples.
        if (std::string(layout.fourcc) == "YU12") {
            expectPlane(*frame, ref, 1, (w + 1) / 2, (h + 1) / 2);
            expectPlane(*frame, ref, 2, (w + 1) / 2, (h + 1) / 2);
        } else if (std::string(layout.fourcc) != "BX24") {
            expectPlane(*frame, ref, 1, w, (h + 1) / 2);
        }
    }

    std::shared_ptr<YCbCrFrame> view = buffer.mapYCbCr();
    ASSERT_EQ(static_cast<bool>(view), layout.ycbcr);
    if (!view)
        return;
    EXPECT_EQ(view->width, w);
    EXPECT_EQ(view->height, h);
    EXPECT_EQ(view->timestamp, 123456u);
    EXPECT_EQ(view->yStride, GST_VIDEO_FRAME_PLANE_STRIDE(&ref.frame, 0));
    EXPECT_EQ(view->cStride, GST_VIDEO_FRAME_PLANE_STRIDE(&ref.frame, 1));
    const bool nv12 = layout.format == GST_VIDEO_FORMAT_NV12;
    EXPECT_EQ(view->chromaStep, nv12 ? 2 : 1);
    if (nv12) {
        EXPECT_EQ(view->cr, view->cb + 1);
    }
    EXPECT_TRUE(samePlane(view->y, view->yStride, ref.frame, 0));
    // Every chroma sample, reached the way an application would: by step and stride.
    for (int row = 0; row < GST_VIDEO_FRAME_COMP_HEIGHT(&ref.frame, 1); ++row)
        for (int col = 0; col < GST_VIDEO_FRAME_COMP_WIDTH(&ref.frame, 1); ++col) {
            const auto at = [&](int comp) {
                return static_cast<const std::uint8_t*>(
                    GST_VIDEO_FRAME_COMP_DATA(&ref.frame, comp))[row * GST_VIDEO_FRAME_COMP_STRIDE(&ref.frame, comp) +
                                                                 col * GST_VIDEO_FRAME_COMP_PSTRIDE(&ref.frame, comp)];
            };
            const int offset = row * view->cStride + col * view->chromaStep;
            ASSERT_EQ(view->cb[offset], at(1)) << row << "," << col;
            ASSERT_EQ(view->cr[offset], at(2)) << row << "," << col;
        }
}

INSTANTIATE_TEST_SUITE_P(Layouts, GstGraphicBufferLayout,
                         ::testing::Values(LayoutCase{GST_VIDEO_FORMAT_I420, 320, 240, "YU12", true},
                                           LayoutCase{GST_VIDEO_FORMAT_I420, 1919, 1079, "YU12", true},
                                           LayoutCase{GST_VIDEO_FORMAT_NV12, 176, 144, "NV12", true},
                                           LayoutCase{GST_VIDEO_FORMAT_NV21, 321, 241, "NV21", false},
                                           LayoutCase{GST_VIDEO_FORMAT_xRGB, 320, 240, "BX24", false},
                                           LayoutCase{GST_VIDEO_FORMAT_ARGB, 320, 240, "BX24", false},
                                           LayoutCase{GST_VIDEO_FORMAT_RGB, 320, 240, nullptr, false},
                                           LayoutCase{GST_VIDEO_FORMAT_BGRx, 320, 240, nullptr, false}),
                         [](const ::testing::TestParamInfo<LayoutCase>& param) {
                             return std::string(gst_video_format_to_string(param.param.format)) + "_" +
                                    std::to_string(param.param.width);
                         });

TEST(GstGraphicBufferTest, PaddedVideoMetaSizeAndStridesReachCallersInfo)
{
    SourceFrame source = makeFrame(GST_VIDEO_FORMAT_I420, 320, 240);
    Ref<GstBuffer> padded = paddedCopy(source, 64);
    ASSERT_TRUE(padded);
    // The caller still believes in another size, with tight strides.
    GstVideoInfo info = makeFrame(GST_VIDEO_FORMAT_I420, 160, 120).info;

    GstGraphicBuffer buffer(padded.get(), &info);
    EXPECT_EQ(buffer.width, 320);
    EXPECT_EQ(buffer.height, 240);
    EXPECT_EQ(GST_VIDEO_INFO_WIDTH(&info), 320);
    EXPECT_EQ(GST_VIDEO_INFO_HEIGHT(&info), 240);
    const GstVideoMeta* meta = gst_buffer_get_video_meta(padded.get());
    ASSERT_TRUE(meta);
    for (guint plane = 0; plane < meta->n_planes; ++plane) {
        EXPECT_EQ(GST_VIDEO_INFO_PLANE_STRIDE(&info, plane), meta->stride[plane]);
        EXPECT_EQ(GST_VIDEO_INFO_PLANE_OFFSET(&info, plane), meta->offset[plane]);
    }
    EXPECT_EQ(GST_VIDEO_INFO_PLANE_STRIDE(&info, 0), 384);

    std::shared_ptr<Frame> frame = buffer.mapFrame();
    ASSERT_TRUE(frame);
    Reference ref(source.buffer.get(), source.info); // the unpadded original
    ASSERT_TRUE(ref.mapped);
    for (int plane : {0, 1, 2}) {
        EXPECT_EQ(frame->planes[plane].stride, plane == 0 ? 384 : 160 + 64);
        EXPECT_EQ(frame->planes[plane].width, plane == 0 ? 320 : 160);
        EXPECT_TRUE(samePlane(frame->planes[plane].data, frame->planes[plane].stride, ref.frame, plane));
    }
    std::shared_ptr<YCbCrFrame> ycbcr = buffer.mapYCbCr();
    ASSERT_TRUE(ycbcr);
    EXPECT_EQ(ycbcr->yStride, 384);
    EXPECT_EQ(ycbcr->cStride, 224);
}

TEST(GstGraphicBufferTest, DmaBufCopiedOnlyWhenAsked)
{
    SourceFrame source = makeFrame(GST_VIDEO_FORMAT_NV12, 320, 240);
    GST_BUFFER_PTS(source.buffer.get()) = 40 * GST_MSECOND;
    Ref<GstBuffer> dma = dmaBufCopy(source);
    ASSERT_TRUE(dma);
    ASSERT_TRUE(gst_is_dmabuf_memory(gst_buffer_peek_memory(dma.get(), 0)));
    ASSERT_EQ(refCount(dma.get()), 1);
    Reference ref(source.buffer.get(), source.info);
    ASSERT_TRUE(ref.mapped);

    GstVideoInfo copiedInfo = source.info;
    std::shared_ptr<Frame> copiedView;
    {
        GstGraphicBuffer copied(dma.get(), &copiedInfo, true);
        EXPECT_EQ(refCount(dma.get()), 1) << "the caller's buffer got a reference";
        ASSERT_NE(copied.buffer, dma.get());
        EXPECT_FALSE(gst_is_dmabuf_memory(gst_buffer_peek_memory(copied.buffer, 0)));
        EXPECT_EQ(copied.timestamp, 40000);
        copiedView = copied.mapFrame();
        ASSERT_TRUE(copiedView);
    }
    EXPECT_EQ(refCount(dma.get()), 1);

    GstVideoInfo sharedInfo = source.info;
    GstGraphicBuffer shared(dma.get(), &sharedInfo, false);
    EXPECT_EQ(refCount(dma.get()), 2);
    EXPECT_EQ(shared.buffer, dma.get());
    std::shared_ptr<Frame> sharedView = shared.mapFrame();
    ASSERT_TRUE(sharedView);
    EXPECT_TRUE(samePlane(sharedView->planes[0].data, sharedView->planes[0].stride, ref.frame, 0));

    // A device writes new pixels into the DMA-buf: the copy keeps the old
    // ones, zero-copy buffers show the new ones.
    const int fd = gst_dmabuf_memory_get_fd(gst_buffer_peek_memory(dma.get(), 0));
    const size_t size = gst_buffer_get_size(dma.get());
    void* device = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ASSERT_NE(device, MAP_FAILED);
    std::memset(device, 0x5A, size);
    munmap(device, size);
    EXPECT_TRUE(samePlane(copiedView->planes[0].data, copiedView->planes[0].stride, ref.frame, 0));
    EXPECT_TRUE(samePlane(copiedView->planes[1].data, copiedView->planes[1].stride, ref.frame, 1));
    EXPECT_EQ(sharedView->planes[0].data[0], 0x5A);
    EXPECT_EQ(sharedView->planes[1].data[sharedView->planes[1].stride * 119 + 319], 0x5A);

    // Ordinary memory is shared even when DMA-buf copies are asked for.
    const int before = refCount(source.buffer.get());
    {
        GstVideoInfo info = source.info;
        GstGraphicBuffer buffer(source.buffer.get(), &info, true, 270);
        EXPECT_EQ(buffer.buffer, source.buffer.get());
        EXPECT_EQ(refCount(source.buffer.get()), before + 1);
        EXPECT_EQ(buffer.rotation(), 270);
    }
    EXPECT_EQ(refCount(source.buffer.get()), before);
}

TEST(GstGraphicBufferTest, UnixReferenceTimestampBecomesPresentationTime)
{
    SourceFrame source = makeFrame(GST_VIDEO_FORMAT_I420, 64, 48);
    const GstClockTime wallClock = 1700000000123456789ull;
    const struct {
        const char* clock; // reference timestamp meta, if any
        GstClockTime pts, expectedPts;
        std::int64_t expected;
    } cases[] = {{"timestamp/x-unix", 33 * GST_MSECOND, wallClock, 1700000000123456},
                 // Other reference clocks leave the presentation time alone.
                 {"timestamp/x-ntp", 33 * GST_MSECOND, 33 * GST_MSECOND, 33000},
                 {nullptr, GST_CLOCK_TIME_NONE, GST_CLOCK_TIME_NONE, -1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.clock ? c.clock : "no meta");
        Ref<GstBuffer> stamped = Ref<GstBuffer>::adopt(gst_buffer_copy(source.buffer.get()));
        GST_BUFFER_PTS(stamped.get()) = c.pts;
        if (c.clock) {
            Ref<GstCaps> clockCaps = Ref<GstCaps>::adopt(gst_caps_new_empty_simple(c.clock));
            gst_buffer_add_reference_timestamp_meta(stamped.get(), clockCaps.get(), wallClock, GST_CLOCK_TIME_NONE);
        }
        GstVideoInfo info = source.info;
        GstGraphicBuffer buffer(stamped.get(), &info);
        EXPECT_EQ(GST_BUFFER_PTS(stamped.get()), c.expectedPts);
        EXPECT_EQ(buffer.timestamp, c.expected);
        EXPECT_EQ(buffer.format, PixelFormat::YCbCrFlexible);
        if (c.expected >= 0) {
            std::shared_ptr<Frame> frame = buffer.mapFrame();
            std::shared_ptr<YCbCrFrame> ycbcr = buffer.mapYCbCr();
            ASSERT_TRUE(frame && ycbcr);
            EXPECT_EQ(frame->timestamp, static_cast<std::uint64_t>(c.expected));
            EXPECT_EQ(ycbcr->timestamp, static_cast<std::uint64_t>(c.expected));
        }
    }
}

TEST(GstGraphicBufferTest, EmptyBuffers)
{
    SourceFrame source = makeFrame(GST_VIDEO_FORMAT_I420, 64, 48);
    GstVideoInfo info = source.info;
    const int before = refCount(source.buffer.get());

    GstGraphicBuffer noBuffer(nullptr, &info, false, 90);
    GstGraphicBuffer noInfo(source.buffer.get(), nullptr);
    for (GstGraphicBuffer* buffer : {&noBuffer, &noInfo}) {
        EXPECT_EQ(buffer->format, PixelFormat::Invalid);
        EXPECT_EQ(buffer->timestamp, -1);
        EXPECT_EQ(buffer->width, 0);
        EXPECT_EQ(buffer->height, 0);
        EXPECT_EQ(buffer->reserved64, 0u);
        EXPECT_EQ(buffer->reserved32, 0u);
        EXPECT_FALSE(buffer->mapFrame());
        EXPECT_FALSE(buffer->mapYCbCr());
        EXPECT_FALSE(buffer->map());
    }
    EXPECT_EQ(noBuffer.rotation(), 90);
    // The caller's information is untouched and the views refuse to map.
    EXPECT_TRUE(gst_video_info_is_equal(&info, &source.info));
    GstFrame frame(nullptr, &info);
    EXPECT_FALSE(frame.map());
    GstYCbCrFrame ycbcr(source.buffer.get(), nullptr);
    EXPECT_FALSE(ycbcr.map());
    EXPECT_EQ(refCount(source.buffer.get()), before + 2);
}

TEST(GstGraphicBufferTest, ViewsOutliveTheBufferAndMapIndependently)
{
    SourceFrame source = makeFrame(GST_VIDEO_FORMAT_NV12, 64, 48);
    GstVideoInfo info = source.info; // must outlive the views: the direct constructor does not own it
    GstBuffer* watched = source.buffer.get();
    GstMapInfo map;
    ASSERT_TRUE(gst_buffer_map(watched, &map, GST_MAP_READ));
    const std::string luma(reinterpret_cast<const char*>(map.data), 64 * 48); // rows are not padded at 64
    gst_buffer_unmap(watched, &map);
    bool freed = false;
    gst_mini_object_weak_ref(
        GST_MINI_OBJECT_CAST(watched), [](gpointer flag, GstMiniObject*) { *static_cast<bool*>(flag) = true; }, &freed);
    std::shared_ptr<Frame> frame;
    std::shared_ptr<YCbCrFrame> ycbcr;
    {
        GstGraphicBuffer buffer(watched, &info);
        frame = buffer.mapFrame();
        ycbcr = buffer.mapYCbCr();
        ASSERT_TRUE(frame && ycbcr);
    }
    source.buffer.reset(); // creator and graphic buffer gone: the views hold their own references
    EXPECT_FALSE(freed);
    auto* gstFrame = static_cast<GstFrame*>(frame.get());
    EXPECT_TRUE(gstFrame->mapped);
    EXPECT_EQ(gstFrame->buffer, watched);
    ASSERT_TRUE(gstFrame->map()); // maps afresh, releasing its first mapping, beside the other view's
    EXPECT_EQ(gstFrame->fourcc, code("NV12"));
    EXPECT_EQ(frame->planes[1].width, 64);
    EXPECT_EQ(frame->planes[1].height, 24);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(frame->planes[0].data), luma.size()), luma);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(ycbcr->y), luma.size()), luma);
    const int both = refCount(watched);
    frame.reset();
    EXPECT_FALSE(freed);
    EXPECT_LT(refCount(watched), both);
    ycbcr.reset();
    EXPECT_TRUE(freed) << "the last view did not release the buffer";
}

} // namespace
