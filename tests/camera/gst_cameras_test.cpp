// lumiflux-gst-cameras end to end: the real plug-in module, loaded by the
// library, over GStreamer's device monitor. Cameras come from the plug-in's
// test-pattern provider (LUMIFLUX_TEST_CAMERAS) or, for hot-plug, from a
// device provider this test registers itself before the plug-in starts.

#include <gtest/gtest.h>

#include <gst/gst.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <future>
#include <mutex>
#include <thread>

#include <lumiflux/camera.h>
#include <lumiflux/gst_graphic_buffer.h>
#include <lumiflux/plugin.h>

#include "syslog_capture.h"
#include "test_paths.h"
#include "watchdog.h"

namespace {

using namespace Tevara::Lumiflux;
using namespace std::chrono_literals;

// A plug-in directory holding only the camera plug-in. The GStreamer
// elements it needs come with scripts/install-deps: a missing one is a
// broken install, not a skip.
CameraManager* loadCameraPlugin(const std::string& name)
{
    gst_init(nullptr, nullptr);
    for (const char* element : {"videotestsrc", "videoconvert", "videoscale", "capsfilter", "appsink"}) {
        GstElementFactory* factory = gst_element_factory_find(element);
        EXPECT_NE(factory, nullptr) << "GStreamer element " << element << " is missing";
        if (factory != nullptr)
            gst_object_unref(factory);
    }
    const std::string dir = lumiflux_test::freshDirectory(name);
    std::filesystem::create_symlink(lumiflux_test::buildDir() + "/plugins-out/lumiflux-gst-cameras.so",
                                    dir + "/lumiflux-gst-cameras.so");
    setenv("LUMIFLUX_PLUGIN_DIR", dir.c_str(), 1);
    EXPECT_EQ(PluginManager::get().listPlugins().size(), 1u);
    return LumifluxManager();
}

// Records what a camera delivers (frames are kept, so their pixels can be
// checked after capture has stopped) and, as the application's manager
// listener, hot-plug events with whether the camera was listed at the call.
class Recorder : public CameraListener, public CameraManagerListener {
public:
    struct Event {
        std::string kind, id;
        std::thread::id thread;
        bool listedAtCallback;
    };
    void onFrame(const std::shared_ptr<GraphicBuffer>& frame) override { add(frames, frame, true); }
    void onPictureTaken(const std::shared_ptr<GraphicBuffer>& picture) override { add(pictures, picture); }
    void onError(const std::string& message) override { add(errors, message); }
    void onCaptureEnded() override { add(ended, std::this_thread::get_id()); }
    void onCameraAdded(const std::string& id) override { hotPlug("added", id); }
    void onCameraRemoved(const std::string& id) override { hotPlug("removed", id); }

    bool waitForFrames(size_t count)
    {
        return waitFor([&] { return frames.size() >= count; });
    }
    bool waitForEvents(size_t count)
    {
        return waitFor([&] { return events.size() >= count; });
    }
    size_t frameCount()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return frames.size();
    }

    CameraManager* manager = nullptr;
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::shared_ptr<GraphicBuffer>> frames, pictures;
    std::vector<std::thread::id> frameThreads, ended;
    std::vector<std::string> errors;
    std::vector<Event> events;

private:
    template <typename T, typename V> void add(std::vector<T>& list, V value, bool frame = false)
    {
        std::lock_guard<std::mutex> lock(mutex);
        list.push_back(std::move(value));
        if (frame)
            frameThreads.push_back(std::this_thread::get_id());
        changed.notify_all();
    }
    template <typename Predicate> bool waitFor(Predicate done)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, 20s, done);
    }
    void hotPlug(const char* kind, const std::string& id)
    {
        // The root refreshed its list before calling: the change is visible here.
        bool listed = false;
        CameraInfo info;
        for (unsigned i = 0; manager->getCameraInfo(i, info); ++i)
            listed = listed || info.id == id;
        add(events, Event{kind, id, std::this_thread::get_id(), listed});
    }
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
        manager = loadCameraPlugin("gst-capture");
        const int count = manager->getNumberOfCameras();
        for (int i = 0; i < count; ++i) {
            CameraInfo info;
            if (manager->getCameraInfo(static_cast<unsigned>(i), info) && info.provider == "lumiflux-test")
                cameras.push_back(info);
        }
        ASSERT_EQ(cameras.size(), 2u);
    }
    CameraManager* manager = nullptr;
    std::vector<CameraInfo> cameras;
};

TEST_F(GstCamerasCapture, Nv12FramesOfAKnownPatternAtTheRequestedSizeAndRate)
{
    auto camera = manager->openCamera(cameras[0].id);
    ASSERT_NE(camera, nullptr);
    Recorder listener;
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
    EXPECT_NE(listener.frameThreads[0], std::this_thread::get_id());
    ASSERT_EQ(listener.pictures.size(), 1u);
    EXPECT_NE(std::find(listener.frames.begin(), listener.frames.end(), listener.pictures[0]), listener.frames.end());
    // The test camera is mounted turned; frames come unturned, as the sensor gives them.
    EXPECT_NE(cameras[0].mountAngle, 0);
    for (const auto& frame : listener.frames) {
        EXPECT_EQ(frame->width, 320);
        EXPECT_EQ(frame->height, 240);
        EXPECT_EQ(frame->format, PixelFormat::YCbCrFlexible);
        EXPECT_EQ(frame->rotation(), 0);
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

TEST_F(GstCamerasCapture, TwoCamerasAtOnceI420AndARestartInAnotherMode)
{
    auto front = manager->openCamera(cameras[0].id);
    auto back = manager->openCamera(cameras[1].id);
    ASSERT_NE(front, nullptr);
    ASSERT_NE(back, nullptr);
    Recorder frontFrames, backFrames;
    front->setListener(&frontFrames);
    back->setListener(&backFrames);
    ASSERT_TRUE(front->setParameter("pattern", "white"));
    ASSERT_TRUE(back->setParameter("pattern", "black"));
    CameraCapabilityEx exact;
    exact.width = 640;
    exact.height = 480;
    exact.frameRate = {15, 1};
    ASSERT_TRUE(front->startCapture(CameraCapability{320, 240, 30}, PixelFormat::YUV420SemiPlanar));
    ASSERT_TRUE(back->startCapture(exact, PixelFormat::YUV420Planar));
    ASSERT_TRUE(frontFrames.waitForFrames(5));
    ASSERT_TRUE(backFrames.waitForFrames(4));
    front->setListener(nullptr); // stops callbacks before the capture stops
    ASSERT_TRUE(front->stopCapture());
    ASSERT_TRUE(back->stopCapture());
    {
        std::lock_guard<std::mutex> lockFront(frontFrames.mutex);
        std::lock_guard<std::mutex> lockBack(backFrames.mutex);
        EXPECT_TRUE(frontFrames.ended.empty()) << "the listener was removed";
        EXPECT_EQ(backFrames.ended.size(), 1u);
        expectSolid(frontFrames.frames.back(), 235, 128, 128, 2);
        expectSolid(backFrames.frames.back(), 16, 128, 128, 1);
        EXPECT_EQ(backFrames.frames.back()->width, 640);
    }

    // Same camera again, other mode, other pattern: blue is Y 41, Cb 240, Cr 110.
    ASSERT_TRUE(back->setParameter("pattern", "blue"));
    const size_t before = backFrames.frameCount();
    ASSERT_TRUE(back->startCapture(CameraCapability{320, 240, 30}, PixelFormat::YUV420Planar));
    ASSERT_TRUE(backFrames.waitForFrames(before + 4));
    ASSERT_TRUE(back->stopCapture());
    std::lock_guard<std::mutex> lock(backFrames.mutex);
    EXPECT_EQ(backFrames.frames.back()->width, 320);
    expectSolid(backFrames.frames.back(), 41, 240, 110, 1);
    EXPECT_EQ(backFrames.ended.size(), 2u);
}

TEST_F(GstCamerasCapture, RefusedRequestsAndDestroyingACapturingCamera)
{
    auto camera = manager->openCamera(cameras[0].id);
    ASSERT_NE(camera, nullptr);
    EXPECT_EQ(manager->openCamera("lumiflux-test:/test/9"), nullptr);
    EXPECT_FALSE(camera->startCapture(CameraCapability{320, 240, 30}, PixelFormat::YCbCrFlexible));
    EXPECT_FALSE(camera->startCapture(CameraCapability{0, 240, 30}, PixelFormat::YUV420SemiPlanar));
    EXPECT_FALSE(camera->isCapturing());

    Recorder listener;
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

// --- re-entry and teardown from inside listener calls ------------------------

// A Recorder whose frame callback also runs `inFrame` (once per frame).
class ReentrantListener : public Recorder {
public:
    void onFrame(const std::shared_ptr<GraphicBuffer>& frame) override
    {
        Recorder::onFrame(frame);
        if (inFrame)
            inFrame();
    }
    std::function<void()> inFrame;
};

class GstCamerasTeardown : public ::testing::Test {
protected:
    void SetUp() override
    {
        manager = loadCameraPlugin("gst-teardown");
        ASSERT_EQ(manager->getNumberOfCameras(), 1);
        ASSERT_TRUE(manager->getCameraInfo(0, info));
    }
    std::shared_ptr<Camera> opened()
    {
        auto camera = manager->openCamera(info.id);
        EXPECT_NE(camera, nullptr);
        return camera;
    }
    // The listener (with its hooks) is complete before the streaming thread starts.
    static bool start(Camera& camera, CameraListener& listener)
    {
        camera.setListener(&listener);
        return camera.startCapture(CameraCapability{160, 120, 30}, PixelFormat::YUV420SemiPlanar);
    }
    // The camera can be opened and captures again after a teardown.
    void expectCapturesAgain()
    {
        Recorder again;
        auto camera = opened();
        ASSERT_NE(camera, nullptr);
        ASSERT_TRUE(start(*camera, again));
        EXPECT_TRUE(again.waitForFrames(3));
        EXPECT_TRUE(camera->stopCapture());
    }
    CameraManager* manager = nullptr;
    CameraInfo info;
};

TEST_F(GstCamerasTeardown, LastReferenceDroppedInsideOnFrame)
{
    {
        // A hang ends the program with a message instead of stalling ctest.
        lumiflux_test::Watchdog watchdog("dropping the camera inside onFrame", 30s);
        ReentrantListener listener;
        std::shared_ptr<Camera> held = opened();
        ASSERT_NE(held, nullptr);
        Camera* camera = held.get();
        std::promise<void> dropped;
        // Not before startCapture has returned: the application must not let
        // go of a camera while one of its own calls into it is still running.
        std::atomic<bool> started{false};
        listener.inFrame = [&] {
            if (held && started && listener.frameCount() >= 3) {
                held.reset(); // the application's only reference, on the streaming thread
                dropped.set_value();
            }
        };
        ASSERT_TRUE(start(*camera, listener)); // `held` is the streaming thread's from here on
        started = true;
        ASSERT_EQ(dropped.get_future().wait_for(20s), std::future_status::ready);
        const size_t atDrop = listener.frameCount();
        std::this_thread::sleep_for(200ms);
        EXPECT_EQ(listener.frameCount(), atDrop) << "no callback after the last reference went";
        expectCapturesAgain();
    }
}

TEST_F(GstCamerasTeardown, LastReferenceDroppedInsideOnCaptureEndedOfStopCapture)
{
    {
        lumiflux_test::Watchdog watchdog("dropping the camera inside onCaptureEnded", 30s);
        struct DropOnEnd : Recorder {
            void onCaptureEnded() override
            {
                Recorder::onCaptureEnded();
                held.reset();
            }
            std::shared_ptr<Camera> held;
        } listener;
        listener.held = opened();
        ASSERT_NE(listener.held, nullptr);
        Camera* camera = listener.held.get();
        ASSERT_TRUE(start(*camera, listener));
        ASSERT_TRUE(listener.waitForFrames(2));
        // The end is reported inside stopCapture, which must survive the release.
        EXPECT_TRUE(camera->stopCapture());
        EXPECT_EQ(listener.held, nullptr);
        expectCapturesAgain();
    }
}

// Calls the threading rules keep out of callbacks: refused with one error
// line, or working; never a hang, and the application thread's own calls
// afterwards (setListener, stopCapture) return.
TEST_F(GstCamerasTeardown, CallsIntoTheSameCameraFromOnFrame)
{
    struct Case {
        const char* name;
        std::function<bool(Camera&)> call;
        bool result;
        const char* errorLine; // text of the one expected error line, or null
    };
    const std::vector<Case> cases{
        {"stopCapture", [](Camera& c) { return c.stopCapture(); }, false, "stopCapture on "},
        {"startCapture",
         [](Camera& c) {
             return c.startCapture(CameraCapability{160, 120, 30}, PixelFormat::YUV420Planar);
         },
         false, "startCapture on "},
        {"takePicture", [](Camera& c) { return c.takePicture(); }, true, nullptr},
        {"setParameter", [](Camera& c) { return c.setParameter("pattern", "black"); }, true, nullptr},
    };
    for (const Case& entry : cases) {
        SCOPED_TRACE(entry.name);
        lumiflux_test::clearSyslog();
        {
            lumiflux_test::Watchdog watchdog(entry.name, 30s);
            ReentrantListener listener;
            std::shared_ptr<Camera> camera = opened();
            ASSERT_NE(camera, nullptr);
            std::promise<bool> firstResult;
            int calls = 0;
            // A working call on every frame, so that some call overlaps the
            // application's stop below; a refused one once.
            listener.inFrame = [&] {
                if (calls > 0 && entry.errorLine != nullptr)
                    return;
                const bool result = entry.call(*camera);
                if (++calls == 1)
                    firstResult.set_value(result);
            };
            auto result = firstResult.get_future();
            ASSERT_TRUE(start(*camera, listener));
            ASSERT_EQ(result.wait_for(20s), std::future_status::ready);
            EXPECT_EQ(result.get(), entry.result);
            if (entry.errorLine == nullptr) {
                ASSERT_TRUE(listener.waitForFrames(6));
            }
            camera->setListener(nullptr);
            EXPECT_TRUE(camera->stopCapture());
        }
        const auto lines = lumiflux_test::syslogRecordsContaining(entry.errorLine ? entry.errorLine : " refused ");
        if (entry.errorLine == nullptr) {
            EXPECT_TRUE(lines.empty());
            continue;
        }
        ASSERT_EQ(lines.size(), 1u) << "one error line per refused call";
        EXPECT_EQ(lines[0].priority & 7, 3) << "LOG_ERR";
        EXPECT_NE(lines[0].text.find("refused inside its own listener call"), std::string::npos) << lines[0].text;
    }
}

// --- hot-plug: a device provider of the test's own ---------------------------

struct PlugDevice {
    GstDevice parent;
};
struct PlugDeviceClass {
    GstDeviceClass parentClass;
};
G_DEFINE_TYPE(PlugDevice, plug_device, GST_TYPE_DEVICE)

void plug_device_init(PlugDevice*) {}
void plug_device_class_init(PlugDeviceClass* klass)
{
    GST_DEVICE_CLASS(klass)->create_element = [](GstDevice*, const gchar* name) {
        GstElement* source = gst_element_factory_make("videotestsrc", name);
        if (source != nullptr) {
            g_object_set(source, "is-live", TRUE, nullptr);
            gst_util_set_object_arg(G_OBJECT(source), "pattern", "black");
        }
        return source;
    };
}

struct PlugProvider {
    GstDeviceProvider parent;
};
struct PlugProviderClass {
    GstDeviceProviderClass parentClass;
};
G_DEFINE_TYPE(PlugProvider, plug_provider, GST_TYPE_DEVICE_PROVIDER)

std::mutex providerMutex;
GstDeviceProvider* startedProvider = nullptr; ///< the instance the monitor started

// Not called with providerMutex held while a device is added: the
// notification takes the root manager's lock, which is held while the
// monitor starts the provider (which takes providerMutex).
GstDeviceProvider* provider()
{
    std::lock_guard<std::mutex> lock(providerMutex);
    return startedProvider;
}

void plug_provider_init(PlugProvider*) {}
void plug_provider_class_init(PlugProviderClass* klass)
{
    auto* providerClass = GST_DEVICE_PROVIDER_CLASS(klass);
    providerClass->probe = [](GstDeviceProvider*) -> GList* { return nullptr; }; // nothing plugged in at start
    providerClass->start = [](GstDeviceProvider* self) -> gboolean {
        std::lock_guard<std::mutex> lock(providerMutex);
        startedProvider = GST_DEVICE_PROVIDER(gst_object_ref(self));
        return TRUE;
    };
    providerClass->stop = [](GstDeviceProvider* self) {
        std::lock_guard<std::mutex> lock(providerMutex);
        if (startedProvider == self)
            gst_clear_object(&startedProvider);
    };
    gst_device_provider_class_set_static_metadata(providerClass, "Hot-plug test provider", "Video/Source",
                                                  "Devices the test plugs in and out", "lumiflux tests");
}

TEST(GstCamerasHotPlug, DevicesPluggedAtRunTimeReachTheApplicationListener)
{
    gst_init(nullptr, nullptr);
    // Registered before the plug-in starts its device monitor, which looks
    // for providers when it starts.
    ASSERT_TRUE(gst_plugin_register_static(
        GST_VERSION_MAJOR, GST_VERSION_MINOR, "hotplugtest", "hot-plug test",
        [](GstPlugin* plugin) {
            return gst_device_provider_register(plugin, "hotplugtestprovider", GST_RANK_PRIMARY,
                                                plug_provider_get_type());
        },
        "1.0", "LGPL", "tests", "lumiflux", "https://localhost/"));
    CameraManager* manager = loadCameraPlugin("gst-hotplug");
    const int before = manager->getNumberOfCameras();
    ASSERT_NE(provider(), nullptr) << "the plug-in's monitor did not start our provider";
    Recorder listener;
    listener.manager = manager;
    manager->setListener(&listener);

    GstStructure* properties =
        gst_structure_new("hotplug-properties", "device.api", G_TYPE_STRING, "hotplug", "device.path", G_TYPE_STRING,
                          "/usb/1", "camera.location", G_TYPE_STRING, "back", nullptr);
    GstCaps* caps = gst_caps_from_string("video/x-raw, format=NV12, width=160, height=120, framerate=30/1");
    auto* device =
        static_cast<GstDevice*>(g_object_new(plug_device_get_type(), "display-name", "USB test camera", "device-class",
                                             "Video/Source", "caps", caps, "properties", properties, nullptr));
    gst_caps_unref(caps);
    gst_structure_free(properties);
    gst_object_ref_sink(device);
    std::thread::id pluggingThread;
    std::thread([&] {
        pluggingThread = std::this_thread::get_id();
        gst_device_provider_device_add(provider(), device);
    }).join();
    ASSERT_TRUE(listener.waitForEvents(1));
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
    camera->setListener(&listener);
    ASSERT_TRUE(camera->startCapture(modes[0], PixelFormat::YUV420SemiPlanar));
    ASSERT_TRUE(listener.waitForFrames(3));
    {
        std::lock_guard<std::mutex> lock(listener.mutex);
        auto view = listener.frames.back()->mapYCbCr();
        ASSERT_NE(view, nullptr);
        EXPECT_EQ(view->width, 160);
        EXPECT_EQ(view->y[0], 16); // black
    }

    // Unplugged while capturing: the list drops it before the application hears.
    std::thread([&] { gst_device_provider_device_remove(provider(), device); }).join();
    ASSERT_TRUE(listener.waitForEvents(2));
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
