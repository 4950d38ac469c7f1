// GraphicBufferFactory::fromMemory as an application uses it: plain byte vectors, no GStreamer
// call in this file. Encoding such frames is the encode_app example's run under tools.examples.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include <lumiflux/gst_graphic_buffer.h>
#include <lumiflux/log.h>

#include "syslog_capture.h"

namespace {

using namespace Tevara::Lumiflux;
using Plane = GraphicBufferFactory::Plane;

constexpr std::uint32_t width = 320, height = 240;

// A frame in application memory: a vector per plane, rows padded by 24 bytes so that strides
// matter; every byte depends on plane, row, column and frame.
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

// Both views show the application's bytes. Wrapping is zero copy and releases exactly once, after
// the last holder (buffer or view); copying takes the bytes at once.
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
            EXPECT_EQ(view->cb[view->cStride * 5], frame.planes[1].data[frame.planes[1].stride * 5]);
            EXPECT_EQ(view->cr[0], nv12 ? frame.planes[1].data[1] : frame.planes[2].data[0]);
            frame.bytes[0][0] ^= 0xFF;
            EXPECT_EQ(view->y[0] == frame.bytes[0][0], wrap) << "the copy keeps the bytes it took";
            buffer.reset();
            planar.reset();
            EXPECT_EQ(releases, 0) << "a view still holds the memory";
            view.reset();
            EXPECT_EQ(releases, wrap ? 1 : 0);
        }
}

TEST(GraphicBufferFromMemory, BadInputGivesAnEmptyResultAndOneErrorLine)
{
    LogInit(); // fromMemory itself does not route the log to syslog
    const AppFrame nv12(PixelFormat::YUV420SemiPlanar, 0), i420(PixelFormat::YUV420Planar, 0);
    auto withPlane = [](std::vector<Plane> planes, std::size_t index, Plane plane) {
        planes[index] = plane;
        return planes;
    };
    const struct {
        const char* what;
        PixelFormat format;
        std::uint32_t width, height;
        std::vector<Plane> planes;
    } cases[] = {
        {"flexible format", PixelFormat::YCbCrFlexible, width, height, nv12.planes},
        {"zero width", PixelFormat::YUV420SemiPlanar, 0, height, nv12.planes},
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
