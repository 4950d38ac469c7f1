// Hot-plug through GStreamer's device monitor: this test registers a device
// provider of its own before the camera plug-in starts its monitor, then
// adds and removes a device from a thread of its own, as a real provider
// does when a camera is plugged in or out.

#include <gtest/gtest.h>

#include <gst/gst.h>
#include <stdlib.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <thread>

#include <lumiflux/camera.h>
#include <lumiflux/graphic_buffer.h>
#include <lumiflux/plugin.h>

#include "test_paths.h"

namespace {

using namespace Tevara::Lumiflux;
namespace fs = std::filesystem;
using namespace std::chrono_literals;

// --- the test's device provider -------------------------------------------

struct PluggedDevice {
    GstDevice parent;
};
struct PluggedDeviceClass {
    GstDeviceClass parentClass;
};
struct PlugProvider {
    GstDeviceProvider parent;
};
struct PlugProviderClass {
    GstDeviceProviderClass parentClass;
};

std::mutex providerMutex;
GstDeviceProvider* startedProvider = nullptr; ///< the instance the monitor started

// The started provider. Called without providerMutex held while the device
// is added: the notification it leads to takes the root manager's lock,
// which is held while the monitor starts this provider (startProvider takes
// providerMutex): holding both in opposite orders could deadlock.
GstDeviceProvider* provider()
{
    std::lock_guard<std::mutex> lock(providerMutex);
    return startedProvider;
}

GstElement* createPluggedElement(GstDevice*, const gchar* name)
{
    GstElement* source = gst_element_factory_make("videotestsrc", name);
    if (source != nullptr) {
        g_object_set(source, "is-live", TRUE, nullptr);
        gst_util_set_object_arg(G_OBJECT(source), "pattern", "black");
    }
    return source;
}

GType pluggedDeviceType()
{
    static GType type = g_type_register_static_simple(
        GST_TYPE_DEVICE, "HotPlugTestDevice", sizeof(PluggedDeviceClass),
        [](gpointer klass, gpointer) { GST_DEVICE_CLASS(klass)->create_element = createPluggedElement; },
        sizeof(PluggedDevice), nullptr, GTypeFlags(0));
    return type;
}

gboolean startProvider(GstDeviceProvider* provider)
{
    std::lock_guard<std::mutex> lock(providerMutex);
    startedProvider = GST_DEVICE_PROVIDER(gst_object_ref(provider));
    return TRUE;
}

void stopProvider(GstDeviceProvider* provider)
{
    std::lock_guard<std::mutex> lock(providerMutex);
    if (startedProvider == provider) {
        gst_object_unref(startedProvider);
        startedProvider = nullptr;
    }
}

GList* probeProvider(GstDeviceProvider*)
{
    return nullptr; // nothing plugged in at start
}

GType plugProviderType()
{
    static GType type = g_type_register_static_simple(
        GST_TYPE_DEVICE_PROVIDER, "HotPlugTestProvider", sizeof(PlugProviderClass),
        [](gpointer klass, gpointer) {
            auto* providerClass = GST_DEVICE_PROVIDER_CLASS(klass);
            providerClass->probe = probeProvider;
            providerClass->start = startProvider;
            providerClass->stop = stopProvider;
            gst_device_provider_class_set_static_metadata(providerClass, "Hot-plug test provider", "Video/Source",
                                                          "Devices the test plugs in and out", "lumiflux tests");
        },
        sizeof(PlugProvider), nullptr, GTypeFlags(0));
    return type;
}

GstDevice* makePluggedDevice(const char* path)
{
    GstStructure* properties =
        gst_structure_new("hotplug-properties", "device.api", G_TYPE_STRING, "hotplug", "device.path", G_TYPE_STRING,
                          path, "camera.location", G_TYPE_STRING, "back", nullptr);
    GstCaps* caps = gst_caps_from_string("video/x-raw, format=NV12, width=160, height=120, framerate=30/1");
    auto* device =
        static_cast<GstDevice*>(g_object_new(pluggedDeviceType(), "display-name", "USB test camera", "device-class",
                                             "Video/Source", "caps", caps, "properties", properties, nullptr));
    gst_caps_unref(caps);
    gst_structure_free(properties);
    return device;
}

// --- the application side ----------------------------------------------------

class HotPlugListener : public CameraManagerListener {
public:
    explicit HotPlugListener(CameraManager* m) : manager(m) {}
    void onCameraAdded(const std::string& id) override { record("added", id); }
    void onCameraRemoved(const std::string& id) override { record("removed", id); }

    struct Event {
        std::string kind, id;
        std::thread::id thread;
        bool listedAtCallback;
    };
    bool waitFor(size_t count)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, 10s, [&] { return events.size() >= count; });
    }
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Event> events;

private:
    void record(const char* kind, const std::string& id)
    {
        // The root refreshed its list before calling: the change is visible here.
        bool listed = false;
        CameraInfo info;
        for (unsigned i = 0; manager->getCameraInfo(i, info); ++i)
            listed = listed || info.id == id;
        std::lock_guard<std::mutex> lock(mutex);
        events.push_back({kind, id, std::this_thread::get_id(), listed});
        changed.notify_all();
    }
    CameraManager* manager;
};

class FrameCounter : public CameraListener {
public:
    void onFrame(const std::shared_ptr<GraphicBuffer>& frame) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        last = frame;
        ++frames;
        changed.notify_all();
    }
    std::mutex mutex;
    std::condition_variable changed;
    std::shared_ptr<GraphicBuffer> last;
    int frames = 0;
};

gboolean registerPlugProvider(GstPlugin* plugin)
{
    return gst_device_provider_register(plugin, "hotplugtestprovider", GST_RANK_PRIMARY, plugProviderType());
}

TEST(GstCamerasHotPlug, DevicesPluggedAtRunTimeReachTheApplicationListener)
{
    gst_init(nullptr, nullptr);
    for (const char* name : {"videotestsrc", "videoconvert", "videoscale", "appsink"}) {
        GstElementFactory* factory = gst_element_factory_find(name);
        ASSERT_NE(factory, nullptr) << "GStreamer element " << name << " is missing";
        gst_object_unref(factory);
    }
    // Registered before the plug-in starts its device monitor, which looks
    // for providers when it starts.
    ASSERT_TRUE(gst_plugin_register_static(GST_VERSION_MAJOR, GST_VERSION_MINOR, "hotplugtest", "hot-plug test",
                                           registerPlugProvider, "1.0", "LGPL", "tests", "lumiflux",
                                           "https://localhost/"));

    const std::string dir = lumiflux_test::freshDirectory("gst-hotplug");
    fs::create_symlink(lumiflux_test::buildDir() + "/plugins-out/lumiflux-gst-cameras.so",
                       dir + "/lumiflux-gst-cameras.so");
    setenv("LUMIFLUX_PLUGIN_DIR", dir.c_str(), 1);
    CameraManager* manager = LumifluxManager();
    const int before = manager->getNumberOfCameras();
    {
        std::lock_guard<std::mutex> lock(providerMutex);
        ASSERT_NE(startedProvider, nullptr) << "the plug-in's monitor did not start our provider";
    }
    HotPlugListener listener(manager);
    manager->setListener(&listener);

    GstDevice* device = makePluggedDevice("/usb/1");
    gst_object_ref_sink(device);
    std::thread::id pluggingThread;
    std::thread plugIn([&] {
        pluggingThread = std::this_thread::get_id();
        gst_device_provider_device_add(provider(), device);
    });
    plugIn.join();
    ASSERT_TRUE(listener.waitFor(1));
    {
        std::lock_guard<std::mutex> lock(listener.mutex);
        EXPECT_EQ(listener.events[0].kind, "added");
        EXPECT_EQ(listener.events[0].id, "hotplug:/usb/1");
        EXPECT_EQ(listener.events[0].thread, pluggingThread);
        EXPECT_TRUE(listener.events[0].listedAtCallback);
    }
    EXPECT_EQ(manager->getNumberOfCameras(), before + 1);

    // The plugged camera works like any other.
    std::vector<CameraCapability> modes;
    ASSERT_TRUE(manager->queryCapabilities("hotplug:/usb/1", modes));
    ASSERT_EQ(modes.size(), 1u);
    EXPECT_EQ(modes[0].width, 160u);
    EXPECT_EQ(modes[0].frameRate, 30u);
    auto camera = manager->openCamera("hotplug:/usb/1");
    ASSERT_NE(camera, nullptr);
    CameraInfo info;
    ASSERT_TRUE(camera->getInfo(info));
    EXPECT_EQ(info.facing, CameraFacing::Back);
    EXPECT_EQ(info.name, "USB test camera");
    FrameCounter counter;
    camera->setListener(&counter);
    ASSERT_TRUE(camera->startCapture(modes[0], PixelFormat::YUV420SemiPlanar));
    {
        std::unique_lock<std::mutex> lock(counter.mutex);
        ASSERT_TRUE(counter.changed.wait_for(lock, 10s, [&] { return counter.frames >= 3; }));
        auto view = counter.last->mapYCbCr();
        ASSERT_NE(view, nullptr);
        EXPECT_EQ(view->width, 160);
        EXPECT_EQ(view->y[0], 16); // black
    }

    // Unplugged while capturing: the list drops it before the application hears.
    std::thread plugOut([&] { gst_device_provider_device_remove(provider(), device); });
    plugOut.join();
    ASSERT_TRUE(listener.waitFor(2));
    {
        std::lock_guard<std::mutex> lock(listener.mutex);
        EXPECT_EQ(listener.events[1].kind, "removed");
        EXPECT_EQ(listener.events[1].id, "hotplug:/usb/1");
        EXPECT_FALSE(listener.events[1].listedAtCallback);
    }
    EXPECT_EQ(manager->openCamera("hotplug:/usb/1"), nullptr);
    EXPECT_EQ(manager->getNumberOfCameras(), before);
    // The open camera keeps running until the application lets it go.
    EXPECT_TRUE(camera->stopCapture());
    camera.reset();
    manager->setListener(nullptr);
    gst_object_unref(device);
}

} // namespace
