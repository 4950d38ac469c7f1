// GstGraphicBuffer and its views, against GStreamer's own mapping of the same buffer.
#include <lumiflux/gst_graphic_buffer.h>

#include <string>

#include "frame_source.h"

using namespace Tevara::Lumiflux;
using namespace lumiflux_test;

namespace {

// Plane `plane` of a view against the reference: size, stride, pixels.
void expectPlane(const Frame& view, const Reference& ref, int plane, int width, int height)
{
    SCOPED_TRACE("plane " + std::to_string(plane));
    const Frame::Plane& p = view.planes[plane];
    EXPECT_EQ(std::vector<int>({p.width, p.height, p.stride}),
              std::vector<int>({width, height, GST_VIDEO_FRAME_PLANE_STRIDE(&ref.frame, plane)}));
    EXPECT_TRUE(samePlane(p.data, p.stride, ref.frame, plane));
}

struct LayoutCase {
    GstVideoFormat format;
    int width, height, padding;
    const char* fourcc; // nullptr: mapFrame refuses the layout
    bool ycbcr;         // whether mapYCbCr accepts it
};

class GstGraphicBufferLayout : public ::testing::TestWithParam<LayoutCase> {};

// With padding, the meta's size and strides reach the caller's information,
// which still describes another size.
TEST_P(GstGraphicBufferLayout, MapsLikeGStreamer)
{
    const LayoutCase& layout = GetParam();
    const int w = layout.width, h = layout.height;
    SourceFrame source = makeFrame(layout.format, w, h, layout.padding);
    GST_BUFFER_PTS(source.buffer.get()) = 123456789;
    GstVideoInfo info = layout.padding ? makeFrame(layout.format, w / 2, h / 2).info : source.info;
    GstGraphicBuffer buffer(source.buffer.get(), &info);
    EXPECT_EQ(std::vector<std::int64_t>({buffer.width, buffer.height, buffer.timestamp, buffer.rotation(),
                                         GST_VIDEO_INFO_WIDTH(&info), GST_VIDEO_INFO_HEIGHT(&info)}),
              std::vector<std::int64_t>({w, h, 123456, 0, w, h}));
    EXPECT_EQ(buffer.format, PixelFormat::YCbCrFlexible);
    EXPECT_EQ(buffer.reserved64 + buffer.reserved32, 0u);
    EXPECT_EQ(buffer.map(), nullptr);
    Reference ref(source.buffer.get(), source.info);
    ASSERT_TRUE(ref.mapped);
    for (guint plane = 0; plane < GST_VIDEO_INFO_N_PLANES(&info); ++plane)
        EXPECT_EQ(GST_VIDEO_INFO_PLANE_STRIDE(&info, plane), GST_VIDEO_FRAME_PLANE_STRIDE(&ref.frame, plane));

    std::shared_ptr<Frame> frame = buffer.mapFrame();
    ASSERT_EQ(static_cast<bool>(frame), layout.fourcc != nullptr);
    if (frame) {
        EXPECT_EQ(frame->fourcc, static_cast<std::uint32_t>(
                                     fourcc(layout.fourcc[0], layout.fourcc[1], layout.fourcc[2], layout.fourcc[3])));
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
    const bool nv12 = layout.format == GST_VIDEO_FORMAT_NV12;
    EXPECT_EQ(std::vector<std::uint64_t>(
                  {view->width, view->height, view->timestamp, view->yStride, view->cStride, view->chromaStep}),
              std::vector<std::uint64_t>({static_cast<std::uint64_t>(w), static_cast<std::uint64_t>(h), 123456,
                                          static_cast<std::uint64_t>(GST_VIDEO_FRAME_PLANE_STRIDE(&ref.frame, 0)),
                                          static_cast<std::uint64_t>(GST_VIDEO_FRAME_PLANE_STRIDE(&ref.frame, 1)),
                                          nv12 ? 2u : 1u}));
    // Cb and Cr reached the way an application would: by step and stride.
    EXPECT_TRUE(samePlane(view->y, view->yStride, ref.frame, 0));
    EXPECT_TRUE(samePlane(view->cb, view->cStride, ref.frame, 1));
    EXPECT_EQ(view->cr, nv12 ? view->cb + 1 : static_cast<std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&ref.frame, 2)));
    if (!nv12) {
        EXPECT_TRUE(samePlane(view->cr, view->cStride, ref.frame, 2));
    }
}

INSTANTIATE_TEST_SUITE_P(Layouts, GstGraphicBufferLayout,
                         ::testing::Values(LayoutCase{GST_VIDEO_FORMAT_I420, 320, 240, 0, "YU12", true},
                                           LayoutCase{GST_VIDEO_FORMAT_I420, 1919, 1079, 0, "YU12", true},
                                           LayoutCase{GST_VIDEO_FORMAT_I420, 320, 240, 64, "YU12", true},
                                           LayoutCase{GST_VIDEO_FORMAT_NV12, 176, 144, 0, "NV12", true},
                                           LayoutCase{GST_VIDEO_FORMAT_NV12, 176, 144, 24, "NV12", true},
                                           LayoutCase{GST_VIDEO_FORMAT_NV21, 321, 241, 0, "NV21", false},
                                           LayoutCase{GST_VIDEO_FORMAT_xRGB, 320, 240, 0, "BX24", false},
                                           LayoutCase{GST_VIDEO_FORMAT_ARGB, 320, 240, 0, "BX24", false},
                                           LayoutCase{GST_VIDEO_FORMAT_RGB, 320, 240, 0, nullptr, false},
                                           LayoutCase{GST_VIDEO_FORMAT_BGRx, 320, 240, 0, nullptr, false}),
                         [](const ::testing::TestParamInfo<LayoutCase>& param) {
                             return std::string(gst_video_format_to_string(param.param.format)) + "_" +
                                    std::to_string(param.param.width) + "_" + std::to_string(param.param.padding);
                         });

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
        if (c.clock)
            gst_buffer_add_reference_timestamp_meta(stamped.get(),
                                                    Ref<GstCaps>::adopt(gst_caps_new_empty_simple(c.clock)).get(),
                                                    wallClock, GST_CLOCK_TIME_NONE);
        GstVideoInfo info = source.info;
        GstGraphicBuffer buffer(stamped.get(), &info);
        EXPECT_EQ(GST_BUFFER_PTS(stamped.get()), c.expectedPts);
        EXPECT_EQ(buffer.timestamp, c.expected);
        if (c.expected < 0)
            continue;
        std::shared_ptr<Frame> frame = buffer.mapFrame();
        std::shared_ptr<YCbCrFrame> ycbcr = buffer.mapYCbCr();
        ASSERT_TRUE(frame && ycbcr);
        EXPECT_EQ(frame->timestamp + ycbcr->timestamp, 2 * static_cast<std::uint64_t>(c.expected));
    }
}

// A plug-in's own buffer implementation starts from BaseGraphicBuffer: unrotated, nothing to map.
struct PluginBuffer : Internal::BaseGraphicBuffer {};

TEST(GstGraphicBufferTest, EmptyBuffersAndTheBaseImplementation)
{
    SourceFrame source = makeFrame(GST_VIDEO_FORMAT_I420, 64, 48);
    GstVideoInfo info = source.info;
    const int before = refCount(source.buffer.get());
    GstGraphicBuffer noBuffer(nullptr, &info, false, 90);
    GstGraphicBuffer noInfo(source.buffer.get(), nullptr), rotated(source.buffer.get(), &info, true, 270);
    PluginBuffer base;
    for (GraphicBuffer* buffer : std::initializer_list<GraphicBuffer*>{&noBuffer, &noInfo, &base}) {
        EXPECT_EQ(buffer->format, PixelFormat::Invalid);
        EXPECT_EQ(std::vector<std::int64_t>({buffer->timestamp, buffer->width, buffer->height}),
                  std::vector<std::int64_t>({-1, 0, 0}));
        EXPECT_FALSE(buffer->mapFrame() || buffer->mapYCbCr() || buffer->map());
    }
    EXPECT_EQ(std::vector<int>({noBuffer.rotation(), rotated.rotation(), base.rotation()}),
              std::vector<int>({90, 270, 0}));
    EXPECT_EQ(rotated.buffer, source.buffer.get()) << "ordinary memory is shared even when a copy is allowed";
    EXPECT_TRUE(gst_video_info_is_equal(&info, &source.info));
    EXPECT_FALSE(GstFrame(nullptr, &info).map());
    EXPECT_FALSE(GstYCbCrFrame(source.buffer.get(), nullptr).map());
    EXPECT_EQ(refCount(source.buffer.get()), before + 2);
}

} // namespace
