// GstGraphicBuffer's views against GStreamer's own mapping of the same pseudo-random buffer, the
// factory producers hand frames out with, and frames from application memory.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gst/gst.h>
#include <gst/video/video.h>

#include <lumiflux/gst_graphic_buffer.h>
#include <lumiflux/gst_ref.h>
#include <lumiflux/log.h>

#include "syslog_capture.h"

namespace {

using namespace Tevara::Lumiflux;
using Internal::Ref;

struct SourceFrame {
    Ref<GstBuffer> buffer;
    GstVideoInfo info; ///< the tight layout GStreamer gives format and size
};

// With `padding`, rows of every plane are that much longer, described by a video meta. PTS 1 s.
SourceFrame makeFrame(GstVideoFormat format, int width, int height, int padding = 0)
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
    Reference(GstBuffer* buffer, GstVideoInfo videoInfo)
        : info(videoInfo), mapped(gst_video_frame_map(&frame, &info, buffer, GST_MAP_READ))
    {
    }
    ~Reference() { mapped ? gst_video_frame_unmap(&frame) : void(); }
    Reference(const Reference&) = delete;
    GstVideoInfo info;
    GstVideoFrame frame;
    bool mapped;
};

/** Whether the plane at `data` (rows `stride` apart) equals plane `plane` of `reference`. */
::testing::AssertionResult samePlane(const std::uint8_t* data, int stride, const GstVideoFrame& reference, int plane)
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

const auto refCount = [](GstBuffer* buffer) { return GST_MINI_OBJECT_REFCOUNT_VALUE(buffer); };

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
        using U = std::uint64_t;
        EXPECT_EQ(std::vector<U>(
                      {view->width, view->height, view->timestamp, view->yStride, view->cStride, view->chromaStep}),
                  std::vector<U>({U(w), U(h), U(stamp), U(GST_VIDEO_FRAME_PLANE_STRIDE(&ref.frame, 0)),
                                  U(GST_VIDEO_FRAME_PLANE_STRIDE(&ref.frame, 1)), nv12 ? 2u : 1u}));
        EXPECT_TRUE(samePlane(view->y, view->yStride, ref.frame, 0));
        EXPECT_TRUE(samePlane(view->cb, view->cStride, ref.frame, 1));
        EXPECT_TRUE(nv12 ? view->cr == view->cb + 1 : samePlane(view->cr, view->cStride, ref.frame, 2));
    }
}

const char* const kI420 = "video/x-raw,format=I420,width=320,height=240,framerate=30/1";

Ref<GstCaps> parseCaps(const char* text)
{
    gst_init(nullptr, nullptr);
    return Ref<GstCaps>::adopt(gst_caps_from_string(text));
}

TEST(GraphicBufferFactoryTest, AcceptsOnlyFixedRawVideoAndCreatesBuffersOfItsLayout)
{
    std::shared_ptr<GraphicBufferFactory> factory = GraphicBufferFactory::fromCaps(parseCaps(kI420).get());
    ASSERT_TRUE(factory);
    const GstVideoInfo* info = &factory->info();
    EXPECT_EQ(std::vector<int>({GST_VIDEO_INFO_FORMAT(info), GST_VIDEO_INFO_WIDTH(info), GST_VIDEO_INFO_HEIGHT(info)}),
              std::vector<int>({GST_VIDEO_FORMAT_I420, 320, 240}));
    EXPECT_FALSE(GraphicBufferFactory::fromCaps(nullptr));
    for (const char* refused :
         {"video/x-raw,format={I420,NV12},width=320,height=240", "video/x-raw,format=I420,width=[1,640],height=240",
          "video/x-h264,width=320,height=240", "audio/x-raw,format=S16LE,rate=48000,channels=2", "EMPTY", "ANY"})
        EXPECT_FALSE(GraphicBufferFactory::fromCaps(parseCaps(refused).get())) << refused;
    EXPECT_TRUE(factory->matches(parseCaps(kI420).get()));
    for (const char* other : {"video/x-raw,format=I420,width=320,height=240,framerate=25/1",
                              "video/x-raw,format=NV12,width=320,height=240,framerate=30/1",
                              "video/x-raw,format=I420,width=322,height=240,framerate=30/1", "ANY"})
        EXPECT_FALSE(factory->matches(parseCaps(other).get())) << other;
    EXPECT_FALSE(factory->matches(nullptr));

    EXPECT_FALSE(GraphicBufferFactory::fromInfo(GstVideoInfo{})) << "no format information at all";
    // create forwards its arguments, and shares ordinary memory even where a copy is allowed.
    SourceFrame source = makeFrame(GST_VIDEO_FORMAT_I420, 320, 240);
    {
        std::shared_ptr<GraphicBuffer> turned = factory->create(source.buffer.get(), true, 180),
                                       plain = factory->create(source.buffer.get());
        EXPECT_EQ(std::vector<int>({turned->rotation(), plain->rotation(), refCount(source.buffer.get())}),
                  std::vector<int>({180, 0, 3}));
        EXPECT_EQ(turned->format, PixelFormat::YCbCrFlexible);
        EXPECT_EQ(dynamic_cast<GstGraphicBuffer&>(*turned).buffer, source.buffer.get());
    }
    EXPECT_EQ(refCount(source.buffer.get()), 1) << "the factory keeps no buffer alive";
    // Empty: no buffer, one of another layout than the caps, no information, a plug-in's own implementation.
    const SourceFrame nv12 = makeFrame(GST_VIDEO_FORMAT_NV12, 320, 240, 8),
                      yuy2 = makeFrame(GST_VIDEO_FORMAT_YUY2, 320, 240, 8);
    const std::shared_ptr<GraphicBuffer> created[] = {
        factory->create(nullptr, false, 90), factory->create(nv12.buffer.get()), factory->create(yuy2.buffer.get())};
    GstGraphicBuffer noInfo(source.buffer.get(), nullptr);
    struct PluginBuffer : Internal::BaseGraphicBuffer {
    } base;
    for (GraphicBuffer* empty : {created[0].get(), created[1].get(), created[2].get(),
                                 static_cast<GraphicBuffer*>(&noInfo), static_cast<GraphicBuffer*>(&base)}) {
        EXPECT_EQ(empty->format, PixelFormat::Invalid);
        EXPECT_EQ(std::vector<std::int64_t>({empty->timestamp, empty->width, empty->height, empty->rotation()}),
                  std::vector<std::int64_t>({-1, 0, 0, empty == created[0].get() ? 90 : 0}));
        EXPECT_FALSE(empty->mapFrame() || empty->mapYCbCr() || empty->map());
    }
    EXPECT_EQ(refCount(source.buffer.get()), 2) << "a buffer without information still holds its reference";
}

// Threads making buffers of their own padded layouts from one factory, and views of one shared buffer:
// each sees its own strides. Views keep their information alive after factory and buffer are gone.
TEST(GraphicBufferFactoryThreads, ConcurrentCreationWithDifferentMetas)
{
    constexpr int threads = 6, rounds = 150;
    std::vector<SourceFrame> sources;
    std::vector<std::string> firstRows;
    for (int t = 0; t <= threads; ++t) { // the last one is shared
        sources.push_back(makeFrame(GST_VIDEO_FORMAT_NV12, 128, 96, 8 + 32 * t));
        Reference ref(sources.back().buffer.get(), sources.back().info);
        firstRows.emplace_back(static_cast<const char*>(GST_VIDEO_FRAME_PLANE_DATA(&ref.frame, 0)), 128);
    }
    std::shared_ptr<GraphicBufferFactory> factory = GraphicBufferFactory::fromInfo(sources[0].info);
    std::shared_ptr<GraphicBuffer> shared = factory->create(sources[threads].buffer.get());
    std::atomic<int> failures{0};
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([&, t] {
            const int stride = 128 + 8 + 32 * t;
            for (int round = 0; round < rounds; ++round) {
                std::shared_ptr<GraphicBuffer> buffer = factory->create(sources[t].buffer.get());
                std::shared_ptr<Frame> frame = buffer->mapFrame();
                std::shared_ptr<YCbCrFrame> ycbcr = buffer->mapYCbCr();
                buffer.reset(); // the views carry on alone
                if (!frame || !ycbcr || frame->planes[0].stride != stride || frame->planes[1].stride != stride ||
                    ycbcr->cStride != stride ||
                    std::string(reinterpret_cast<const char*>(frame->planes[0].data), 128) != firstRows[t])
                    failures.fetch_add(1);
                std::shared_ptr<YCbCrFrame> view = shared->mapYCbCr();
                if (!view || view->yStride != 128 + 8 + 32 * threads || view->cr != view->cb + 1 ||
                    std::string(reinterpret_cast<const char*>(view->y), 128) != firstRows[threads])
                    failures.fetch_add(1);
            }
        });
    for (std::thread& worker : workers)
        worker.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(GST_VIDEO_INFO_PLANE_STRIDE(&factory->info(), 0), 128);
    std::shared_ptr<YCbCrFrame> kept = shared->mapYCbCr();
    shared.reset();
    factory.reset();
    ASSERT_TRUE(kept && static_cast<GstYCbCrFrame*>(kept.get())->map()); // afresh, with the kept information
    EXPECT_EQ(kept->cStride, 128 + 8 + 32 * threads);
    kept.reset();
    for (const SourceFrame& source : sources) // nothing kept alive
        EXPECT_EQ(refCount(source.buffer.get()), 1);
}

// fromMemory as an application uses it, no GStreamer call; encoding such frames is tools.examples' encode_app.
using Plane = GraphicBufferFactory::Plane;

constexpr std::uint32_t width = 320, height = 240;

// A frame in application memory: a vector per plane, rows padded by 24 bytes; bytes vary by plane, row, column.
struct AppFrame {
    AppFrame(PixelFormat format, std::uint32_t index)
    {
        const bool nv12 = format == PixelFormat::YUV420SemiPlanar;
        const std::uint32_t rowBytes[3] = {width, nv12 ? width : width / 2, width / 2};
        for (int plane = 0; plane < (nv12 ? 2 : 3); ++plane) {
            const std::uint32_t stride = rowBytes[plane] + 24, rows = plane == 0 ? height : height / 2;
            bytes.emplace_back(stride * rows, 0);
            for (std::uint32_t y = 0; y < rows; ++y)
                for (std::uint32_t x = 0; x < rowBytes[plane]; ++x)
                    bytes.back()[y * stride + x] = static_cast<std::uint8_t>(40 * plane + x / 3 + y / 2 + index);
            planes.push_back({bytes.back().data(), stride});
        }
    }
    std::vector<std::vector<std::uint8_t>> bytes;
    std::vector<Plane> planes;
};

// Both views show the application's bytes; wrapping is zero copy and releases once, after the last
// holder; copying takes the bytes at once.
TEST(GraphicBufferFromMemory, WrapReleasesOnceAfterTheLastHolderAndCopyDetaches)
{
    for (const PixelFormat format : {PixelFormat::YUV420SemiPlanar, PixelFormat::YUV420Planar})
        for (const bool wrap : {true, false}) {
            SCOPED_TRACE(std::string(toString(format)) + (wrap ? " wrapped" : " copied"));
            const bool nv12 = format == PixelFormat::YUV420SemiPlanar;
            AppFrame frame(format, 7);
            int releases = 0;
            auto buffer = GraphicBufferFactory::fromMemory(format, width, height, frame.planes, wrap ? 33333 : 0,
                                                           wrap ? std::function<void()>([&] { ++releases; }) : nullptr);
            ASSERT_NE(buffer, nullptr);
            EXPECT_EQ(buffer->format, PixelFormat::YCbCrFlexible);
            EXPECT_EQ(buffer->timestamp, wrap ? 33333 : 0) << "microseconds, 0 included";
            auto view = buffer->mapYCbCr();
            auto planar = buffer->mapFrame();
            ASSERT_TRUE(view && planar);
            EXPECT_EQ(view->chromaStep, nv12 ? 2 : 1);
            EXPECT_EQ(view->y == frame.planes[0].data, wrap);
            EXPECT_EQ(planar->planes[1].width, nv12 ? width : width / 2) << "NV12: bytes of interleaved pairs";
            for (std::size_t p = 0; p < frame.planes.size(); ++p)
                for (std::uint32_t y = 0; y < (p == 0 ? height : height / 2); ++y)
                    ASSERT_EQ(0, std::memcmp(planar->planes[p].data + y * planar->planes[p].stride,
                                             frame.planes[p].data + y * frame.planes[p].stride,
                                             p == 0 || nv12 ? width : width / 2))
                        << "plane " << p << " row " << y;
            EXPECT_EQ(view->cr[0], nv12 ? frame.planes[1].data[1] : frame.planes[2].data[0]);
            frame.bytes[0][0] ^= 0xFF;
            EXPECT_EQ(view->y[0] == frame.bytes[0][0], wrap) << "the copy keeps the bytes it took";
            buffer.reset(), planar.reset();
            EXPECT_EQ(releases, 0) << "a view still holds the memory";
            view.reset();
            EXPECT_EQ(releases, wrap ? 1 : 0);
        }
}

TEST(GraphicBufferFromMemory, BadInputGivesAnEmptyResultAndOneErrorLine)
{
    LogInit(); // fromMemory itself does not route the log to syslog
    const AppFrame nv12(PixelFormat::YUV420SemiPlanar, 0), i420(PixelFormat::YUV420Planar, 0);
    auto withPlane = [](std::vector<Plane> planes, std::size_t i, Plane plane) { return planes[i] = plane, planes; };
    const struct {
        const char* what;
        PixelFormat format;
        std::uint32_t width, height;
        std::vector<Plane> planes;
    } cases[] = {
        {"flexible format", PixelFormat::YCbCrFlexible, width, height, nv12.planes},
        {"odd width", PixelFormat::YUV420SemiPlanar, width - 1, height, nv12.planes},
        {"odd height", PixelFormat::YUV420Planar, width, height - 1, i420.planes},
        {"too wide", PixelFormat::YUV420Planar, 70000, height, i420.planes},
        {"two planes for I420", PixelFormat::YUV420Planar, width, height, nv12.planes},
        {"null chroma", PixelFormat::YUV420Planar, width, height, withPlane(i420.planes, 2, {nullptr, width / 2})},
        {"short luma stride", PixelFormat::YUV420SemiPlanar, width, height,
         withPlane(nv12.planes, 0, {nv12.planes[0].data, width - 2})},
        {"short chroma stride", PixelFormat::YUV420Planar, width, height,
         withPlane(i420.planes, 1, {i420.planes[1].data, width / 2 - 1})},
        {"stride beyond 16 bits", PixelFormat::YUV420SemiPlanar, width, height,
         withPlane(nv12.planes, 1, {nv12.planes[1].data, 70000})},
    };
    for (const auto& entry : cases) {
        SCOPED_TRACE(entry.what);
        lumiflux_test::clearSyslog();
        bool released = false;
        for (const bool wrap : {false, true})
            EXPECT_EQ(
                GraphicBufferFactory::fromMemory(entry.format, entry.width, entry.height, entry.planes, 0,
                                                 wrap ? std::function<void()>([&] { released = true; }) : nullptr),
                nullptr);
        EXPECT_FALSE(released) << "a refused frame's memory stays the caller's";
        EXPECT_EQ(lumiflux_test::syslogRecordsContaining("fromMemory").size(), 2u) << "one line per call";
    }
}

} // namespace
