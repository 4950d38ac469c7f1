// The root camera manager over real fixture plug-ins. The plug-in scan and
// the root's initialisation happen once per process, so every suite here is
// its own CTest scenario with its own plug-in directory.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include <lumiflux/camera.h>
#include <lumiflux/plugin.h>

#include "../fixtures/camera_module.h"
#include "test_paths.h"

namespace {

using namespace Tevara::Lumiflux;

// One loaded copy of the fixture camera module, and the cameras it offers.
struct FixturePlugin {
    FixtureCameraState* state = nullptr;
    void* handle = nullptr;
    void add(const std::string& id, int facing) const
    {
        state->cameras.push_back({id, "camera " + id, "", facing, 90, "fixture"});
    }
    // Adds or removes the camera, then announces it from a thread of the plug-in.
    void fire(bool added, const std::string& id) const
    {
        auto& cameras = state->cameras;
        if (added)
            add(id, 0);
        else
            cameras.erase(std::remove_if(cameras.begin(), cameras.end(), [&](auto& c) { return c.id == id; }),
                          cameras.end());
        reinterpret_cast<void (*)(bool, const char*)>(dlsym(handle, "fixtureFire"))(added, id.c_str());
    }
};

// Copies the fixture module `count` times into a fresh plug-in directory and
// loads it; the copies come back in the order the plug-in manager loaded
// them, which is the order the root enumerates them in.
std::vector<FixturePlugin> loadFixtures(const std::string& name, int count)
{
    const std::string dir = lumiflux_test::freshDirectory(name);
    for (int i = 0; i < count; ++i)
        std::filesystem::copy_file(lumiflux_test::buildDir() + "/fixtures/fixture_camera_module.so",
                                   dir + "/camera" + std::to_string(i) + ".so");
    setenv("LUMIFLUX_PLUGIN_DIR", dir.c_str(), 1);
    std::vector<FixturePlugin> result;
    for (const Plugin& plugin : PluginManager::get().listPlugins())
        result.push_back(
            {reinterpret_cast<FixtureCameraState* (*)()>(dlsym(plugin.handle, "fixtureState"))(), plugin.handle});
    EXPECT_EQ(result.size(), static_cast<size_t>(count));
    return result;
}

// The ids as getCameraInfo gives them, index by index, until it fails.
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
    ASSERT_NE(manager, nullptr);
    EXPECT_EQ(LumifluxManager(), manager);
    EXPECT_TRUE(manager->init());
    EXPECT_EQ(manager->getNumberOfCameras(), 0);
    CameraInfo info;
    EXPECT_FALSE(manager->getCameraInfo(0, info));
    std::vector<CameraCapability> caps;
    EXPECT_FALSE(manager->queryCapabilities("x", caps));
    EXPECT_EQ(manager->openCamera("x"), nullptr);
}

TEST(RootEnumeration, OrdersByFacingStablyUpToSixteenAndRoutesById)
{
    auto plugins = loadFixtures("root-order", 4);
    ASSERT_EQ(plugins.size(), 4u);
    for (size_t i = 0; i < plugins.size(); ++i)
        plugins[i].state->tag = "p" + std::to_string(i);
    for (auto [id, facing] : {std::pair{"a-back", 1}, {"a-ext", 2}, {"a-back2", 1}, {"dup", 1}})
        plugins[0].add(id, facing);
    for (auto [id, facing] : {std::pair{"b-front", 0}, {"b-skipped", 0}, {"b-back", 1}, {"dup", 0}, {"b-neg", -3}})
        plugins[1].add(id, facing);
    plugins[1].state->failIndex = 1;
    plugins[2].add("c-front", 0);
    plugins[2].state->growBy = 2; // two "late" cameras (facing 5) appear while the root lists
    plugins[3].add("never", -9);
    plugins[3].state->failInit = true;

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
    ASSERT_NE(camera, nullptr);
    ASSERT_TRUE(camera->getInfo(first));
    EXPECT_EQ(first.provider, "p1");
    std::vector<CameraCapability> caps;
    ASSERT_TRUE(manager->queryCapabilities("dup", caps));
    ASSERT_EQ(caps.size(), 1u);
    EXPECT_EQ(caps[0].width, 100u); // facing 0 + 100
    // The base manager operations go through the owner's openCamera.
    ASSERT_EQ(manager->getSupportedFormats("c-front").size(), 1u);
    CameraCapabilityRanges ranges;
    ASSERT_TRUE(manager->queryCapabilityRanges("a-ext", PixelFormat::YUV420SemiPlanar, ranges));
    EXPECT_EQ(ranges.maxWidth, 102u);
    CameraCapabilityEx found;
    ASSERT_TRUE(manager->findClosestCapability("b-back", PixelFormat::YUV420SemiPlanar, CameraCapabilityEx{}, found,
                                               CameraCapabilityPriority::WidthHeightFrameRate));
    EXPECT_EQ(found.width, 101u);
    // Unknown ids, the camera of the plug-in whose init failed, an index that
    // failed, and a camera its plug-in no longer opens (gone since the listing).
    const auto saved = plugins[0].state->cameras;
    plugins[0].state->cameras.erase(plugins[0].state->cameras.begin() + 2); // a-back2
    for (const char* id : {"never", "b-skipped", "", "a-back2"}) {
        SCOPED_TRACE(id);
        EXPECT_EQ(manager->openCamera(id), nullptr);
        EXPECT_FALSE(manager->queryCapabilities(id, caps));
        EXPECT_TRUE(manager->getSupportedFormats(id).empty());
        EXPECT_FALSE(manager->queryCapabilityRanges(id, PixelFormat::YUV420SemiPlanar, ranges));
        EXPECT_FALSE(manager->findClosestCapability(id, PixelFormat::YUV420SemiPlanar, CameraCapabilityEx{}, found,
                                                    CameraCapabilityPriority::WidthHeightFrameRate));
    }
    // Every call re-enumerates; the list is stable when nothing changed.
    plugins[0].state->cameras = saved;
    EXPECT_EQ(manager->getNumberOfCameras(), static_cast<int>(expected.size()));
    EXPECT_EQ(listed(manager), expected);

    // Sixteen cameras with interleaved equal facings keep their enumeration order.
    for (auto& plugin : plugins)
        plugin.state->cameras.clear(), plugin.state->failIndex = -1;
    std::vector<std::string> sixteen;
    for (int i = 0; i < 16; ++i)
        plugins[i / 8].add("camera" + std::to_string(i), (i * 5) % 3);
    for (int facing = 0; facing < 3; ++facing)
        for (int i = 0; i < 16; ++i)
            if ((i * 5) % 3 == facing)
                sixteen.push_back("camera" + std::to_string(i));
    EXPECT_EQ(manager->getNumberOfCameras(), 16);
    EXPECT_EQ(listed(manager), sixteen);
    // A plug-in that throws while listed: the exception reaches the caller
    // and the lock is released, so the next enumeration runs (no deadlock).
    plugins[1].state->throwOnInfo = true;
    EXPECT_THROW(manager->getNumberOfCameras(), std::runtime_error);
    plugins[1].state->throwOnInfo = false;
    EXPECT_EQ(manager->getNumberOfCameras(), 16);
}

// Records each hot-plug event with the list a query from inside the callback sees.
struct RecordingListener : CameraManagerListener {
    void onCameraAdded(const std::string& id) override { record("added " + id + ":"); }
    void onCameraRemoved(const std::string& id) override { record("removed " + id + ":"); }
    void record(std::string event)
    {
        for (const auto& id : listed(manager))
            event += " " + id;
        events.push_back(event);
        threads.push_back(std::this_thread::get_id());
        manager->setListener(this); // the listener mutex is recursive
    }
    CameraManager* manager = LumifluxManager();
    std::vector<std::string> events;
    std::vector<std::thread::id> threads;
};

TEST(RootHotPlug, NotificationsFromAPluginThreadSeeTheRefreshedList)
{
    auto plugins = loadFixtures("root-hotplug", 2);
    ASSERT_EQ(plugins.size(), 2u);
    plugins[0].add("one", 1);
    plugins[1].add("two", 1);
    RecordingListener listener;
    CameraManager* manager = listener.manager;
    plugins[1].fire(true, "early"); // before any enumeration the root is nobody's listener yet
    manager->setListener(&listener);
    ASSERT_EQ(manager->getNumberOfCameras(), 3);
    plugins[1].fire(true, "hot");
    plugins[0].fire(false, "one");
    manager->setListener(nullptr);
    plugins[1].fire(false, "two");
    EXPECT_EQ(listener.events,
              (std::vector<std::string>{"added hot: early hot one two", "removed one: early hot two"}));
    ASSERT_EQ(listener.threads.size(), 2u);
    EXPECT_NE(listener.threads[0], std::this_thread::get_id());
    // The last removal went unheard but still refreshed the list.
    EXPECT_EQ(manager->openCamera("two"), nullptr);
    EXPECT_EQ(listed(manager), (std::vector<std::string>{"early", "hot"}));
}

} // namespace
