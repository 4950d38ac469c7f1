// GraphicBufferFactory: how a producer of GStreamer buffers hands frames to applications.
#include <lumiflux/gst_graphic_buffer.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "frame_source.h"

using namespace Tevara::Lumiflux;
using namespace lumiflux_test;

namespace {

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
    // A producer keeps its factory while the caps stay the same.
    EXPECT_TRUE(factory->matches(parseCaps(kI420).get()));
    for (const char* other : {"video/x-raw,format=I420,width=320,height=240,framerate=25/1",
                              "video/x-raw,format=NV12,width=320,height=240,framerate=30/1",
                              "video/x-raw,format=I420,width=322,height=240,framerate=30/1", "ANY"})
        EXPECT_FALSE(factory->matches(parseCaps(other).get())) << other;
    EXPECT_FALSE(factory->matches(nullptr));

    EXPECT_FALSE(GraphicBufferFactory::fromInfo(GstVideoInfo{})) << "no format information at all";
    // create forwards its arguments; no buffer, or one of another layout than the caps: an empty buffer.
    SourceFrame source = makeFrame(GST_VIDEO_FORMAT_I420, 320, 240);
    {
        std::shared_ptr<GraphicBuffer> turned = factory->create(source.buffer.get(), true, 180),
                                       plain = factory->create(source.buffer.get());
        EXPECT_EQ(std::vector<int>({turned->rotation(), plain->rotation(), refCount(source.buffer.get())}),
                  std::vector<int>({180, 0, 3}));
        EXPECT_EQ(turned->format, PixelFormat::YCbCrFlexible);
    }
    EXPECT_EQ(refCount(source.buffer.get()), 1) << "the factory keeps no buffer alive";
    const SourceFrame others[] = {makeFrame(GST_VIDEO_FORMAT_NV12, 320, 240, 8),
                                  makeFrame(GST_VIDEO_FORMAT_YUY2, 320, 240, 8)};
    for (GstBuffer* wrong : {static_cast<GstBuffer*>(nullptr), others[0].buffer.get(), others[1].buffer.get()}) {
        std::shared_ptr<GraphicBuffer> empty = factory->create(wrong);
        ASSERT_TRUE(dynamic_cast<GstGraphicBuffer*>(empty.get()));
        EXPECT_EQ(empty->format, PixelFormat::Invalid);
        EXPECT_FALSE(empty->mapFrame());
    }
}

// Threads making buffers of their own padded layouts from one factory, and views of one shared
// buffer: each sees its own strides. Each buffer owns its information, which its views keep alive
// after factory and buffer are gone (AddressSanitizer fails a read after it was freed).
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
    ASSERT_TRUE(factory);
    std::shared_ptr<GraphicBuffer> shared = factory->create(sources[threads].buffer.get());
    std::atomic<int> failures{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([&, t] {
            while (!go.load())
                std::this_thread::yield();
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
    go.store(true);
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
    for (const SourceFrame& source : sources)
        EXPECT_EQ(refCount(source.buffer.get()), 1);
}

} // namespace
