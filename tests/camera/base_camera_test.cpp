// The camera base classes, on a camera whose primitive operations the test
// controls.

#include <gtest/gtest.h>

#include <stdexcept>

#include <lumiflux/camera_base.h>

namespace {

using namespace Tevara::Lumiflux;
using Internal::frameRateToInteger;

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

::testing::AssertionResult isMode(const CameraCapabilityEx& found, std::uint32_t w, std::uint32_t h, std::uint32_t fps)
{
    if (found.width == w && found.height == h && found.frameRate.numerator == fps && found.frameRate.denominator == 1)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << found.width << "x" << found.height << "@" << found.frameRate.numerator
                                         << "/" << found.frameRate.denominator << " instead of " << w << "x" << h << "@"
                                         << fps << "/1";
}

TEST(BaseCameraFrameRate, ReducesRoundsHalfAwayAndMapsDegenerateFractionsToZero)
{
    EXPECT_EQ(frameRateToInteger(30000, 1001), 30u);
    EXPECT_EQ(frameRateToInteger(25, 2), 13u); // 12.5 rounds away from zero
    EXPECT_EQ(frameRateToInteger(15, 1), 15u);
    EXPECT_EQ(frameRateToInteger(60000, 2002), 30u);
    EXPECT_EQ(frameRateToInteger(49, 2), 25u); // 24.5
    EXPECT_EQ(frameRateToInteger(1, 3), 0u);   // 0.33
    EXPECT_EQ(frameRateToInteger(0, 1), 0u);
    EXPECT_EQ(frameRateToInteger(0, 0), 0u);
    EXPECT_EQ(frameRateToInteger(30, 0), 0u); // infinite, converted to 0
    EXPECT_EQ(frameRateToInteger(UINT32_MAX, 1), UINT32_MAX);
    EXPECT_EQ(frameRateToInteger(UINT32_MAX, UINT32_MAX), 1u);
}

TEST(BaseCameraClosest, EachPriorityNarrowsInItsOwnOrder)
{
    ScriptedCamera camera;
    camera.modes = {{1280, 720, 15}, {1280, 960, 30}, {1920, 1080, 30}, {640, 720, 30}};
    CameraCapabilityEx found;

    ASSERT_TRUE(camera.findClosestCapability(PixelFormat::YUV420SemiPlanar, wantedOf(1280, 720, 30), found,
                                             CameraCapabilityPriority::WidthHeightFrameRate));
    EXPECT_TRUE(isMode(found, 1280, 720, 15)); // width keeps the 1280s, height then 720
    ASSERT_TRUE(camera.findClosestCapability(PixelFormat::YUV420SemiPlanar, wantedOf(1280, 720, 30), found,
                                             CameraCapabilityPriority::HeightWidthFrameRate));
    EXPECT_TRUE(isMode(found, 1280, 720, 15)); // height 720: 1280x720 and 640x720, width then 1280
    ASSERT_TRUE(camera.findClosestCapability(PixelFormat::YUV420SemiPlanar, wantedOf(1280, 720, 30), found,
                                             CameraCapabilityPriority::FrameRateWidthHeight));
    EXPECT_TRUE(isMode(found, 1280, 960, 30)); // rate 30, then width 1280, then 960
    ASSERT_TRUE(camera.findClosestCapability(PixelFormat::YUV420SemiPlanar, wantedOf(1280, 720, 30), found,
                                             CameraCapabilityPriority::FrameRateHeightWidth));
    EXPECT_TRUE(isMode(found, 640, 720, 30)); // rate 30, then height 720
}

TEST(BaseCameraClosest, TiesGoToTheFirstListedAndDistancesAreSymmetric)
{
    ScriptedCamera camera;
    // 600 and 680 are both 40 from 640: the first listed wins.
    camera.modes = {{680, 480, 30}, {600, 480, 30}, {680, 480, 30}};
    CameraCapabilityEx found;
    ASSERT_TRUE(camera.findClosestCapability(PixelFormat::Invalid, wantedOf(640, 480, 30), found,
                                             CameraCapabilityPriority::WidthHeightFrameRate));
    EXPECT_TRUE(isMode(found, 680, 480, 30));

    camera.modes = {{600, 480, 30}, {680, 480, 30}};
    ASSERT_TRUE(camera.findClosestCapability(PixelFormat::Invalid, wantedOf(640, 480, 30), found,
                                             CameraCapabilityPriority::WidthHeightFrameRate));
    EXPECT_TRUE(isMode(found, 600, 480, 30));
}

TEST(BaseCameraClosest, ExactRatesAreRoundedBeforeMatching)
{
    ScriptedCamera camera;
    camera.modes = {{640, 480, 60}, {640, 480, 30}, {640, 480, 0}, {640, 480, 24}};
    CameraCapabilityEx found;
    ASSERT_TRUE(camera.findClosestCapability(PixelFormat::Invalid, wantedOf(640, 480, 30000, 1001), found,
                                             CameraCapabilityPriority::FrameRateWidthHeight));
    EXPECT_TRUE(isMode(found, 640, 480, 30));
    ASSERT_TRUE(camera.findClosestCapability(PixelFormat::Invalid, wantedOf(640, 480, 0, 1), found,
                                             CameraCapabilityPriority::FrameRateWidthHeight));
    EXPECT_TRUE(isMode(found, 640, 480, 0));
    ASSERT_TRUE(camera.findClosestCapability(PixelFormat::Invalid, wantedOf(640, 480, 24000, 1001), found,
                                             CameraCapabilityPriority::FrameRateWidthHeight));
    EXPECT_TRUE(isMode(found, 640, 480, 24));
}

TEST(BaseCameraClosest, UnknownPriorityTakesTheFirstModeAndNoModesLeaveFoundAlone)
{
    ScriptedCamera camera;
    camera.modes = {{320, 240, 5}, {1280, 720, 30}};
    CameraCapabilityEx found;
    for (int priority : {7, -1, 4}) {
        ASSERT_TRUE(camera.findClosestCapability(PixelFormat::Invalid, wantedOf(1280, 720, 30), found,
                                                 static_cast<CameraCapabilityPriority>(priority)));
        EXPECT_TRUE(isMode(found, 320, 240, 5)) << "priority " << priority;
    }

    found = wantedOf(11, 22, 33, 44);
    camera.modes.clear();
    EXPECT_FALSE(camera.findClosestCapability(PixelFormat::Invalid, wantedOf(1, 1, 1), found,
                                              CameraCapabilityPriority::WidthHeightFrameRate));
    camera.modes = {{320, 240, 5}};
    camera.queryFails = true;
    EXPECT_FALSE(camera.findClosestCapability(PixelFormat::Invalid, wantedOf(1, 1, 1), found,
                                              CameraCapabilityPriority::WidthHeightFrameRate));
    EXPECT_EQ(found.width, 11u);
    EXPECT_EQ(found.frameRate.denominator, 44u);
}

TEST(BaseCameraClosest, HugeValuesWrapAsSignedDifferences)
{
    // 4294967000 is -296 read as a signed difference from 0, so it is nearer
    // to a request of 0 than 1000 is.
    ScriptedCamera camera;
    camera.modes = {{1000, 1, 1}, {4294967000u, 1, 1}};
    CameraCapabilityEx found;
    ASSERT_TRUE(camera.findClosestCapability(PixelFormat::Invalid, wantedOf(0, 1, 1), found,
                                             CameraCapabilityPriority::WidthHeightFrameRate));
    EXPECT_EQ(found.width, 4294967000u);
}

TEST(BaseCameraFormats, FormatAndModifierChecksAndRanges)
{
    ScriptedCamera camera;
    camera.formats = {
        {PixelFormat::YUV420SemiPlanar, 0}, {fourcc('Y', 'U', 'Y', 'V'), 7}, {PixelFormat::YUV420SemiPlanar, 0}};
    EXPECT_EQ(camera.getSupportedPixelFormats(),
              (std::vector<PixelFormat>{PixelFormat::YUV420SemiPlanar, fourcc('Y', 'U', 'Y', 'V'),
                                        PixelFormat::YUV420SemiPlanar}));
    EXPECT_TRUE(camera.isFormatSupported(fourcc('Y', 'U', 'Y', 'V')));
    EXPECT_TRUE(camera.isFormatSupported(PixelFormatDescription{fourcc('Y', 'U', 'Y', 'V'), 7}));
    EXPECT_FALSE(camera.isFormatSupported(PixelFormatDescription{fourcc('Y', 'U', 'Y', 'V'), 0}));
    EXPECT_FALSE(camera.isFormatSupported(PixelFormat::YUV420Planar));

    CameraCapabilityRanges ranges;
    camera.modes = {{0, 480, 30}, {640, 0, 15}, {320, 240, 0}};
    EXPECT_FALSE(camera.queryCapabilityRanges(PixelFormat::YUV420Planar, ranges)) << "format not listed";
    ASSERT_TRUE(camera.queryCapabilityRanges(PixelFormat::YUV420SemiPlanar, ranges));
    EXPECT_EQ(ranges.minWidth, 320u); // the leading 0 counts as unset
    EXPECT_EQ(ranges.maxWidth, 640u);
    EXPECT_EQ(ranges.minHeight, 240u); // a 0 in the middle is replaced by the next value
    EXPECT_EQ(ranges.maxHeight, 480u);
    EXPECT_EQ(ranges.minFrameRate.numerator, 0u); // only a 0 in the last mode stays
    EXPECT_EQ(ranges.maxFrameRate.numerator, 30u);
    EXPECT_EQ(ranges.minFrameRate.denominator, 1u);
    EXPECT_EQ(ranges.maxFrameRate.denominator, 1u);
    EXPECT_EQ(ranges.stepWidth, 0u);
    EXPECT_EQ(ranges.stepHeight, 0u);
    EXPECT_EQ(ranges.stepFrameRate.numerator, 0u);
    EXPECT_EQ(ranges.stepFrameRate.denominator, 1u);

    camera.modes.clear();
    EXPECT_FALSE(camera.queryCapabilityRanges(PixelFormat::YUV420SemiPlanar, ranges));
}

TEST(BaseCameraCapture, ExactRateStartPassesTheRoundedRateAndPluginErrorsPropagate)
{
    ScriptedCamera camera;
    ASSERT_TRUE(camera.startCapture(wantedOf(1920, 1080, 30000, 1001), PixelFormat::YUV420Planar));
    ASSERT_TRUE(camera.startCapture(wantedOf(640, 480, 0, 1), PixelFormat::YUV420SemiPlanar));
    ASSERT_EQ(camera.started.size(), 2u);
    EXPECT_EQ(camera.started[0].first.width, 1920u);
    EXPECT_EQ(camera.started[0].first.height, 1080u);
    EXPECT_EQ(camera.started[0].first.frameRate, 30u);
    EXPECT_EQ(camera.started[0].second, PixelFormat::YUV420Planar);
    EXPECT_EQ(camera.started[1].first.frameRate, 0u);

    camera.throwOnQuery = true;
    CameraCapabilityEx found;
    EXPECT_THROW(camera.findClosestCapability(PixelFormat::Invalid, wantedOf(1, 1, 1), found,
                                              CameraCapabilityPriority::WidthHeightFrameRate),
                 std::runtime_error);
}

// A manager whose cameras are ScriptedCameras; counts how often it opens one.
class ScriptedManager : public Internal::BaseCameraManager {
public:
    int opened = 0;
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
    bool throwing = false;
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
                                              CameraCapabilityPriority::WidthHeightFrameRate));
    EXPECT_TRUE(isMode(found, 320, 240, 15));
    EXPECT_EQ(manager.opened, 3);
    EXPECT_TRUE(manager.lastCamera.expired());

    EXPECT_TRUE(manager.getSupportedFormats("other").empty());
    EXPECT_FALSE(manager.queryCapabilityRanges("other", PixelFormat::YUV420Planar, ranges));
    EXPECT_FALSE(manager.findClosestCapability("other", PixelFormat::YUV420Planar, wantedOf(1, 1, 1), found,
                                               CameraCapabilityPriority::WidthHeightFrameRate));

    manager.throwing = true;
    EXPECT_THROW(manager.findClosestCapability("cam", PixelFormat::YUV420Planar, wantedOf(1, 1, 1), found,
                                               CameraCapabilityPriority::WidthHeightFrameRate),
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
