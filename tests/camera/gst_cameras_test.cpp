// lumiflux-gst-cameras end to end: the real plug-in module, loaded by the
// library, over GStreamer's device monitor. Cameras come from the plug-in's
// test-pattern provider (LUMIFLUX_TEST_CAMERAS) or, for hot-plug, from a
// device provider this test registers itself before the plug-in starts.

#include <gtest/gtest.h>

#include <gst/gst.h>
#include <gst/video/video.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <thread>

#include <lumiflux/camera.h>
#include <lumiflux/gst_graphic_buffer.h>
#include <lumiflux/plugin.h>

#include "test_paths.h"

namespace {

using namespace Tevara::Lumiflux;
namespace fs = std::filesystem;
using namespace std::chrono_literals;

// A plug-in directory holding only the camera plug-in.
CameraManager* loadCameraPlugin(const std::string& name)
{
    const std::string dir = lumiflux_test::freshDirectory(name);
    fs::create_symlink(lumiflux_test::buildDir() + "/plugins-out/lumiflux-gst-cameras.so",
                       dir + "/lumiflux-gst-cameras.so");
    setenv("LUMIFLUX_PLUGIN_DIR", dir.c_str(), 1);
    EXPECT_EQ(PluginManager::get().listPlugins().size(), 1u);
    return LumifluxManager();
}

std::vector<CameraInfo> camerasOf(CameraManager* manager, const std::string& provider)
{
    std::vector<CameraInfo> result;
    const int count = manager->getNumberOfCameras();
    for (int i = 0; i < count; ++i) {
        CameraInfo info;
        if (manager->getCameraInfo(static_cast<unsigned>(i), info) && info.provider == provider)
            result.push_back(info);
    }
    return result;
}

void requireElements()
{
    gst_init(nullptr, nullptr);
    // Installed by scripts/install-deps; a missing one is a broken install, not a skip.
    for (const char* name : {"videotestsrc", "videoconvert", "videoscale", "capsfilter", "appsink"}) {
        GstElementFactory* factory = gst_element_factory_find(name);
        ASSERT_NE(factory, nullptr) << "GStreamer element " << name << " is missing";
        gst_object_unref(factory);
    }
}

bool hasMode(const std::vector<CameraCapability>& modes, std::uint32_t w, std::uint32_t h, std::uint32_t fps)
{
    return std::any_of(modes.begin(), modes.end(), [&](const CameraCapability& mode) {
        return mode.width == w && mode.height == h && mode.frameRate == fps;
    });
}

TEST(GstCamerasList, TestCamerasAreListedWithPlacementModesAndFormats)
{
    requireElements();
    CameraManager* manager = loadCameraPlugin("gst-list");
    const auto cameras = camerasOf(manager, "lumiflux-test");
    ASSERT_EQ(cameras.size(), 3u);
    // Ordered by facing: front, back, external.
    EXPECT_EQ(cameras[0].id, "lumiflux-test:/test/0");
    EXPECT_EQ(cameras[0].facing, CameraFacing::Front);
    EXPECT_EQ(cameras[0].mountAngle, 270);
    EXPECT_EQ(cameras[0].name, "Test camera 0 (front)");
    EXPECT_EQ(cameras[1].id, "lumiflux-test:/test/1");
    EXPECT_EQ(cameras[1].facing, CameraFacing::Back);
    EXPECT_EQ(cameras[1].mountAngle, 90);
    EXPECT_EQ(cameras[2].id, "lumiflux-test:/test/2");
    EXPECT_EQ(cameras[2].facing, CameraFacing::External);

    std::vector<CameraCapability> modes;
    ASSERT_TRUE(manager->queryCapabilities(cameras[1].id, modes));
    // A [1/1, 60/1] rate range is offered as the rates people ask for.
    EXPECT_TRUE(hasMode(modes, 640, 480, 30));
    EXPECT_TRUE(hasMode(modes, 640, 480, 25));
    EXPECT_TRUE(hasMode(modes, 320, 240, 60));
    EXPECT_TRUE(hasMode(modes, 320, 240, 1));
    EXPECT_FALSE(hasMode(modes, 320, 240, 61));
    EXPECT_FALSE(hasMode(modes, 320, 240, 7));
    // A list of rates is taken as it is.
    EXPECT_TRUE(hasMode(modes, 1280, 720, 15));
    EXPECT_FALSE(hasMode(modes, 1280, 720, 25));
    // No mode twice, although three formats list the same sizes.
    for (size_t i = 0; i < modes.size(); ++i)
        for (size_t j = i + 1; j < modes.size(); ++j)
            EXPECT_FALSE(modes[i].width == modes[j].width && modes[i].height == modes[j].height &&
                         modes[i].frameRate == modes[j].frameRate);

    const auto formats = manager->getSupportedFormats(cameras[1].id);
    ASSERT_EQ(formats.size(), 2u);
    EXPECT_EQ(formats[0].format, PixelFormat::YUV420SemiPlanar);
    EXPECT_EQ(formats[1].format, PixelFormat::YUV420Planar);

    CameraCapabilityEx wanted, found;
    wanted.width = 1280;
    wanted.height = 720;
    wanted.frameRate = {30000, 1001};
    ASSERT_TRUE(manager->findClosestCapability(cameras[1].id, PixelFormat::YUV420SemiPlanar, wanted, found,
                                               CameraCapabilityPriority::WidthHeightFrameRate));
    EXPECT_EQ(found.width, 1280u);
    EXPECT_EQ(found.height, 720u);
    EXPECT_EQ(found.frameRate.numerator, 30u);
    wanted.width = 1000;
    wanted.height = 500;
    wanted.frameRate = {12, 1};
    ASSERT_TRUE(manager->findClosestCapability(cameras[1].id, PixelFormat::YUV420SemiPlanar, wanted, found,
                                               CameraCapabilityPriority::HeightWidthFrameRate));
    EXPECT_EQ(found.height, 480u);
    EXPECT_EQ(found.frameRate.numerator, 10u); // 10 and 15 are 2 and 3 away from 12

    CameraCapabilityRanges ranges;
    ASSERT_TRUE(manager->queryCapabilityRanges(cameras[1].id, PixelFormat::YUV420Planar, ranges));
    EXPECT_EQ(ranges.minWidth, 320u);
    EXPECT_EQ(ranges.maxWidth, 1280u);
    EXPECT_EQ(ranges.maxFrameRate.numerator, 60u);
    EXPECT_FALSE(manager->queryCapabilityRanges(cameras[1].id, fourcc('Y', 'U', 'Y', 'V'), ranges));

    auto camera = manager->openCamera(cameras[2].id);
    ASSERT_NE(camera, nullptr);
    CameraInfo info;
    ASSERT_TRUE(camera->getInfo(info));
    EXPECT_EQ(info.id, cameras[2].id);
    EXPECT_EQ(manager->openCamera("lumiflux-test:/test/9"), nullptr);
}

TEST(GstCamerasList, BadTestCameraCountOffersNone)
{
    requireElements();
    CameraManager* manager = loadCameraPlugin("gst-list-bad");
    EXPECT_TRUE(camerasOf(manager, "lumiflux-test").empty());
}

// Collects what a camera delivers. Frames are kept, so their pixels can be
// checked after capture has stopped.
class CollectingListener : public CameraListener {
public:
    void onFrame(const std::shared_ptr<GraphicBuffer>& frame) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        frames.push_back(frame);
        threads.push_back(std::this_thread::get_id());
        changed.notify_all();
    }
    void onPictureTaken(const std::shared_ptr<GraphicBuffer>& picture) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        pictures.push_back(picture);
        changed.notify_all();
    }
    void onError(const std::string& message) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        errors.push_back(message);
    }
    void onCaptureEnded() override
    {
        std::lock_guard<std::mutex> lock(mutex);
        ended.push_back(std::this_thread::get_id());
    }
    bool waitForFrames(size_t count)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, 20s, [&] { return frames.size() >= count; });
    }
    size_t frameCount()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return frames.size();
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::shared_ptr<GraphicBuffer>> frames;
    std::vector<std::thread::id> threads;
    std::vector<std::shared_ptr<GraphicBuffer>> pictures;
    std::vector<std::string> errors;
    std::vector<std::thread::id> ended;
};

// Every sampled pixel of the frame has these Y, Cb and Cr values (the test
// pattern is a solid colour).
void expectSolid(const std::shared_ptr<GraphicBuffer>& frame, int y, int cb, int cr, int chromaStep)
{
    ASSERT_NE(frame, nullptr);
    auto view = frame->mapYCbCr();
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(view->chromaStep, chromaStep);
    for (unsigned row = 0; row < view->height; row += 37)
        for (unsigned column = 0; column < view->width; column += 29)
            ASSERT_EQ(view->y[row * view->yStride + column], y) << row << "," << column;
    for (unsigned row = 0; row < view->height / 2; row += 17)
        for (unsigned column = 0; column < view->width / 2; column += 13) {
            ASSERT_EQ(view->cb[row * view->cStride + column * view->chromaStep], cb);
            ASSERT_EQ(view->cr[row * view->cStride + column * view->chromaStep], cr);
        }
}

class GstCamerasCapture : public ::testing::Test {
protected:
    void SetUp() override
    {
        requireElements();
        manager = loadCameraPlugin("gst-capture");
        cameras = camerasOf(manager, "lumiflux-test");
        ASSERT_EQ(cameras.size(), 2u);
    }
    CameraManager* manager = nullptr;
    std::vector<CameraInfo> cameras;
};

TEST_F(GstCamerasCapture, Nv12FramesOfAKnownPatternAtTheRequestedSizeAndRate)
{
    auto camera = manager->openCamera(cameras[0].id);
    ASSERT_NE(camera, nullptr);
    CollectingListener listener;
    camera->setListener(&listener);
    ASSERT_TRUE(camera->setParameter("pattern", "white"));
    std::string value;
    ASSERT_TRUE(camera->getParameter("pattern", value));
    EXPECT_EQ(value, "white");
    EXPECT_FALSE(camera->setParameter("pattern", "no-such-pattern"));
    EXPECT_FALSE(camera->setParameter("no-such-setting", "1"));
    EXPECT_FALSE(camera->getParameter("no-such-setting", value));
    EXPECT_FALSE(camera->takePicture()) << "not capturing yet";
    EXPECT_FALSE(camera->stopCapture());

    ASSERT_TRUE(camera->startCapture(CameraCapability{320, 240, 30}, PixelFormat::YUV420SemiPlanar));
    EXPECT_TRUE(camera->isCapturing());
    EXPECT_FALSE(camera->startCapture(CameraCapability{320, 240, 30}, PixelFormat::YUV420SemiPlanar));
    ASSERT_TRUE(listener.waitForFrames(3));
    ASSERT_TRUE(camera->takePicture());
    ASSERT_TRUE(listener.waitForFrames(12));
    ASSERT_TRUE(camera->stopCapture());
    EXPECT_FALSE(camera->isCapturing());
    const size_t delivered = listener.frameCount();

    std::lock_guard<std::mutex> lock(listener.mutex);
    EXPECT_TRUE(listener.errors.empty());
    ASSERT_EQ(listener.ended.size(), 1u);
    EXPECT_EQ(listener.ended[0], std::this_thread::get_id()) << "stopCapture reports the end on its own thread";
    EXPECT_NE(listener.threads[0], std::this_thread::get_id());
    ASSERT_EQ(listener.pictures.size(), 1u);
    EXPECT_NE(std::find(listener.frames.begin(), listener.frames.end(), listener.pictures[0]), listener.frames.end());
    for (const auto& frame : listener.frames) {
        EXPECT_EQ(frame->width, 320);
        EXPECT_EQ(frame->height, 240);
        EXPECT_EQ(frame->format, PixelFormat::YCbCrFlexible);
    }
    // White in limited-range BT.601: Y 235, chroma neutral; NV12 interleaves Cb and Cr.
    expectSolid(listener.frames.front(), 235, 128, 128, 2);
    expectSolid(listener.frames.back(), 235, 128, 128, 2);
    // A view maps the captured buffer itself: no copy between sink and application.
    auto* gstFrame = dynamic_cast<GstGraphicBuffer*>(listener.frames.back().get());
    ASSERT_NE(gstFrame, nullptr);
    GstMapInfo map;
    ASSERT_TRUE(gst_buffer_map(gstFrame->buffer, &map, GST_MAP_READ));
    auto view = gstFrame->mapYCbCr();
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(static_cast<const void*>(view->y), static_cast<const void*>(map.data));
    gst_buffer_unmap(gstFrame->buffer, &map);
    // Timestamps advance by one frame period (30 fps) of the source clock.
    const std::int64_t first = listener.frames.front()->timestamp;
    const std::int64_t last = listener.frames.back()->timestamp;
    ASSERT_GT(last, first);
    const double period = static_cast<double>(last - first) / static_cast<double>(listener.frames.size() - 1);
    EXPECT_NEAR(period, 1e6 / 30, 1e6 / 30 * 0.25);
    EXPECT_EQ(listener.frames.size(), delivered) << "no frame after stopCapture returned";
}

TEST_F(GstCamerasCapture, I420RestartAfterStopAndAnotherPattern)
{
    auto camera = manager->openCamera(cameras[1].id);
    ASSERT_NE(camera, nullptr);
    CollectingListener listener;
    camera->setListener(&listener);
    ASSERT_TRUE(camera->setParameter("pattern", "black"));
    CameraCapabilityEx exact;
    exact.width = 640;
    exact.height = 480;
    exact.frameRate = {15, 1};
    ASSERT_TRUE(camera->startCapture(exact, PixelFormat::YUV420Planar));
    ASSERT_TRUE(listener.waitForFrames(4));
    ASSERT_TRUE(camera->stopCapture());
    {
        std::lock_guard<std::mutex> lock(listener.mutex);
        expectSolid(listener.frames.back(), 16, 128, 128, 1);
        EXPECT_EQ(listener.frames.back()->width, 640);
    }

    // Same camera again, other mode, other pattern: blue is Y 41, Cb 240, Cr 110.
    ASSERT_TRUE(camera->setParameter("pattern", "blue"));
    const size_t before = listener.frameCount();
    ASSERT_TRUE(camera->startCapture(CameraCapability{320, 240, 30}, PixelFormat::YUV420Planar));
    ASSERT_TRUE(listener.waitForFrames(before + 4));
    ASSERT_TRUE(camera->stopCapture());
    std::lock_guard<std::mutex> lock(listener.mutex);
    EXPECT_EQ(listener.frames.back()->width, 320);
    expectSolid(listener.frames.back(), 41, 240, 110, 1);
    EXPECT_EQ(listener.ended.size(), 2u);
}

TEST_F(GstCamerasCapture, RefusedRequestsAndDestroyingACapturingCamera)
{
    auto camera = manager->openCamera(cameras[0].id);
    ASSERT_NE(camera, nullptr);
    EXPECT_FALSE(camera->startCapture(CameraCapability{320, 240, 30}, PixelFormat::YCbCrFlexible));
    EXPECT_FALSE(camera->startCapture(CameraCapability{0, 240, 30}, PixelFormat::YUV420SemiPlanar));
    EXPECT_FALSE(camera->isCapturing());

    CollectingListener listener;
    camera->setListener(&listener);
    ASSERT_TRUE(camera->startCapture(CameraCapability{320, 240, 60}, PixelFormat::YUV420SemiPlanar));
    ASSERT_TRUE(listener.waitForFrames(2));
    std::weak_ptr<Camera> watch = camera;
    camera.reset(); // the last reference: the pipeline stops in the destructor
    EXPECT_TRUE(watch.expired());
    const size_t atRelease = listener.frameCount();
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(listener.frameCount(), atRelease) << "no callback after the camera is gone";
    // Frames outlive the camera and its pipeline.
    std::lock_guard<std::mutex> lock(listener.mutex);
    auto view = listener.frames.back()->mapYCbCr();
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(view->width, 320);
}

TEST_F(GstCamerasCapture, TwoCamerasCaptureAtOnce)
{
    auto front = manager->openCamera(cameras[0].id);
    auto back = manager->openCamera(cameras[1].id);
    ASSERT_NE(front, nullptr);
    ASSERT_NE(back, nullptr);
    CollectingListener frontFrames, backFrames;
    front->setListener(&frontFrames);
    back->setListener(&backFrames);
    ASSERT_TRUE(front->setParameter("pattern", "white"));
    ASSERT_TRUE(back->setParameter("pattern", "black"));
    ASSERT_TRUE(front->startCapture(CameraCapability{320, 240, 30}, PixelFormat::YUV420SemiPlanar));
    ASSERT_TRUE(back->startCapture(CameraCapability{320, 240, 30}, PixelFormat::YUV420SemiPlanar));
    ASSERT_TRUE(frontFrames.waitForFrames(5));
    ASSERT_TRUE(backFrames.waitForFrames(5));
    front->setListener(nullptr); // stops callbacks before the capture stops
    ASSERT_TRUE(front->stopCapture());
    ASSERT_TRUE(back->stopCapture());
    std::lock_guard<std::mutex> lockFront(frontFrames.mutex);
    std::lock_guard<std::mutex> lockBack(backFrames.mutex);
    EXPECT_TRUE(frontFrames.ended.empty()) << "the listener was removed";
    EXPECT_EQ(backFrames.ended.size(), 1u);
    expectSolid(frontFrames.frames.back(), 235, 128, 128, 2);
    expectSolid(backFrames.frames.back(), 16, 128, 128, 2);
}

} // namespace
