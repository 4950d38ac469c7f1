#include <lumiflux/gst_graphic_buffer.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "frame_source.h"

using namespace Tevara::Lumiflux;
using namespace lumiflux_test;

namespace {

const char* const kI420 = "video/x-raw,format=I420,width=320,height=240,framerate=30/1";

Ref<GstCaps> parseCaps(const char* text)
{
    return Ref<GstCaps>::adopt(gst_caps_from_string(text));
}

class GraphicBufferFactoryTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { gst_init(nullptr, nullptr); }
};

TEST_F(GraphicBufferFactoryTest, AcceptsOnlyFixedRawVideo)
{
    std::shared_ptr<GraphicBufferFactory> factory = GraphicBufferFactory::fromCaps(parseCaps(kI420).get());
    ASSERT_TRUE(factory);
    EXPECT_EQ(GST_VIDEO_INFO_FORMAT(&factory->info()), GST_VIDEO_FORMAT_I420);
    EXPECT_EQ(GST_VIDEO_INFO_WIDTH(&factory->info()), 320);
    EXPECT_EQ(GST_VIDEO_INFO_HEIGHT(&factory->info()), 240);

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
}

TEST_F(GraphicBufferFactoryTest, FromInfoKeepsItsOwnCopy)
{
    GstVideoInfo info;
    gst_video_info_set_format(&info, GST_VIDEO_FORMAT_NV12, 176, 144);
    std::shared_ptr<GraphicBufferFactory> factory = GraphicBufferFactory::fromInfo(info);
    ASSERT_TRUE(factory);
    gst_video_info_set_format(&info, GST_VIDEO_FORMAT_I420, 64, 48);
    EXPECT_EQ(GST_VIDEO_INFO_FORMAT(&factory->info()), GST_VIDEO_FORMAT_NV12);
    EXPECT_EQ(GST_VIDEO_INFO_WIDTH(&factory->info()), 176);
    GstVideoInfo never{}; // no format information at all
    EXPECT_FALSE(GraphicBufferFactory::fromInfo(never));
}

// Each buffer gets information of its own, which its views keep alive after
// the factory and the buffer are gone; under AddressSanitizer any read of it
// after it was freed fails the test.
TEST_F(GraphicBufferFactoryTest, EachBufferOwnsInformationThatOutlivesFactoryAndBuffer)
{
    SourceFrame source = makeFrame(GST_VIDEO_FORMAT_NV12, 320, 240);
    std::shared_ptr<GraphicBufferFactory> factory = GraphicBufferFactory::fromInfo(source.info);
    ASSERT_TRUE(factory);
    Ref<GstBuffer> padded = paddedCopy(source, 16);
    ASSERT_TRUE(padded);
    std::shared_ptr<GraphicBuffer> plain = factory->create(source.buffer.get());
    std::shared_ptr<GraphicBuffer> wide = factory->create(padded.get());
    auto* plainGst = dynamic_cast<GstGraphicBuffer*>(plain.get());
    auto* wideGst = dynamic_cast<GstGraphicBuffer*>(wide.get());
    ASSERT_TRUE(plainGst && wideGst);
    EXPECT_NE(plainGst->info, wideGst->info);
    EXPECT_NE(plainGst->info, &factory->info());
    // The padded meta reached only the buffer that carries it.
    EXPECT_EQ(GST_VIDEO_INFO_PLANE_STRIDE(wideGst->info, 0), 336);
    EXPECT_EQ(GST_VIDEO_INFO_PLANE_STRIDE(plainGst->info, 0), 320);
    EXPECT_EQ(GST_VIDEO_INFO_PLANE_STRIDE(&factory->info(), 0), 320);
    factory.reset();
    padded.reset();

    std::shared_ptr<Frame> frame = wide->mapFrame();
    std::shared_ptr<YCbCrFrame> ycbcr = wide->mapYCbCr();
    ASSERT_TRUE(frame && ycbcr);
    EXPECT_EQ(plain->mapFrame()->planes[0].stride, 320);
    wide.reset();
    // The views alone now hold the information.
    GstVideoInfo* frameInfo = static_cast<GstFrame*>(frame.get())->info;
    GstVideoInfo* ycbcrInfo = static_cast<GstYCbCrFrame*>(ycbcr.get())->info;
    EXPECT_EQ(frameInfo, ycbcrInfo);
    EXPECT_EQ(GST_VIDEO_INFO_WIDTH(frameInfo), 320);
    EXPECT_EQ(GST_VIDEO_INFO_PLANE_STRIDE(frameInfo, 1), 336);
    frame.reset();
    EXPECT_EQ(GST_VIDEO_INFO_PLANE_STRIDE(ycbcrInfo, 0), 336);
    Reference ref(source.buffer.get(), source.info);
    ASSERT_TRUE(ref.mapped);
    EXPECT_TRUE(samePlane(ycbcr->y, ycbcr->yStride, ref.frame, 0));
    // A view mapped afresh after everything else is gone uses the kept information.
    auto* view = static_cast<GstYCbCrFrame*>(ycbcr.get());
    ASSERT_TRUE(view->map());
    EXPECT_EQ(view->yStride, 336);
}

TEST_F(GraphicBufferFactoryTest, CreateForwardsItsArgumentsAndKeepsNothingAlive)
{
    SourceFrame source = makeFrame(GST_VIDEO_FORMAT_I420, 320, 240);
    std::shared_ptr<GraphicBufferFactory> factory = GraphicBufferFactory::fromCaps(parseCaps(kI420).get());
    ASSERT_TRUE(factory);
    Ref<GstBuffer> dma = dmaBufCopy(source);
    ASSERT_TRUE(dma);
    {
        std::shared_ptr<GraphicBuffer> copied = factory->create(dma.get(), true, 180);
        ASSERT_TRUE(copied);
        EXPECT_EQ(refCount(dma.get()), 1);
        EXPECT_EQ(copied->rotation(), 180);
        EXPECT_EQ(copied->format, PixelFormat::YCbCrFlexible);
        std::shared_ptr<GraphicBuffer> shared = factory->create(dma.get());
        EXPECT_EQ(refCount(dma.get()), 2);
        EXPECT_EQ(shared->rotation(), 0);
    }
    EXPECT_EQ(refCount(dma.get()), 1);

    std::shared_ptr<GraphicBuffer> empty = factory->create(nullptr);
    ASSERT_TRUE(dynamic_cast<GstGraphicBuffer*>(empty.get()));
    EXPECT_EQ(empty->format, PixelFormat::Invalid);
    EXPECT_FALSE(empty->mapFrame());

    // The factory keeps neither buffers nor views alive.
    const int before = refCount(source.buffer.get());
    std::weak_ptr<Frame> watched;
    {
        std::shared_ptr<GraphicBuffer> buffer = factory->create(source.buffer.get());
        watched = buffer->mapFrame();
        EXPECT_TRUE(watched.expired()) << "a view was kept by someone else";
        std::shared_ptr<Frame> kept = buffer->mapFrame();
        watched = kept;
        EXPECT_GT(refCount(source.buffer.get()), before + 1); // the buffer's and the view's
    }
    EXPECT_TRUE(watched.expired());
    EXPECT_EQ(refCount(source.buffer.get()), before);
}

// Many threads making buffers from one factory at once, each with its own
// padded layout: every buffer and view must see its own strides. Meanwhile
// all of them map views of one shared buffer, which each view maps on its own.
TEST(GraphicBufferFactoryThreads, ConcurrentCreationWithDifferentMetas)
{
    gst_init(nullptr, nullptr);
    SourceFrame source = makeFrame(GST_VIDEO_FORMAT_NV12, 128, 96);
    std::shared_ptr<GraphicBufferFactory> factory = GraphicBufferFactory::fromInfo(source.info);
    ASSERT_TRUE(factory);

    constexpr int threads = 6;
    constexpr int rounds = 150;
    std::vector<Ref<GstBuffer>> buffers;
    for (int t = 0; t < threads; ++t) {
        buffers.push_back(paddedCopy(source, 32 * (t + 1)));
        ASSERT_TRUE(buffers.back());
    }
    GstMapInfo map;
    ASSERT_TRUE(gst_buffer_map(source.buffer.get(), &map, GST_MAP_READ));
    const std::string firstRow(reinterpret_cast<const char*>(map.data), 128);
    gst_buffer_unmap(source.buffer.get(), &map);

    Ref<GstBuffer> common = paddedCopy(source, 8);
    ASSERT_TRUE(common);
    std::shared_ptr<GraphicBuffer> shared = factory->create(common.get());

    std::atomic<int> failures{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([&, t] {
            while (!go.load())
                std::this_thread::yield();
            const int stride = 128 + 32 * (t + 1);
            for (int round = 0; round < rounds; ++round) {
                std::shared_ptr<GraphicBuffer> buffer = factory->create(buffers[t].get());
                std::shared_ptr<Frame> frame = buffer->mapFrame();
                std::shared_ptr<YCbCrFrame> ycbcr = buffer->mapYCbCr();
                buffer.reset(); // the views carry on alone
                if (!frame || !ycbcr || frame->planes[0].stride != stride || frame->planes[1].stride != stride ||
                    ycbcr->cStride != stride ||
                    GST_VIDEO_INFO_PLANE_STRIDE(static_cast<GstFrame*>(frame.get())->info, 1) != stride ||
                    std::string(reinterpret_cast<const char*>(frame->planes[0].data), 128) != firstRow)
                    failures.fetch_add(1);
                std::shared_ptr<YCbCrFrame> view = shared->mapYCbCr();
                if (!view || view->yStride != 136 || view->cr != view->cb + 1 ||
                    std::string(reinterpret_cast<const char*>(view->y), 128) != firstRow)
                    failures.fetch_add(1);
            }
        });
    go.store(true);
    for (std::thread& worker : workers)
        worker.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(GST_VIDEO_INFO_PLANE_STRIDE(&factory->info(), 0), 128);
    shared.reset();
    EXPECT_EQ(refCount(common.get()), 1);
    for (const Ref<GstBuffer>& buffer : buffers)
        EXPECT_EQ(refCount(buffer.get()), 1);
}

} // namespace
