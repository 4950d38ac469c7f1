// The camera base classes on a camera the test scripts, and the ordering of the camera list.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <stdexcept>

#include <lumiflux/camera_base.h>

#include "camera/camera_sort.h"

namespace {

using namespace Tevara::Lumiflux;
using Internal::frameRateToInteger;
using Priority = CameraCapabilityPriority;
constexpr PixelFormat kNv12 = PixelFormat::YUV420SemiPlanar;

// A camera whose modes and formats the test sets; it records what the base class starts.
struct ScriptedCamera : Internal::BaseCamera {
    using Internal::BaseCamera::startCapture;
    std::vector<CameraCapability> modes;
    std::vector<PixelFormatDescription> formats;
    bool queryFails = false, throwOnQuery = false;
    std::vector<std::pair<CameraCapability, PixelFormat>> started;
    void reportError(const std::string& message) // as a plug-in reports: under the listener mutex
    {
        std::lock_guard<std::recursive_mutex> lock(listenerMutex);
        listener ? listener->onError(message) : void();
    }
    bool startCapture(const CameraCapability& mode, PixelFormat format) override
    {
        return started.emplace_back(mode, format), true;
    }
    bool queryCapabilities(std::vector<CameraCapability>& out) override
    {
        if (throwOnQuery)
            throw std::runtime_error("device gone");
        return out = modes, !queryFails;
    }
    std::vector<PixelFormatDescription> getSupportedFormats() override { return formats; }
    bool getInfo(CameraInfo&) override { return false; }
    bool stopCapture() override { return false; }
    bool isCapturing() override { return false; }
    bool takePicture() override { return false; }
    bool getParameter(const std::string&, std::string&) override { return false; }
    bool setParameter(const std::string&, const std::string&) override { return false; }
};

std::vector<std::uint32_t> fieldsOf(const CameraCapabilityEx& c)
{
    return {c.width, c.height, c.frameRate.numerator, c.frameRate.denominator};
}

TEST(BaseCameraFrameRate, ReducesRoundsHalfAwayMapsDegenerateFractionsToZeroAndStartsCaptureWithIt)
{
    // numerator, denominator, expected; x/0 is infinite: no meaningful rate
    // clang-format off
    const std::uint32_t cases[][3] = {{30000, 1001, 30}, {25, 2, 13}, {15, 1, 15}, {60000, 2002, 30}, {49, 2, 25},
        {1, 3, 0}, {0, 1, 0}, {0, 0, 0}, {30, 0, 0}, {UINT32_MAX, 1, UINT32_MAX}, {UINT32_MAX, UINT32_MAX, 1},
        {96, 64, 2}, {64, 96, 1}};
    // clang-format on
    for (const auto& c : cases)
        EXPECT_EQ(frameRateToInteger(c[0], c[1]), c[2]) << c[0] << "/" << c[1];
    ScriptedCamera camera;
    ASSERT_TRUE(camera.startCapture(CameraCapabilityEx{1920, 1080, {30000, 1001}}, PixelFormat::YUV420Planar) &&
                camera.startCapture(CameraCapabilityEx{640, 480, {0, 1}}, kNv12));
    const auto& [first, format] = camera.started.at(0);
    EXPECT_EQ((std::vector<std::uint32_t>{first.width, first.height, first.frameRate,
                                          camera.started.at(1).first.frameRate, static_cast<std::uint32_t>(format)}),
              (std::vector<std::uint32_t>{1920, 1080, 30, 0, static_cast<std::uint32_t>(PixelFormat::YUV420Planar)}));
}

TEST(BaseCameraClosest, NarrowsByPriorityRoundsRatesAndBreaksTiesByListOrder)
{
    const std::vector<CameraCapability> mixed = {{1280, 720, 15}, {1280, 960, 30}, {1920, 1080, 30}, {640, 720, 30}};
    const std::vector<CameraCapability> rates = {{640, 480, 60}, {640, 480, 30}, {640, 480, 0}, {640, 480, 24}};
    const std::vector<CameraCapability> other = {{1280, 720, 30}, {640, 480, 30}, {640, 720, 30}, {320, 240, 15}};
    const struct {
        std::vector<CameraCapability> modes;
        CameraCapabilityEx wanted;
        int priority;
        CameraCapability expected;
    } cases[] = {
        // Width keeps the 1280s, height then 1280x720.
        {mixed, CameraCapabilityEx{1280, 720, {30, 1}}, 0, {1280, 720, 15}},
        {mixed, CameraCapabilityEx{1280, 720, {30, 1}}, 1, {1280, 720, 15}},
        {mixed, CameraCapabilityEx{1280, 720, {30, 1}}, 2, {1280, 960, 30}},
        {mixed, CameraCapabilityEx{1280, 720, {30, 1}}, 3, {640, 720, 30}},
        {other, CameraCapabilityEx{640, 700, {30, 1}}, 0, {640, 720, 30}},
        {other, CameraCapabilityEx{1200, 480, {30, 1}}, 1, {640, 480, 30}},
        // 600 and 680 are both 40 from 640: the first listed wins.
        {{{680, 480, 30}, {600, 480, 30}, {680, 480, 30}}, CameraCapabilityEx{640, 480, {30, 1}}, 0, {680, 480, 30}},
        {{{600, 480, 30}, {680, 480, 30}}, CameraCapabilityEx{640, 480, {30, 1}}, 0, {600, 480, 30}},
        {rates, CameraCapabilityEx{640, 480, {30000, 1001}}, 2, {640, 480, 30}},
        {rates, CameraCapabilityEx{640, 480, {0, 1}}, 2, {640, 480, 0}},
        {rates, CameraCapabilityEx{640, 480, {24000, 1001}}, 2, {640, 480, 24}},
        // Unknown priorities apply no filter: the first mode.
        {{{320, 240, 5}, {1280, 720, 30}}, CameraCapabilityEx{1280, 720, {30, 1}}, -1, {320, 240, 5}},
        {{{320, 240, 5}, {1280, 720, 30}}, CameraCapabilityEx{1280, 720, {30, 1}}, 4, {320, 240, 5}},
        // 4294967000 is -296 read as a signed difference from 0: nearer than 1000.
        {{{1000, 1, 1}, {4294967000u, 1, 1}}, CameraCapabilityEx{0, 1, {1, 1}}, 0, {4294967000u, 1, 1}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("case " + std::to_string(&c - cases));
        ScriptedCamera camera;
        camera.modes = c.modes;
        CameraCapabilityEx found;
        ASSERT_TRUE(camera.findClosestCapability(PixelFormat::Invalid, c.wanted, found, Priority(c.priority)));
        EXPECT_EQ(fieldsOf(found),
                  (std::vector<std::uint32_t>{c.expected.width, c.expected.height, c.expected.frameRate, 1}));
    }
    // No modes, or a failing plug-in: false and `found` untouched; exceptions reach the caller.
    ScriptedCamera camera;
    CameraCapabilityEx found = CameraCapabilityEx{11, 22, {33, 44}};
    auto find = [&] { return camera.findClosestCapability(PixelFormat::Invalid, {1, 1, {1, 1}}, found, Priority(0)); };
    EXPECT_FALSE(find());
    camera.modes = {{320, 240, 5}};
    camera.queryFails = true;
    EXPECT_FALSE(find());
    EXPECT_EQ(fieldsOf(found), (std::vector<std::uint32_t>{11, 22, 33, 44}));
    camera.throwOnQuery = true;
    EXPECT_THROW(find(), std::runtime_error);
}

TEST(BaseCameraFormats, FormatAndModifierChecksAndRanges)
{
    ScriptedCamera camera;
    const PixelFormat yuyv = fourcc('Y', 'U', 'Y', 'V');
    camera.formats = {{kNv12, 0}, {yuyv, 7}, {kNv12, 0}};
    EXPECT_EQ(camera.getSupportedPixelFormats(), (std::vector<PixelFormat>{kNv12, yuyv, kNv12}));
    EXPECT_TRUE(camera.isFormatSupported(yuyv) && camera.isFormatSupported(PixelFormatDescription{yuyv, 7}));
    EXPECT_FALSE(camera.isFormatSupported(PixelFormatDescription{yuyv, 0}) ||
                 camera.isFormatSupported(PixelFormat::YUV420Planar));
    CameraCapabilityRanges r;
    camera.modes = {{0, 480, 30}, {640, 0, 15}, {320, 240, 0}};
    EXPECT_FALSE(camera.queryCapabilityRanges(PixelFormat::YUV420Planar, r)) << "format not listed";
    ASSERT_TRUE(camera.queryCapabilityRanges(kNv12, r));
    // A 0 counts as unset and is replaced by the next value; only a 0 in the last mode stays.
    EXPECT_EQ((std::vector<std::uint32_t>{r.minWidth, r.maxWidth, r.stepWidth, r.minHeight, r.maxHeight, r.stepHeight,
                                          r.minFrameRate.numerator, r.minFrameRate.denominator,
                                          r.maxFrameRate.numerator, r.maxFrameRate.denominator,
                                          r.stepFrameRate.numerator, r.stepFrameRate.denominator}),
              (std::vector<std::uint32_t>{320, 640, 0, 240, 480, 0, 0, 1, 30, 1, 0, 1}));
    camera.modes.clear();
    EXPECT_FALSE(camera.queryCapabilityRanges(kNv12, r));
    camera.modes = {{320, 240, 5}}, camera.queryFails = true;
    EXPECT_FALSE(camera.queryCapabilityRanges(kNv12, r));
}

TEST(CameraListenerSlots, SetListenerTakesEffectAndIsReentrantFromAListener)
{
    ScriptedCamera camera;
    struct Reentrant : CameraListener {
        Camera* camera;
        int errors = 0;
        void onError(const std::string&) override { ++errors, camera->setListener(nullptr); } // recursive mutex
    } reentrant;
    reentrant.camera = &camera;
    camera.setListener(&reentrant);
    camera.reportError("x");
    camera.reportError("y");
    EXPECT_EQ(reentrant.errors, 1);
}

// Up to 16 cameras equal facings keep their order; beyond, sorted, nothing lost or duplicated.
TEST(CameraSort, SortsEveryShapeAndUpToSixteenIsStable)
{
    std::mt19937 random(1234);
    for (int n : {0, 1, 2, 3, 5, 8, 12, 15, 16, 17, 33, 100, 1000})
        for (int shape = 0; shape < 5; ++shape) {
            SCOPED_TRACE("n=" + std::to_string(n) + " shape " + std::to_string(shape));
            std::vector<CameraInfo> cameras;
            for (int i = 0; i < n; ++i) {
                const int facings[] = {static_cast<int>(random() % 7) - 3,   // duplicates, negatives
                                       i, n - i, 0, i % 2 == 0 ? i : n - i}; // sorted, reversed, equal, organ pipe
                cameras.push_back({std::to_string(i), "", "", facings[shape], 0, ""});
            }
            auto expected = cameras;
            std::stable_sort(expected.begin(), expected.end(), [](auto& a, auto& b) { return a.facing < b.facing; });
            Internal::sortCamerasByFacing(cameras);
            // Beyond 16 only facings in order and the same set of ids: equal facings may swap.
            auto key = [n](const CameraInfo& c) { return std::to_string(c.facing) + (n > 16 ? "" : "/" + c.id); };
            std::vector<std::string> got, want;
            std::multiset<std::string> ids, expectedIds;
            for (size_t i = 0; i < cameras.size(); ++i)
                got.push_back(key(cameras[i])), want.push_back(key(expected[i])), ids.insert(cameras[i].id),
                    expectedIds.insert(expected[i].id);
            EXPECT_EQ(got, want);
            EXPECT_EQ(ids, expectedIds);
        }
}

} // namespace
