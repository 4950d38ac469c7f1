// The camera base classes, on a camera whose primitive operations the test
// controls.

#include <gtest/gtest.h>

#include <stdexcept>

#include <lumiflux/camera_base.h>

namespace {

using namespace Tevara::Lumiflux;
using Internal::frameRateToInteger;
using Priority = CameraCapabilityPriority;
constexpr PixelFormat kNv12 = PixelFormat::YUV420SemiPlanar;

class ScriptedCamera : public Internal::BaseCamera {
public:
    using Internal::BaseCamera::startCapture;

    std::vector<CameraCapability> modes;
    std::vector<PixelFormatDescription> formats;
    bool queryFails = false;
    bool throwOnQuery = false;
    std::vector<std::pair<CameraCapability, PixelFormat>> started;

    // What a plug-in does when it reports: call under the listener mutex.
    void reportError(const std::string& message)
    {
        std::lock_guard<std::recursive_mutex> lock(listenerMutex);
        if (listener != nullptr)
            listener->onError(message);
    }

    bool getInfo(CameraInfo&) override { return false; }
    bool startCapture(const CameraCapability& capability, PixelFormat format) override
    {
        started.emplace_back(capability, format);
        return true;
    }
    bool stopCapture() override { return false; }
    bool isCapturing() override { return false; }
    bool takePicture() override { return false; }
    bool getParameter(const std::string&, std::string&) override { return false; }
    bool setParameter(const std::string&, const std::string&) override { return false; }
    std::vector<PixelFormatDescription> getSupportedFormats() override { return formats; }
    bool queryCapabilities(std::vector<CameraCapability>& out) override
    {
        if (throwOnQuery)
            throw std::runtime_error("device gone");
        out = modes;
        return !queryFails;
    }
};

CameraCapabilityEx wantedOf(std::uint32_t w, std::uint32_t h, std::uint32_t num, std::uint32_t den = 1)
{
    CameraCapabilityEx wanted;
    wanted.width = w;
    wanted.height = h;
    wanted.frameRate = {num, den};
    return wanted;
}

// width, height, numerator, denominator
std::vector<std::uint32_t> fieldsOf(const CameraCapabilityEx& c)
{
    return {c.width, c.height, c.frameRate.numerator, c.frameRate.denominator};
}

TEST(BaseCameraFrameRate, ReducesRoundsHalfAwayMapsDegenerateFractionsToZeroAndStartsCaptureWithIt)
{
    const struct {
        std::uint32_t numerator, denominator, expected;
    } cases[] = {{30000, 1001, 30},
                 {25, 2, 13},
                 {15, 1, 15},
                 {60000, 2002, 30},
                 {49, 2, 25},
                 {1, 3, 0},
                 {0, 1, 0},
                 {0, 0, 0},
                 {30, 0, 0} /* infinite */,
                 {UINT32_MAX, 1, UINT32_MAX},
                 {UINT32_MAX, UINT32_MAX, 1}};
    for (const auto& c : cases)
        EXPECT_EQ(frameRateToInteger(c.numerator, c.denominator), c.expected) << c.numerator << "/" << c.denominator;

    // Starting with an exact rate starts the plug-in with the rounded one.
    ScriptedCamera camera;
    ASSERT_TRUE(camera.startCapture(wantedOf(1920, 1080, 30000, 1001), PixelFormat::YUV420Planar));
    ASSERT_TRUE(camera.startCapture(wantedOf(640, 480, 0, 1), kNv12));
    ASSERT_EQ(camera.started.size(), 2u);
    const CameraCapability& first = camera.started[0].first;
    EXPECT_EQ((std::vector<std::uint32_t>{first.width, first.height, first.frameRate}),
              (std::vector<std::uint32_t>{1920, 1080, 30}));
    EXPECT_EQ(camera.started[0].second, PixelFormat::YUV420Planar);
    EXPECT_EQ(camera.started[1].first.frameRate, 0u);
}

TEST(BaseCameraClosest, NarrowsByPriorityRoundsRatesAndBreaksTiesByListOrder)
{
    const std::vector<CameraCapability> mixed = {{1280, 720, 15}, {1280, 960, 30}, {1920, 1080, 30}, {640, 720, 30}};
    const std::vector<CameraCapability> rates = {{640, 480, 60}, {640, 480, 30}, {640, 480, 0}, {640, 480, 24}};
    const struct {
        std::vector<CameraCapability> modes;
        CameraCapabilityEx wanted;
        int priority;
        CameraCapability expected;
    } cases[] = {
        // Width keeps the 1280s, height then 1280x720.
        {mixed, wantedOf(1280, 720, 30), 0, {1280, 720, 15}},
        {mixed, wantedOf(1280, 720, 30), 1, {1280, 720, 15}},
        {mixed, wantedOf(1280, 720, 30), 2, {1280, 960, 30}},
        {mixed, wantedOf(1280, 720, 30), 3, {640, 720, 30}},
        // 600 and 680 are both 40 from 640: the first listed wins.
        {{{680, 480, 30}, {600, 480, 30}, {680, 480, 30}}, wantedOf(640, 480, 30), 0, {680, 480, 30}},
        {{{600, 480, 30}, {680, 480, 30}}, wantedOf(640, 480, 30), 0, {600, 480, 30}},
        {rates, wantedOf(640, 480, 30000, 1001), 2, {640, 480, 30}},
        {rates, wantedOf(640, 480, 0, 1), 2, {640, 480, 0}},
        {rates, wantedOf(640, 480, 24000, 1001), 2, {640, 480, 24}},
        // Unknown priorities apply no filter: the first mode.
        {{{320, 240, 5}, {1280, 720, 30}}, wantedOf(1280, 720, 30), 7, {320, 240, 5}},
        {{{320, 240, 5}, {1280, 720, 30}}, wantedOf(1280, 720, 30), -1, {320, 240, 5}},
        {{{320, 240, 5}, {1280, 720, 30}}, wantedOf(1280, 720, 30), 4, {320, 240, 5}},
        // 4294967000 is -296 read as a signed difference from 0: nearer than 1000.
        {{{1000, 1, 1}, {4294967000u, 1, 1}}, wantedOf(0, 1, 1), 0, {4294967000u, 1, 1}},
    };
    for (const auto& c : cases) {
        ScriptedCamera camera;
        camera.modes = c.modes;
        CameraCapabilityEx found;
        ASSERT_TRUE(camera.findClosestCapability(PixelFormat::Invalid, c.wanted, found, Priority(c.priority)));
        EXPECT_EQ(fieldsOf(found),
                  (std::vector<std::uint32_t>{c.expected.width, c.expected.height, c.expected.frameRate, 1}))
            << "wanted " << c.wanted.width << "x" << c.wanted.height << "@" << c.wanted.frameRate.numerator << "/"
            << c.wanted.frameRate.denominator << ", priority " << c.priority;
    }
}

TEST(BaseCameraClosest, NoModesLeaveFoundAloneAndPluginErrorsPropagate)
{
    ScriptedCamera camera;
    CameraCapabilityEx found = wantedOf(11, 22, 33, 44);
    EXPECT_FALSE(camera.findClosestCapability(PixelFormat::Invalid, wantedOf(1, 1, 1), found, Priority(0)));
    camera.modes = {{320, 240, 5}};
    camera.queryFails = true;
    EXPECT_FALSE(camera.findClosestCapability(PixelFormat::Invalid, wantedOf(1, 1, 1), found, Priority(0)));
    EXPECT_EQ(fieldsOf(found), (std::vector<std::uint32_t>{11, 22, 33, 44}));
    camera.throwOnQuery = true;
    EXPECT_THROW(camera.findClosestCapability(PixelFormat::Invalid, wantedOf(1, 1, 1), found, Priority(0)),
                 std::runtime_error);
}

TEST(BaseCameraFormats, FormatAndModifierChecksAndRanges)
{
    ScriptedCamera camera;
    const PixelFormat yuyv = fourcc('Y', 'U', 'Y', 'V');
    camera.formats = {{kNv12, 0}, {yuyv, 7}, {kNv12, 0}};
    EXPECT_EQ(camera.getSupportedPixelFormats(), (std::vector<PixelFormat>{kNv12, yuyv, kNv12}));
    EXPECT_TRUE(camera.isFormatSupported(yuyv));
    EXPECT_TRUE(camera.isFormatSupported(PixelFormatDescription{yuyv, 7}));
    EXPECT_FALSE(camera.isFormatSupported(PixelFormatDescription{yuyv, 0}));
    EXPECT_FALSE(camera.isFormatSupported(PixelFormat::YUV420Planar));

    CameraCapabilityRanges r;
    camera.modes = {{0, 480, 30}, {640, 0, 15}, {320, 240, 0}};
    EXPECT_FALSE(camera.queryCapabilityRanges(PixelFormat::YUV420Planar, r)) << "format not listed";
    ASSERT_TRUE(camera.queryCapabilityRanges(kNv12, r));
    // A leading 0 counts as unset, a 0 in the middle is replaced by the next
    // value; only a 0 in the last mode stays the minimum.
    EXPECT_EQ((std::vector<std::uint32_t>{r.minWidth, r.maxWidth, r.stepWidth, r.minHeight, r.maxHeight, r.stepHeight,
                                          r.minFrameRate.numerator, r.minFrameRate.denominator,
                                          r.maxFrameRate.numerator, r.maxFrameRate.denominator,
                                          r.stepFrameRate.numerator, r.stepFrameRate.denominator}),
              (std::vector<std::uint32_t>{320, 640, 0, 240, 480, 0, 0, 1, 30, 1, 0, 1}));
    camera.modes.clear();
    EXPECT_FALSE(camera.queryCapabilityRanges(kNv12, r));
}

// A manager whose cameras are ScriptedCameras; counts how often it opens one.
class ScriptedManager : public Internal::BaseCameraManager {
public:
    int opened = 0;
    bool throwing = false;
    std::weak_ptr<Camera> lastCamera;
    bool init() override { return true; }
    int getNumberOfCameras() override { return 1; }
    bool getCameraInfo(unsigned int, CameraInfo&) override { return false; }
    bool queryCapabilities(const std::string&, std::vector<CameraCapability>&) override { return false; }
    std::shared_ptr<Camera> openCamera(const std::string& id) override
    {
        if (id != "cam")
            return nullptr;
        ++opened;
        auto camera = std::make_shared<ScriptedCamera>();
        camera->formats = {{PixelFormat::YUV420Planar, 3}};
        camera->modes = {{640, 480, 30}, {320, 240, 15}};
        camera->throwOnQuery = throwing;
        lastCamera = camera;
        return camera;
    }
};

TEST(BaseCameraManagerOps, EveryCallOpensItsOwnCameraAndReleasesIt)
{
    ScriptedManager manager;
    auto formats = manager.getSupportedFormats("cam");
    ASSERT_EQ(formats.size(), 1u);
    EXPECT_EQ(formats[0].modifier, 3u);
    CameraCapabilityRanges ranges;
    ASSERT_TRUE(manager.queryCapabilityRanges("cam", PixelFormat::YUV420Planar, ranges));
    EXPECT_EQ(ranges.minWidth, 320u);
    CameraCapabilityEx found;
    ASSERT_TRUE(manager.findClosestCapability("cam", PixelFormat::YUV420Planar, wantedOf(300, 200, 10), found,
                                              Priority::WidthHeightFrameRate));
    EXPECT_EQ(fieldsOf(found), (std::vector<std::uint32_t>{320, 240, 15, 1}));
    EXPECT_EQ(manager.opened, 3);
    EXPECT_TRUE(manager.lastCamera.expired());

    EXPECT_TRUE(manager.getSupportedFormats("other").empty());
    EXPECT_FALSE(manager.queryCapabilityRanges("other", PixelFormat::YUV420Planar, ranges));
    EXPECT_FALSE(manager.findClosestCapability("other", PixelFormat::YUV420Planar, wantedOf(1, 1, 1), found,
                                               Priority::WidthHeightFrameRate));

    manager.throwing = true;
    EXPECT_THROW(manager.findClosestCapability("cam", PixelFormat::YUV420Planar, wantedOf(1, 1, 1), found,
                                               Priority::WidthHeightFrameRate),
                 std::runtime_error);
    EXPECT_TRUE(manager.lastCamera.expired()) << "the camera is released on the exception path too";
}

TEST(CameraListenerSlots, SetListenerIsReentrantFromAListener)
{
    ScriptedCamera camera;
    struct Reentrant : CameraListener {
        ScriptedCamera* camera = nullptr;
        int errors = 0;
        void onError(const std::string&) override
        {
            ++errors;
            camera->setListener(nullptr); // recursive mutex: no self-deadlock
        }
    } reentrant;
    reentrant.camera = &camera;
    camera.setListener(&reentrant);
    camera.reportError("x");
    camera.reportError("y");
    EXPECT_EQ(reentrant.errors, 1);
}

} // namespace
