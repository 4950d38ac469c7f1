// GstGraphicBuffer and its views, against GStreamer's own mapping of the same buffer.
#include <lumiflux/gst_graphic_buffer.h>

#include <array>
#include <string>

#include "frame_source.h"

using namespace Tevara::Lumiflux;
using namespace lumiflux_test;

namespace {

// With padding, the meta's size and strides reach the caller's information, which described
// another size. A unix reference timestamp becomes the presentation time; other clocks do not.
TEST(GstGraphicBufferTest, MapsEveryLayoutLikeGStreamer)
{
    const GstClockTime wallClock = 1700000000123456789ull;
    const struct {
        GstVideoFormat format;
        int width, height, padding;
        const char* fourcc; // nullptr: mapFrame refuses the layout
        bool ycbcr;         // whether mapYCbCr accepts it
        const char* clock;  // reference timestamp meta, if any
    } cases[] = {{GST_VIDEO_FORMAT_I420, 320, 240, 0, "YU12", true, "timestamp/x-unix"},
                 {GST_VIDEO_FORMAT_I420, 1919, 1079, 0, "YU12", true, nullptr},
                 {GST_VIDEO_FORMAT_I420, 320, 240, 64, "YU12", true, nullptr},
                 {GST_VIDEO_FORMAT_NV12, 176, 144, 0, "NV12", true, "timestamp/x-ntp"},
                 {GST_VIDEO_FORMAT_NV12, 176, 144, 24, "NV12", true, nullptr},
                 {GST_VIDEO_FORMAT_NV21, 321, 241, 0, "NV21", false, nullptr},
                 {GST_VIDEO_FORMAT_xRGB, 320, 240, 0, "BX24", false, nullptr},
                 {GST_VIDEO_FORMAT_ARGB, 320, 240, 0, "BX24", false, nullptr},
                 {GST_VIDEO_FORMAT_RGB, 320, 240, 0, nullptr, false, nullptr},
                 {GST_VIDEO_FORMAT_BGRx, 320, 240, 0, nullptr, false, nullptr}};
    for (const auto& layout : cases) {
        const int w = layout.width, h = layout.height;
        SCOPED_TRACE(std::string(gst_video_format_to_string(layout.format)) + " " + std::to_string(w) + " +" +
                     std::to_string(layout.padding));
        SourceFrame source = makeFrame(layout.format, w, h, layout.padding);
        GST_BUFFER_PTS(source.buffer.get()) = 123456789;
        if (layout.clock)
            gst_buffer_add_reference_timestamp_meta(source.buffer.get(),
                                                    Ref<GstCaps>::adopt(gst_caps_new_empty_simple(layout.clock)).get(),
                                                    wallClock, GST_CLOCK_TIME_NONE);
        const bool wall = layout.clock && std::string(layout.clock) == "timestamp/x-unix";
        const std::int64_t pts = wall ? wallClock : 123456789, stamp = pts / 1000;
        GstVideoInfo info = layout.padding ? makeFrame(layout.format, w / 2, h / 2).info : source.info;
        GstGraphicBuffer buffer(source.buffer.get(), &info);
        EXPECT_EQ(std::vector<std::int64_t>({buffer.width, buffer.height, buffer.timestamp, buffer.rotation(),
                                             GST_VIDEO_INFO_WIDTH(&info), GST_VIDEO_INFO_HEIGHT(&info),
                                             static_cast<std::int64_t>(GST_BUFFER_PTS(source.buffer.get()))}),
                  std::vector<std::int64_t>({w, h, stamp, 0, w, h, pts}));
        EXPECT_EQ(buffer.format, PixelFormat::YCbCrFlexible);
        EXPECT_EQ(buffer.reserved64 + buffer.reserved32, 0u);
        EXPECT_EQ(buffer.map(), nullptr);
        Reference ref(source.buffer.get(), source.info);
        ASSERT_TRUE(ref.mapped);
        for (guint plane = 0; plane < GST_VIDEO_INFO_N_PLANES(&info); ++plane)
            EXPECT_EQ(GST_VIDEO_INFO_PLANE_STRIDE(&info, plane), GST_VIDEO_FRAME_PLANE_STRIDE(&ref.frame, plane));
        std::shared_ptr<Frame> frame = buffer.mapFrame();
        ASSERT_EQ(static_cast<bool>(frame), layout.fourcc != nullptr);
        const std::string code = layout.fourcc ? layout.fourcc : "";
        if (frame) {
            EXPECT_EQ(frame->fourcc, static_cast<std::uint32_t>(fourcc(code[0], code[1], code[2], code[3])));
            EXPECT_EQ(frame->timestamp, static_cast<std::uint64_t>(stamp));
            // Chroma planes round odd sizes up; interleaved chroma has the full width in samples.
            const int cw = (w + 1) / 2, ch = (h + 1) / 2;
            const std::vector<std::array<int, 2>> sizes =
                code == "YU12"   ? std::vector<std::array<int, 2>>{{w, h}, {cw, ch}, {cw, ch}}
                : code == "BX24" ? std::vector<std::array<int, 2>>{{w, h}}
                                 : std::vector<std::array<int, 2>>{{w, h}, {w, ch}};
            for (int plane = 0; plane < static_cast<int>(sizes.size()); ++plane) {
                const Frame::Plane& p = frame->planes[plane];
                EXPECT_EQ(std::vector<int>({p.width, p.height, p.stride}),
                          std::vector<int>(
                              {sizes[plane][0], sizes[plane][1], GST_VIDEO_FRAME_PLANE_STRIDE(&ref.frame, plane)}));
                EXPECT_TRUE(samePlane(p.data, p.stride, ref.frame, plane));
            }
        }
        std::shared_ptr<YCbCrFrame> view = buffer.mapYCbCr();
        ASSERT_EQ(static_cast<bool>(view), layout.ycbcr);
        if (!view)
            continue;
        const bool nv12 = layout.format == GST_VIDEO_FORMAT_NV12;
        EXPECT_EQ(std::vector<std::uint64_t>(
                      {view->width, view->height, view->timestamp, view->yStride, view->cStride, view->chromaStep}),
                  std::vector<std::uint64_t>(
                      {static_cast<std::uint64_t>(w), static_cast<std::uint64_t>(h), static_cast<std::uint64_t>(stamp),
                       static_cast<std::uint64_t>(GST_VIDEO_FRAME_PLANE_STRIDE(&ref.frame, 0)),
                       static_cast<std::uint64_t>(GST_VIDEO_FRAME_PLANE_STRIDE(&ref.frame, 1)), nv12 ? 2u : 1u}));
        // Cb and Cr reached the way an application would: by step and stride.
        EXPECT_TRUE(samePlane(view->y, view->yStride, ref.frame, 0));
        EXPECT_TRUE(samePlane(view->cb, view->cStride, ref.frame, 1));
        EXPECT_TRUE(nv12 ? view->cr == view->cb + 1 : samePlane(view->cr, view->cStride, ref.frame, 2));
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
