// The root camera manager over real fixture plug-ins. Plug-in scan and root initialisation happen
// once per process: every suite here is its own CTest scenario with its own plug-in directory.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>

#include <lumiflux/camera.h>
#include <lumiflux/plugin.h>

#include "../fixtures/camera_module.h"
#include "test_paths.h"

namespace {

using namespace Tevara::Lumiflux;

void add(FixtureCameraState* plugin, const std::string& id, int facing)
{
    plugin->cameras.push_back({id, "camera " + id, "", facing, 90, "fixture"});
}

// `count` copies of the fixture module from a fresh plug-in directory, in the root's enumeration order.
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

TEST(RootNoPlugins, ManagerExistsAndEveryCallFailsQuietly)
{
    setenv("LUMIFLUX_PLUGIN_DIR", (lumiflux_test::freshDirectory("root-none") + "/absent").c_str(), 1);
    CameraManager* manager = LumifluxManager();
    ASSERT_TRUE(manager && LumifluxManager() == manager && manager->init());
    EXPECT_EQ(manager->getNumberOfCameras(), 0);
    CameraInfo info;
    std::vector<CameraCapability> caps;
    EXPECT_FALSE(manager->getCameraInfo(0, info) || manager->queryCapabilities("x", caps) || manager->openCamera("x"));
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
    third.id = "kept";
    EXPECT_FALSE(manager->getCameraInfo(static_cast<unsigned>(expected.size()), third));
    EXPECT_EQ(third.id, "kept") << "out of range: the record is untouched";

    // The duplicated id reaches the later plug-in: its camera has facing 0.
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
    // Unknown ids, the camera of the plug-in whose init failed, an index that
    // failed, and a camera its plug-in no longer opens (gone since the listing).
    const auto saved = plugins[0]->cameras;
    plugins[0]->cameras.erase(plugins[0]->cameras.begin() + 2); // a-back2
    for (const char* id : {"never", "b-skipped", "", "a-back2"}) {
        SCOPED_TRACE(id);
        EXPECT_FALSE(manager->openCamera(id) || manager->queryCapabilities(id, caps) ||
                     !manager->getSupportedFormats(id).empty() || manager->queryCapabilityRanges(id, nv12, ranges) ||
                     manager->findClosestCapability(id, nv12, CameraCapabilityEx{}, found, byWidth));
    }
    // Every call re-enumerates; the list is stable when nothing changed.
    plugins[0]->cameras = saved;
    EXPECT_EQ(manager->getNumberOfCameras(), static_cast<int>(expected.size()));
    EXPECT_EQ(listed(manager), expected);

    // Sixteen cameras with interleaved equal facings keep their enumeration order.
    for (auto& plugin : plugins)
        plugin->cameras.clear(), plugin->failIndex = -1;
    std::vector<std::string> sixteen;
    for (int i = 0; i < 16; ++i)
        add(plugins[i / 8], "camera" + std::to_string(i), (i * 5) % 3);
    for (int facing = 0; facing < 3; ++facing)
        for (int i = 0; i < 16; ++i)
            if ((i * 5) % 3 == facing)
                sixteen.push_back("camera" + std::to_string(i));
    EXPECT_EQ(manager->getNumberOfCameras(), 16);
    EXPECT_EQ(listed(manager), sixteen);
    // A plug-in that throws while listed: the caller gets the exception, the lock is released.
    plugins[1]->throwOnInfo = true;
    EXPECT_THROW(manager->getNumberOfCameras(), std::runtime_error);
    plugins[1]->throwOnInfo = false; // then it answers again: the root's lock was released
    EXPECT_EQ(manager->getNumberOfCameras(), 16);
}

} // namespace
