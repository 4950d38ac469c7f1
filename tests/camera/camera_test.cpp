// The camera base classes on a scripted camera, the ordering of the camera list, and the root camera
// manager over real fixture plug-ins (plug-in scan and root initialisation happen once per process).
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <set>
#include <stdexcept>

#include <lumiflux/camera_base.h>
#include <lumiflux/plugin.h>

#include "../fixtures/camera_module.h"
#include "camera/camera_sort.h"
#include "test_paths.h"

namespace {

using namespace Tevara::Lumiflux;

using Internal::frameRateToInteger;
using Priority = CameraCapabilityPriority;
constexpr PixelFormat kNv12 = PixelFormat::YUV420SemiPlanar;

auto fieldsOf = [](const CameraCapabilityEx& c) {
    return std::vector<std::uint32_t>{c.width, c.height, c.frameRate.numerator, c.frameRate.denominator};
};

TEST(BaseCameraFrameRate, ReducesRoundsHalfAwayAndMapsDegenerateFractionsToZero)
{
    // numerator, denominator, expected; x/0 is infinite: no meaningful rate
    // clang-format off
    const std::uint32_t cases[][3] = {{30000, 1001, 30}, {25, 2, 13}, {15, 1, 15}, {60000, 2002, 30}, {49, 2, 25},
        {1, 3, 0}, {0, 1, 0}, {0, 0, 0}, {30, 0, 0}, {UINT32_MAX, 1, UINT32_MAX}, {UINT32_MAX, UINT32_MAX, 1},
        {96, 64, 2}, {64, 96, 1}};
    // clang-format on
    for (const auto& c : cases)
        EXPECT_EQ(frameRateToInteger(c[0], c[1]), c[2]) << c[0] << "/" << c[1];
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
    camera.modes = {{320, 240, 5}}, camera.queryFails = true;
    EXPECT_FALSE(find());
    EXPECT_EQ(fieldsOf(found), (std::vector<std::uint32_t>{11, 22, 33, 44}));
    camera.throwOnQuery = true;
    EXPECT_THROW(find(), std::runtime_error);
}

TEST(BaseCameraFormats, FormatAndModifierChecksRangesAndTheListenerSlot)
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
    // setListener takes effect, also from inside a listener call.
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
TEST(CameraSort, UpToSixteenIsStableAndBeyondSorted)
{
    std::mt19937 random(1234);
    for (int n : {0, 1, 2, 5, 15, 16, 17, 33, 1000})
        for (int shape = 0; shape < 5; ++shape) { // random with duplicates, sorted, reversed, equal, organ pipe
            std::vector<CameraInfo> cameras;
            for (int i = 0; i < n; ++i)
                cameras.push_back({std::to_string(i), "", "",
                                   std::vector<int>{int(random() % 7) - 3, i, n - i, 0, i % 2 ? n - i : i}[shape], 0,
                                   ""});
            auto expected = cameras;
            std::stable_sort(expected.begin(), expected.end(), [](auto& a, auto& b) { return a.facing < b.facing; });
            Internal::sortCamerasByFacing(cameras);
            std::string got, want; // beyond 16, equal facings may swap: the ids are compared as a set
            std::multiset<std::string> ids, expectedIds;
            for (size_t i = 0; i < cameras.size(); ++i, got += " ", want += " ") {
                got += std::to_string(cameras[i].facing) + (n > 16 ? "" : "/" + cameras[i].id);
                want += std::to_string(expected[i].facing) + (n > 16 ? "" : "/" + expected[i].id);
                ids.insert(cameras[i].id), expectedIds.insert(expected[i].id);
            }
            EXPECT_EQ(got, want) << n << " shape " << shape;
            EXPECT_EQ(ids, expectedIds) << n << " shape " << shape;
        }
}

void add(FixtureCameraState* plugin, const std::string& id, int facing)
{
    plugin->cameras.push_back({id, "camera " + id, "", facing, 90, "fixture"});
}

std::vector<FixtureCameraState*> loadFixtures(const std::string& name, int count)
{
    const std::string dir = lumiflux_test::freshDirectory(name);
    for (int i = 0; i < count; ++i)
        std::filesystem::copy_file(lumiflux_test::buildDir() + "/fixtures/fixture_camera_module.so",
                                   dir + "/camera" + std::to_string(i) + ".so");
    setenv("LUMIFLUX_PLUGIN_DIR", dir.c_str(), 1);
    std::vector<FixtureCameraState*> result;
    for (const Plugin& plugin : PluginManager::get().listPlugins())
        result.push_back(reinterpret_cast<FixtureCameraState* (*)()>(dlsym(plugin.handle, "fixtureState"))());
    EXPECT_EQ(result.size(), static_cast<size_t>(count));
    return result;
}

std::vector<std::string> listed(CameraManager* manager)
{
    std::vector<std::string> ids;
    CameraInfo info;
    for (unsigned i = 0; manager->getCameraInfo(i, info); ++i)
        ids.push_back(info.id);
    return ids;
}

TEST(RootEnumeration, OrdersByFacingStablyUpToSixteenAndRoutesById)
{
    auto plugins = loadFixtures("root-order", 4);
    ASSERT_EQ(plugins.size(), 4u);
    for (size_t i = 0; i < plugins.size(); ++i)
        plugins[i]->tag = "p" + std::to_string(i);
    for (auto [id, facing] : {std::pair{"a-back", 1}, {"a-ext", 2}, {"a-back2", 1}, {"dup", 1}})
        add(plugins[0], id, facing);
    for (auto [id, facing] : {std::pair{"b-front", 0}, {"b-skipped", 0}, {"b-back", 1}, {"dup", 0}, {"b-neg", -3}})
        add(plugins[1], id, facing);
    plugins[1]->failIndex = 1;
    add(plugins[2], "c-front", 0);
    plugins[2]->growBy = 2; // two "late" cameras (facing 5) appear while the root lists
    add(plugins[3], "never", -9);
    plugins[3]->failInit = true;

    CameraManager* manager = LumifluxManager();
    EXPECT_TRUE(listed(manager).empty()) << "nothing is listed before getNumberOfCameras";
    const std::vector<std::string> expected = {"b-neg", "b-front", "dup",   "c-front",  "a-back",  "a-back2",
                                               "dup",   "b-back",  "a-ext", "p2-late1", "p2-late2"};
    ASSERT_EQ(manager->getNumberOfCameras(), static_cast<int>(expected.size()));
    EXPECT_EQ(listed(manager), expected);
    // The dup of facing 0 comes from the second plug-in, that of facing 1 from the first.
    CameraInfo first, second, third;
    ASSERT_TRUE(manager->getCameraInfo(0, first) && manager->getCameraInfo(2, second) &&
                manager->getCameraInfo(6, third));
    EXPECT_EQ((std::vector<std::string>{first.provider, first.name, first.description, std::to_string(first.mountAngle),
                                        second.provider, third.provider}),
              (std::vector<std::string>{"p1", "camera b-neg", "fixture", "90", "p1", "p0"}));
    EXPECT_FALSE(manager->getCameraInfo(static_cast<unsigned>(expected.size()), third));

    auto camera = manager->openCamera("dup");
    ASSERT_TRUE(camera && camera->getInfo(first));
    EXPECT_EQ(first.provider, "p1");
    // The base manager operations go through the owner's openCamera; a mode's width is its facing + 100.
    std::vector<CameraCapability> caps;
    CameraCapabilityRanges ranges;
    CameraCapabilityEx found;
    const auto nv12 = PixelFormat::YUV420SemiPlanar;
    const auto byWidth = CameraCapabilityPriority::WidthHeightFrameRate;
    ASSERT_TRUE(manager->queryCapabilities("dup", caps) && manager->queryCapabilityRanges("a-ext", nv12, ranges) &&
                manager->findClosestCapability("b-back", nv12, CameraCapabilityEx{}, found, byWidth));
    EXPECT_EQ((std::vector<std::uint32_t>{static_cast<std::uint32_t>(caps.size()), caps[0].width, ranges.maxWidth,
                                          found.width,
                                          static_cast<std::uint32_t>(manager->getSupportedFormats("c-front").size())}),
              (std::vector<std::uint32_t>{1, 100, 102, 101, 1}));
    // Unknown ids, a camera of a plug-in whose init or index failed, one gone since the listing.
    const auto saved = plugins[0]->cameras;
    plugins[0]->cameras.erase(plugins[0]->cameras.begin() + 2); // a-back2
    for (const char* id : {"never", "b-skipped", "", "a-back2"}) {
        SCOPED_TRACE(id);
        EXPECT_FALSE(manager->openCamera(id) || manager->queryCapabilities(id, caps) ||
                     !manager->getSupportedFormats(id).empty() || manager->queryCapabilityRanges(id, nv12, ranges) ||
                     manager->findClosestCapability(id, nv12, CameraCapabilityEx{}, found, byWidth));
    }
    plugins[0]->cameras = saved;
    EXPECT_EQ(manager->getNumberOfCameras(), static_cast<int>(expected.size()));
    EXPECT_EQ(listed(manager), expected);

    // A plug-in that throws while listed: the caller gets the exception.
    plugins[1]->throwOnInfo = true;
    EXPECT_THROW(manager->getNumberOfCameras(), std::runtime_error);
    plugins[1]->throwOnInfo = false; // then it answers again: the root's lock was released
    EXPECT_EQ(manager->getNumberOfCameras(), static_cast<int>(expected.size()));
}

} // namespace
