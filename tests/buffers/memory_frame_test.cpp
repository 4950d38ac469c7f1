// Frames from application memory (GraphicBufferFactory::fromMemory), used
// the way an application uses them: plain byte vectors, no GStreamer call in
// this file, the real codec plug-in behind LumifluxCodecManager().

#include <gtest/gtest.h>

#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <filesystem>
#include <map>
#include <mutex>
#include <vector>

#include <lumiflux/codec.h>
#include <lumiflux/gst_graphic_buffer.h>

#include "syslog_capture.h"
#include "test_paths.h"

namespace {

using namespace Tevara::Lumiflux;
using namespace std::chrono_literals;
using Plane = GraphicBufferFactory::Plane;

constexpr std::uint32_t width = 320, height = 240, frames = 20;
constexpr std::int64_t period = 33333; // microseconds, 30 frames per second

// One frame in the application's memory: each plane in a vector of its own,
// rows padded beyond their bytes, so that strides matter.
struct AppFrame {
    std::vector<std::vector<std::uint8_t>> bytes;
    std::vector<Plane> planes;
};

// A smooth picture that moves a little from frame to frame: what an encoder
// at a modest rate reproduces well above 30 dB, unless planes, strides or
// chroma order get mixed up on the way.
AppFrame makeFrame(PixelFormat format, std::uint32_t index)
{
    const bool nv12 = format == PixelFormat::YUV420SemiPlanar;
    AppFrame frame;
    const std::uint32_t rowBytes[3] = {width, nv12 ? width : width / 2, width / 2};
    const std::uint32_t rows[3] = {height, height / 2, height / 2};
    for (int plane = 0; plane < (nv12 ? 2 : 3); ++plane) {
        const std::uint32_t stride = rowBytes[plane] + 24;
        frame.bytes.emplace_back(stride * rows[plane], 0);
        for (std::uint32_t y = 0; y < rows[plane]; ++y)
            for (std::uint32_t x = 0; x < rowBytes[plane]; ++x) {
                int value;
                if (plane == 0)
                    value = 40 + static_cast<int>((x + 3 * index) * 120 / (width + 3 * frames) + y * 60 / height);
                else if (plane == 2 || (nv12 && x % 2 == 1)) // Cr
                    value = 90 + static_cast<int>(y * 70 / rows[plane]);
                else // Cb
                    value = 170 - static_cast<int>((nv12 ? x / 2 : x) * 60 / (width / 2));
                frame.bytes.back()[y * stride + x] = static_cast<std::uint8_t>(value);
            }
        frame.planes.push_back({frame.bytes.back().data(), stride});
    }
    return frame;
}

// Peak signal-to-noise ratio of a decoded frame against the original, over
// luma and both chroma planes, read through the decoded frame's own view
// (whatever its layout).
double psnr(const AppFrame& original, PixelFormat format, const std::shared_ptr<GraphicBuffer>& decoded)
{
    auto view = decoded->mapYCbCr();
    if (!view)
        return 0;
    const bool nv12 = format == PixelFormat::YUV420SemiPlanar;
    double squares = 0;
    std::size_t samples = 0;
    auto add = [&](int a, int b) {
        squares += (a - b) * (a - b);
        ++samples;
    };
    for (std::uint32_t y = 0; y < height; ++y)
        for (std::uint32_t x = 0; x < width; ++x)
            add(original.planes[0].data[y * original.planes[0].stride + x], view->y[y * view->yStride + x]);
    for (std::uint32_t y = 0; y < height / 2; ++y)
        for (std::uint32_t x = 0; x < width / 2; ++x) {
            const std::size_t at = y * view->cStride + x * view->chromaStep;
            const Plane& cb = original.planes[1];
            const Plane& cr = original.planes[nv12 ? 1 : 2];
            add(cb.data[y * cb.stride + (nv12 ? 2 * x : x)], view->cb[at]);
            add(cr.data[y * cr.stride + (nv12 ? 2 * x + 1 : x)], view->cr[at]);
        }
    const double mse = squares / static_cast<double>(samples);
    return mse == 0 ? 99 : 10 * std::log10(255.0 * 255.0 / mse);
}

CodecManager* codecs()
{
    static CodecManager* manager = [] {
        const std::string dir = lumiflux_test::freshDirectory("memory-codecs");
        std::filesystem::create_symlink(LUMIFLUX_GST_CODECS_MODULE,
                                        std::filesystem::path(dir) / "lumiflux-gst-codecs.so");
        setenv("LUMIFLUX_PLUGIN_DIR", dir.c_str(), 1);
        return LumifluxCodecManager();
    }();
    return manager;
}

struct Collector : VideoEncoderListener, VideoDecoderListener {
    void onEncodedFrame(const EncodedFrame& frame) override
    {
        update([&] {
            units.push_back({std::vector<std::uint8_t>(frame.data, frame.data + frame.size), frame.timestamp});
        });
    }
    void onEncoderError(const std::string& message) override
    {
        update([&] { errors.push_back(message); });
    }
    void onEncoderEos() override
    {
        update([&] { eos = true; });
    }
    void onDecodedFrame(const std::shared_ptr<GraphicBuffer>& frame) override
    {
        update([&] { decoded.push_back(frame); });
    }
    void onDecoderError(const std::string& message) override
    {
        update([&] { errors.push_back(message); });
    }
    void onDecoderEos() override
    {
        update([&] { eos = true; });
    }

    bool waitForEos()
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, 60s, [&] { return eos; }) && errors.empty();
    }
    template <typename Change> void update(Change change)
    {
        std::lock_guard<std::mutex> lock(mutex);
        change();
        changed.notify_all();
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::pair<std::vector<std::uint8_t>, std::int64_t>> units;
    std::vector<std::shared_ptr<GraphicBuffer>> decoded;
    std::vector<std::string> errors;
    bool eos = false;
};

// NV12 copied, I420 wrapped: an H.264 round trip through the codec manager
// gives back every frame at 30 dB or better, and in wrap mode each frame's
// release callback has run exactly once when the encoder has let go.
TEST(GraphicBufferFromMemory, H264RoundTripFromPlainVectors)
{
    for (const bool wrap : {false, true}) {
        const PixelFormat format = wrap ? PixelFormat::YUV420Planar : PixelFormat::YUV420SemiPlanar;
        SCOPED_TRACE(toString(format));
        std::vector<AppFrame> originals;
        std::vector<std::atomic<int>> releases(frames);
        std::vector<std::shared_ptr<GraphicBuffer>> buffers;
        // Before the codec manager, which would initialise GStreamer itself.
        for (std::uint32_t i = 0; i < frames; ++i) {
            originals.push_back(makeFrame(format, i));
            auto release = wrap ? std::function<void()>([&releases, i] { ++releases[i]; }) : nullptr;
            buffers.push_back(
                GraphicBufferFactory::fromMemory(format, width, height, originals[i].planes, i * period, release));
            ASSERT_NE(buffers.back(), nullptr);
            EXPECT_EQ(buffers.back()->timestamp, i * period);
        }

        Collector encoded;
        {
            auto encoder = codecs()->createVideoEncoder(CodecType::H264, false);
            ASSERT_NE(encoder, nullptr) << "no H.264 encoder: run scripts/install-deps";
            encoder->lockAndSetListener(&encoded);
            VideoEncoderMetadata metadata;
            metadata.codecType = CodecType::H264;
            metadata.width = width;
            metadata.height = height;
            metadata.format = format;
            ASSERT_TRUE(encoder->configure(metadata));
            EXPECT_TRUE(encoder->setParameter(CodecParameter::BitRate, "1000000"));
            ASSERT_TRUE(encoder->start());
            for (auto& buffer : buffers)
                ASSERT_TRUE(encoder->encode(buffer, false));
            buffers.clear(); // the encoder's copies are the last holders now
            encoder->eos();
            ASSERT_TRUE(encoded.waitForEos());
            EXPECT_TRUE(encoder->stop());
            encoder->lockAndSetListener(nullptr);
        }
        for (std::uint32_t i = 0; i < frames; ++i)
            EXPECT_EQ(releases[i].load(), wrap ? 1 : 0) << "frame " << i;

        Collector decoded;
        auto decoder = codecs()->createVideoDecoder(CodecType::H264, false);
        ASSERT_NE(decoder, nullptr);
        decoder->lockAndSetListener(&decoded);
        VideoDecoderMetadata metadata;
        metadata.codecType = CodecType::H264;
        metadata.width = width;
        metadata.height = height;
        ASSERT_TRUE(decoder->configure(metadata));
        ASSERT_TRUE(decoder->start());
        for (const auto& [bytes, timestamp] : encoded.units)
            ASSERT_TRUE(decoder->decode(bytes.data(), bytes.size(), timestamp));
        ASSERT_TRUE(decoder->drain());
        ASSERT_TRUE(decoded.waitForEos());
        decoder->lockAndSetListener(nullptr);
        ASSERT_EQ(decoded.decoded.size(), frames);
        // Counted from the first unit: an encoder may shift every timestamp
        // by a constant (the x264 element starts at 1000 hours).
        const std::int64_t first = encoded.units.front().second;
        for (const auto& frame : decoded.decoded) {
            const std::int64_t index = (frame->timestamp - first + period / 2) / period;
            ASSERT_TRUE(index >= 0 && index < frames) << frame->timestamp;
            EXPECT_GE(psnr(originals[static_cast<std::size_t>(index)], format, frame), 30.0) << "frame " << index;
        }
    }
}

// Wrapping is zero copy and releases exactly once, after the last holder
// (buffer or view); copying takes the bytes at once.
TEST(GraphicBufferFromMemory, WrapReleasesOnceAfterTheLastHolderAndCopyDetaches)
{
    AppFrame frame = makeFrame(PixelFormat::YUV420SemiPlanar, 0);
    int releases = 0;
    auto wrapped = GraphicBufferFactory::fromMemory(PixelFormat::YUV420SemiPlanar, width, height, frame.planes, -1,
                                                    [&releases] { ++releases; });
    ASSERT_NE(wrapped, nullptr);
    EXPECT_EQ(wrapped->format, PixelFormat::YCbCrFlexible);
    EXPECT_EQ(wrapped->timestamp, -1);
    auto view = wrapped->mapYCbCr();
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(view->y, frame.planes[0].data);
    EXPECT_EQ(view->cb, frame.planes[1].data);
    EXPECT_EQ(view->yStride, frame.planes[0].stride);
    EXPECT_EQ(view->chromaStep, 2);
    wrapped.reset();
    EXPECT_EQ(releases, 0) << "the view still holds the memory";
    view.reset();
    EXPECT_EQ(releases, 1);

    auto copied = GraphicBufferFactory::fromMemory(PixelFormat::YUV420SemiPlanar, width, height, frame.planes);
    ASSERT_NE(copied, nullptr);
    const std::uint8_t before = frame.bytes[0][0];
    frame.bytes[0][0] = static_cast<std::uint8_t>(before + 1);
    auto planar = copied->mapFrame();
    ASSERT_NE(planar, nullptr);
    EXPECT_NE(planar->planes[0].data, frame.planes[0].data);
    EXPECT_EQ(planar->planes[0].data[0], before);
    EXPECT_EQ(planar->planes[1].width, width) << "NV12's chroma plane: width bytes of interleaved pairs";
}

TEST(GraphicBufferFromMemory, BadInputGivesAnEmptyResultAndOneErrorLine)
{
    const AppFrame nv12 = makeFrame(PixelFormat::YUV420SemiPlanar, 0);
    const AppFrame i420 = makeFrame(PixelFormat::YUV420Planar, 0);
    auto withPlane = [](std::vector<Plane> planes, std::size_t index, Plane plane) {
        planes[index] = plane;
        return planes;
    };
    struct Case {
        const char* what;
        PixelFormat format;
        std::uint32_t width, height;
        std::vector<Plane> planes;
    };
    const std::vector<Case> cases{
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
    for (const Case& entry : cases) {
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
