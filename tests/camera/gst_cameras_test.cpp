// lumiflux-gst-cameras end to end over GStreamer's device monitor: its test-pattern cameras
// (LUMIFLUX_TEST_CAMERAS), and for hot-plug a device provider of the test's own.
#include <gtest/gtest.h>

#include <gst/gst.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <thread>

#include <lumiflux/camera.h>
#include <lumiflux/graphic_buffer.h>
#include <lumiflux/gst_ref.h>
#include <lumiflux/plugin.h>
#include <nlohmann/json.hpp>

#include "recorder.h"
#include "syslog_capture.h"
#include "test_paths.h"
#include "watchdog.h"

namespace {

using namespace Tevara::Lumiflux;
using namespace std::chrono_literals;
constexpr PixelFormat kI420 = PixelFormat::YUV420Planar, kNv12 = PixelFormat::YUV420SemiPlanar;

std::string pluginDir(const std::string& name)
{
    const std::string dir = lumiflux_test::freshDirectory(name);
    std::filesystem::create_symlink(lumiflux_test::buildDir() + "/plugins-out/lumiflux-gst-cameras.so",
                                    dir + "/lumiflux-gst-cameras.so");
    return dir;
}

CameraManager* loadCameraPlugin(const std::string& name)
{
    gst_init(nullptr, nullptr);
    setenv("LUMIFLUX_PLUGIN_DIR", pluginDir(name).c_str(), 1);
    EXPECT_EQ(PluginManager::get().listPlugins().size(), 1u);
    return LumifluxManager();
}

// Records a camera's calls and, as manager listener, hot-plug events (" listed": listed at the call).
struct CameraRecorder : CameraListener, CameraManagerListener, lumiflux_test::Recorder {
    void onFrame(const std::shared_ptr<GraphicBuffer>& frame) override { record(frames, frame), run(inFrame); }
    void onPictureTaken(const std::shared_ptr<GraphicBuffer>& picture) override { record(pictures, picture); }
    void onError(const std::string& message) override { record(errors, message); }
    void onCaptureEnded() override { record(ended, std::this_thread::get_id()), run(inEnded); }
    void onCameraAdded(const std::string& id) override { hotPlug("added " + id, id); }
    void onCameraRemoved(const std::string& id) override { hotPlug("removed " + id, id); }
    void hotPlug(std::string event, const std::string& id)
    {
        CameraInfo info;
        for (unsigned i = 0; manager->getCameraInfo(i, info); ++i)
            event += info.id == id ? " listed" : "";
        record(events, event);
        manager->setListener(this); // re-registering from the callback: the listener mutex is recursive
    }
    template <typename T> void record(std::vector<T>& list, T value)
    {
        std::lock_guard<std::mutex> lock(mutex);
        list.push_back(std::move(value));
        threads.push_back(std::this_thread::get_id());
        changed.notify_all();
    }
    static void run(const std::function<void()>& hook) { hook ? hook() : void(); }
    bool waitForCount(size_t count, const std::vector<std::string>* list = nullptr)
    {
        return waitFor([&] { return (list ? list->size() : frames.size()) >= count; }, 20s);
    }
    size_t frameCount() { return snapshot(frames).size(); }
    CameraManager* manager = nullptr;
    std::function<void()> inFrame, inEnded; // run after the record, on the calling thread
    std::vector<std::shared_ptr<GraphicBuffer>> frames, pictures;
    std::vector<std::thread::id> threads, ended; // threads: of every call, in order
    std::vector<std::string> errors, events;
};

void expectSolid(const std::shared_ptr<GraphicBuffer>& frame, int width, int chromaStep, int y, int cb, int cr)
{
    auto view = frame ? frame->mapYCbCr() : nullptr;
    ASSERT_NE(view, nullptr);
    const size_t l = view->height / 2 * view->yStride + view->width / 2,
                 c = view->height / 4 * view->cStride + view->width / 4 * view->chromaStep;
    EXPECT_EQ(std::vector<int>({int(view->width), view->chromaStep, view->y[0], view->y[l], view->cb[c], view->cr[c]}),
              std::vector<int>({width, chromaStep, y, y, cb, cr}));
}

// The camera's modes in order, as "WxH@rate,rate WxH@rate".
std::string modesOf(CameraManager* manager, const std::string& id)
{
    std::vector<CameraCapability> modes;
    EXPECT_TRUE(manager->queryCapabilities(id, modes)) << id;
    std::string text, size;
    for (const auto& m : modes) {
        const std::string next = std::to_string(m.width) + "x" + std::to_string(m.height);
        text += (next == size ? "," : (text.empty() ? "" : " ") + next + "@") + std::to_string(m.frameRate);
        size = next;
    }
    return text;
}

TEST(GstCamerasCapture, TwoCamerasAtOnceKnownPatternsAndRequestedModes)
{
    CameraManager* manager = loadCameraPlugin("gst-capture");
    ASSERT_EQ(manager->getNumberOfCameras(), 2);
    CameraInfo info;
    ASSERT_TRUE(manager->getCameraInfo(0, info));
    EXPECT_EQ(manager->openCamera("lumiflux-test:/test/9"), nullptr);
    auto front = manager->openCamera(info.id);
    ASSERT_TRUE(manager->getCameraInfo(1, info));
    auto back = manager->openCamera(info.id);
    ASSERT_TRUE(front && back);
    CameraRecorder frontFrames, backFrames;
    front->setListener(&frontFrames);
    back->setListener(&backFrames);
    std::string pattern, speed;
    ASSERT_TRUE(front->setParameter("pattern", "white") && front->setParameter("horizontal-speed", "3") &&
                back->setParameter("pattern", "black"));
    ASSERT_TRUE(front->getParameter("pattern", pattern) && front->getParameter("horizontal-speed", speed));
    EXPECT_EQ(pattern + " " + speed, "white 3");
    EXPECT_FALSE(front->setParameter("pattern", "no-such-pattern") || front->setParameter("no-such-setting", "1") ||
                 front->getParameter("no-such-setting", pattern));
    EXPECT_FALSE(front->takePicture() || front->stopCapture() || front->isCapturing()) << "not capturing yet";
    EXPECT_FALSE(front->startCapture(CameraCapability{320, 240, 30}, PixelFormat::YCbCrFlexible) ||
                 front->startCapture(CameraCapability{0, 240, 30}, kNv12));

    // The back camera's listener leaves inside its own call: no callback after that.
    backFrames.inFrame = [&] { backFrames.frameCount() == 4 ? back->setListener(nullptr) : void(); };
    ASSERT_TRUE(back->startCapture(CameraCapabilityEx{640, 480, {15, 1}}, kI420));
    ASSERT_TRUE(front->startCapture(CameraCapability{320, 240, 30}, kNv12));
    EXPECT_TRUE(front->isCapturing());
    EXPECT_FALSE(front->startCapture(CameraCapability{320, 240, 30}, kNv12));
    ASSERT_TRUE(frontFrames.waitForCount(3) && front->takePicture());
    ASSERT_TRUE(frontFrames.waitForCount(12) && backFrames.waitForCount(4));
    ASSERT_TRUE(front->stopCapture() && back->stopCapture());
    EXPECT_FALSE(front->isCapturing());
    EXPECT_EQ(backFrames.frames.size(), 4u);
    EXPECT_TRUE(backFrames.ended.empty()) << "the listener was removed";
    expectSolid(backFrames.frames.back(), 640, 1, 16, 128, 128);

    const size_t delivered = frontFrames.frameCount();
    EXPECT_TRUE(frontFrames.errors.empty());
    EXPECT_EQ(frontFrames.ended, std::vector<std::thread::id>{std::this_thread::get_id()}) << "stopCapture's thread";
    EXPECT_NE(frontFrames.threads[0], std::this_thread::get_id());
    ASSERT_EQ(frontFrames.pictures.size(), 1u);
    EXPECT_NE(std::find(frontFrames.frames.begin(), frontFrames.frames.end(), frontFrames.pictures[0]),
              frontFrames.frames.end());
    // The test cameras are mounted turned; frames come unturned, as the sensor gives them.
    const auto& frame = frontFrames.frames.back();
    EXPECT_EQ(std::vector<int>({frame->width, frame->height, frame->rotation(), info.mountAngle}),
              std::vector<int>({320, 240, 0, 90}));
    // White in limited-range BT.601: Y 235, chroma neutral; NV12 interleaves Cb and Cr.
    expectSolid(frame, 320, 2, 235, 128, 128);
    // Timestamps advance by one frame period (30 fps) of the source clock.
    EXPECT_NEAR(double(frame->timestamp - frontFrames.frames[0]->timestamp) / double(delivered - 1), 1e6 / 30, 8e3);
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(frontFrames.frameCount(), delivered) << "no frame after stopCapture returned";
}

// The scenario's one test camera, capturing into `listener` (hooks set before the streaming thread starts).
std::shared_ptr<Camera> startedCamera(CameraRecorder& listener)
{
    static CameraManager* manager = loadCameraPlugin("gst-teardown");
    EXPECT_EQ(manager->getNumberOfCameras(), 1);
    auto camera = manager->openCamera("lumiflux-test:/test/0");
    EXPECT_NE(camera, nullptr);
    camera->setListener(&listener);
    EXPECT_TRUE(camera->startCapture(CameraCapability{160, 120, 30}, kNv12));
    return camera;
}

// The last reference let go inside onFrame or onCaptureEnded, and calls into the same camera from onFrame:
// refused with one error line or working, never a hang; afterwards the camera opens and captures again.
TEST(GstCamerasTeardown, ReleasesAndCallsFromInsideListenerCalls)
{
    enum Release { None, InFrame, InEnded };
    const struct {
        const char* name;
        Release release;
        std::function<bool(Camera&)> call;
        const char* errorLine; // text of the one expected error line; null: the call works
    } cases[] = {
        {"release inside onFrame", InFrame, nullptr, nullptr},
        {"release inside onCaptureEnded", InEnded, nullptr, nullptr},
        {"stopCapture", None, [](Camera& c) { return c.stopCapture(); }, "stopCapture on "},
        {"startCapture", None,
         [](Camera& c) {
             return c.startCapture({160, 120, {30, 1}}, kI420);
         },
         "startCapture on "},
        {"takePicture", None, [](Camera& c) { return c.takePicture(); }, nullptr},
    };
    for (const auto& entry : cases) {
        SCOPED_TRACE(entry.name);
        lumiflux_test::clearSyslog();
        {
            lumiflux_test::Watchdog watchdog(entry.name, 30s);
            CameraRecorder listener;
            std::shared_ptr<Camera> held;
            std::atomic<Camera*> target{nullptr}; // set once startCapture has returned
            std::promise<bool> firstResult;
            std::atomic<int> calls{0};
            // A working call on every frame, to overlap the stop below; anything else once.
            listener.inFrame = [&] {
                Camera* camera = target;
                if (!camera || listener.frameCount() < 3 || (calls > 0 && (!entry.call || entry.errorLine)))
                    return;
                const bool result =
                    entry.release == InFrame ? (held.reset(), true) : !entry.call || entry.call(*camera);
                if (++calls == 1)
                    firstResult.set_value(result);
            };
            listener.inEnded = [&] { entry.release == InEnded ? held.reset() : void(); };
            held = startedCamera(listener);
            Camera* camera = held.get();
            target = camera;
            auto result = firstResult.get_future();
            ASSERT_EQ(result.wait_for(20s), std::future_status::ready);
            EXPECT_EQ(result.get(), entry.errorLine == nullptr);
            if (entry.release == InFrame) {
                const size_t atRelease = listener.frameCount();
                std::this_thread::sleep_for(200ms);
                EXPECT_EQ(listener.frameCount(), atRelease) << "no callback after the last reference went";
            } else {
                ASSERT_TRUE(entry.errorLine || listener.waitForCount(6));
                entry.release == InEnded ? void() : camera->setListener(nullptr);
                EXPECT_TRUE(camera->stopCapture()) << "survives a release inside it";
                EXPECT_EQ(held == nullptr, entry.release == InEnded);
            }
        }
        const auto lines = lumiflux_test::syslogRecordsContaining(entry.errorLine ? entry.errorLine : " refused ");
        ASSERT_EQ(lines.size(), entry.errorLine ? 1u : 0u) << "one error line (LOG_ERR) per refused call";
        for (const auto& line : lines) // at LOG_ERR
            EXPECT_TRUE((line.priority & 7) == 3 &&
                        line.text.find("refused inside its own listener call") != std::string::npos)
                << line.text;
        CameraRecorder again;
        auto camera = startedCamera(again);
        EXPECT_TRUE(again.waitForCount(3));
        EXPECT_TRUE(camera->stopCapture());
    }
}

GstDevice* plugDevice(const char* path, const char* caps)
{
    static const GType type = g_type_register_static_simple(
        GST_TYPE_DEVICE, "LumifluxTestPlugDevice", sizeof(GstDeviceClass),
        [](gpointer klass, gpointer) {
            GST_DEVICE_CLASS(klass)->create_element = [](GstDevice*, const gchar* name) {
                GstElement* source = gst_element_factory_make("videotestsrc", name);
                gst_util_set_object_arg(G_OBJECT(source), "pattern", "black");
                g_object_set(source, "is-live", TRUE, nullptr);
                return source;
            };
        },
        sizeof(GstDevice), nullptr, GTypeFlags(0));
    std::unique_ptr<GstStructure, void (*)(GstStructure*)> properties(
        gst_structure_from_string(
            ("p, device.api=hotplug, camera.location=back, device.path=" + std::string(path)).c_str(), nullptr),
        gst_structure_free);
    auto parsed = Internal::Ref<GstCaps>::adopt(gst_caps_from_string(caps));
    return GST_DEVICE(
        gst_object_ref_sink(g_object_new(type, "display-name", "USB test camera", "device-class", "Video/Source",
                                         "caps", parsed.get(), "properties", properties.get(), nullptr)));
}

TEST(GstCamerasHotPlug, DevicesPluggedAtRunTimeReachTheApplicationListener)
{
    gst_init(nullptr, nullptr);
    // Registered before the plug-in's monitor starts; devices come and go only by device_add/remove.
    auto registerProvider = [](GstPlugin* plugin) -> gboolean {
        const GType type = g_type_register_static_simple(
            GST_TYPE_DEVICE_PROVIDER, "LumifluxTestPlugProvider", sizeof(GstDeviceProviderClass),
            [](gpointer klass, gpointer) {
                auto* providerClass = GST_DEVICE_PROVIDER_CLASS(klass);
                providerClass->probe = [](GstDeviceProvider*) -> GList* { return nullptr; };
                providerClass->start = [](GstDeviceProvider*) -> gboolean { return TRUE; };
                gst_device_provider_class_set_static_metadata(providerClass, "Hot-plug test provider", "Video/Source",
                                                              "Devices the test plugs in and out", "lumiflux tests");
            },
            sizeof(GstDeviceProvider), nullptr, GTypeFlags(0));
        return gst_device_provider_register(plugin, "hotplugtestprovider", GST_RANK_PRIMARY, type);
    };
    ASSERT_TRUE(gst_plugin_register_static(GST_VERSION_MAJOR, GST_VERSION_MINOR, "hotplugtest", "hot-plug test",
                                           registerProvider, "1.0", "LGPL", "tests", "lumiflux", "https://localhost/"));
    // A camera plugged in before the application starts: listed, never announced.
    GstDeviceProvider* provider = gst_device_provider_factory_get_by_name("hotplugtestprovider");
    ASSERT_NE(provider, nullptr);
    GstDevice* early = plugDevice("/usb/0", "video/x-raw, format=I420, width=320, height=240, framerate=15/1");
    gst_device_provider_device_add(provider, early);
    CameraManager* manager = loadCameraPlugin("gst-hotplug");
    const int before = manager->getNumberOfCameras();
    EXPECT_EQ(modesOf(manager, "hotplug:/usb/0"), "320x240@15");
    CameraRecorder listener;
    listener.manager = manager;
    manager->setListener(&listener);

    // A device that scales: the common sizes within its range, the rates people ask for.
    GstDevice* device = plugDevice("/usb/1", "video/x-raw, format=NV12, width=[160, 640], height=[120, 480], "
                                             "framerate=[1/1, 30/1]");
    std::thread plugging([&] { gst_device_provider_device_add(provider, device); });
    const std::thread::id pluggingThread = plugging.get_id();
    plugging.join();
    ASSERT_TRUE(listener.waitForCount(1, &listener.events));
    EXPECT_EQ(listener.events, std::vector<std::string>{"added hotplug:/usb/1 listed"});
    EXPECT_EQ(listener.threads[0], pluggingThread);
    EXPECT_EQ(manager->getNumberOfCameras(), before + 1);
    EXPECT_EQ(modesOf(manager, "hotplug:/usb/1"), "160x120@1,5,10,15,20,24,25,30 320x240@1,5,10,15,20,24,25,30 "
                                                  "352x288@1,5,10,15,20,24,25,30 640x360@1,5,10,15,20,24,25,30 "
                                                  "640x480@1,5,10,15,20,24,25,30");
    auto camera = manager->openCamera("hotplug:/usb/1");
    CameraInfo info;
    ASSERT_TRUE(camera && camera->getInfo(info));
    EXPECT_EQ(info.name + (info.facing == CameraFacing::Back ? ", back" : ""), "USB test camera, back");
    camera->setListener(&listener);
    ASSERT_TRUE(camera->startCapture(CameraCapability{160, 120, 30}, kNv12));
    ASSERT_TRUE(listener.waitForCount(3));
    {
        std::lock_guard<std::mutex> lock(listener.mutex);
        expectSolid(listener.frames.back(), 160, 2, 16, 128, 128);
    }
    // Unplugged while capturing: the list drops it before the application hears.
    std::thread([&] { gst_device_provider_device_remove(provider, device); }).join();
    ASSERT_TRUE(listener.waitForCount(2, &listener.events));
    EXPECT_EQ(listener.events[1], "removed hotplug:/usb/1");
    EXPECT_EQ(manager->openCamera("hotplug:/usb/1"), nullptr);
    EXPECT_EQ(manager->getNumberOfCameras(), before);
    EXPECT_TRUE(camera->stopCapture()) << "the open camera runs until the application lets it go";
    camera.reset();
    manager->setListener(nullptr);
    gst_device_provider_device_remove(provider, early);
    for (GstDevice* plugged : {device, early})
        gst_object_unref(plugged);
    gst_object_unref(provider);
}

std::string tool(const std::string& arguments, const std::string& cameras = "2")
{
    static const std::string dir = pluginDir("camera-tools");
    return "env LUMIFLUX_NO_SYSLOG=1 LUMIFLUX_TEST_CAMERAS=" + cameras + " LUMIFLUX_PLUGIN_DIR='" + dir +
           "' " LUMIFLUX_TOOL " " + arguments;
}

TEST(CamerasTool, ListsCamerasAndCapturesAsAUserRunsIt)
{
    std::string out;
    ASSERT_EQ(lumiflux_test::runCommand(tool("cameras 2>/dev/null", "3"), &out), 0);
    // A [1/1, 60/1] range offered as the rates people ask for, a list as it is; no mode twice.
    EXPECT_NE(out.find("0: lumiflux-test:/test/0  \"Test camera 0 (front)\"\n"
                       "    provider lumiflux-test, facing front, mount angle 270\n"
                       "    formats: YUV420SemiPlanar YUV420Planar\n"
                       "    320x240 @ 1, 5, 10, 15, 20, 24, 25, 30, 50, 60 fps\n"
                       "    640x480 @ 1, 5, 10, 15, 20, 24, 25, 30, 50, 60 fps\n"
                       "    1280x720 @ 30, 15 fps\n1: lumiflux-test:/test/1"),
              std::string::npos)
        << out;
    // Nothing on stderr, not even at exit, when the plug-in shuts its device monitor down.
    ASSERT_EQ(lumiflux_test::runCommand(tool("cameras 2>&1 >/dev/null", "3"), &out), 0);
    EXPECT_EQ(out, "");

    const std::string file = lumiflux_test::freshDirectory("capture-tool") + "/frames.yuv";
    const std::string command = "capture lumiflux-test:/test/1 --size 320x240 --fps 30 --frames 10 --json -o ";
    ASSERT_EQ(lumiflux_test::runCommand(tool(command + file), &out), 0) << out;
    ASSERT_EQ(std::count(out.begin(), out.end(), '\n'), 2) << out;
    std::vector<nlohmann::json> list = {nlohmann::json::parse(out.substr(0, out.find('\n'))),
                                        nlohmann::json::parse(out.substr(out.find('\n') + 1))};
    EXPECT_GT(list[1]["measuredFrameRate"].get<double>() * list[1]["seconds"].get<double>(), 0.0);
    list[1].erase("measuredFrameRate"), list[1].erase("seconds");
    EXPECT_EQ(list[0], nlohmann::json::parse(R"({"event":"started","id":"lumiflux-test:/test/1","width":320,)"
                                             R"("height":240,"frameRate":30,"format":"YUV420SemiPlanar"})"));
    EXPECT_EQ(list[1], nlohmann::json::parse(R"({"event":"finished","frames":10,"width":320,"height":240,"output":")" +
                                             file + "\"}"));
    // Ten NV12 frames, rows unpadded; the default bars white and yellow (Y 235, 210; Cb, Cr 128).
    std::ifstream in(file, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ASSERT_EQ(bytes.size(), 10u * 320 * 240 * 3 / 2);
    EXPECT_EQ(bytes.substr(0, 1) + bytes.substr(50, 1) + bytes.substr(320 * 240, 2), "\xEB\xD2\x80\x80");

    EXPECT_EQ(lumiflux_test::runCommand(tool("capture no-such-camera 2>&1"), &out), 1);
    EXPECT_NE(out.find("NotFound: no camera 'no-such-camera'"), std::string::npos) << out;
    EXPECT_EQ(lumiflux_test::runCommand(tool("capture 0 --size 640by480 2>&1"), &out), 1);
    EXPECT_NE(out.find("BadArgument"), std::string::npos) << out;
}

} // namespace
