#include "test_camera_provider.h"

#include <gst/gst.h>

#include <mutex>
#include <string>

namespace {

int cameraCount = 0;

struct TestCameraDevice {
    GstDevice parent;
};
struct TestCameraDeviceClass {
    GstDeviceClass parentClass;
};

struct TestCameraProvider {
    GstDeviceProvider parent;
};
struct TestCameraProviderClass {
    GstDeviceProviderClass parentClass;
};

GType testCameraDeviceType();
GType testCameraProviderType();

GstElement* createElement(GstDevice* /*device*/, const gchar* name)
{
    GstElement* source = gst_element_factory_make("videotestsrc", name);
    if (source != nullptr)
        // A camera runs on its own clock: frames come at the negotiated rate.
        g_object_set(source, "is-live", TRUE, nullptr);
    return source;
}

void testCameraDeviceClassInit(gpointer klass, gpointer)
{
    GST_DEVICE_CLASS(klass)->create_element = createElement;
}

GType testCameraDeviceType()
{
    static GType type = 0;
    static std::once_flag once;
    std::call_once(once, [] {
        type =
            g_type_register_static_simple(GST_TYPE_DEVICE, "LumifluxTestCameraDevice", sizeof(TestCameraDeviceClass),
                                          testCameraDeviceClassInit, sizeof(TestCameraDevice), nullptr, GTypeFlags(0));
    });
    return type;
}

// The modes a small webcam might offer, in three raw formats so that the
// capture path meets both a native format and one it converts.
GstCaps* testCameraCaps()
{
    return gst_caps_from_string("video/x-raw, format=(string){ NV12, I420, YUY2 }, width=(int)320, height=(int)240, "
                                "framerate=(fraction)[ 1/1, 60/1 ]; "
                                "video/x-raw, format=(string){ NV12, I420, YUY2 }, width=(int)640, height=(int)480, "
                                "framerate=(fraction)[ 1/1, 60/1 ]; "
                                "video/x-raw, format=(string){ NV12, I420 }, width=(int)1280, height=(int)720, "
                                "framerate=(fraction){ 30/1, 15/1 }");
}

const char* locationOf(int index)
{
    static const char* locations[] = {"front", "back", "external"};
    return locations[index % 3];
}

GstDevice* makeDevice(int index)
{
    const std::string path = "/test/" + std::to_string(index);
    GstStructure* properties =
        gst_structure_new("lumiflux-test-camera-properties", "device.api", G_TYPE_STRING, "lumiflux-test",
                          "device.path", G_TYPE_STRING, path.c_str(), "camera.location", G_TYPE_STRING,
                          locationOf(index), "camera.rotation", G_TYPE_INT, index % 3 == 0 ? 270 : 90, nullptr);
    const std::string name = "Test camera " + std::to_string(index) + " (" + locationOf(index) + ")";
    GstCaps* caps = testCameraCaps();
    auto* device =
        static_cast<GstDevice*>(g_object_new(testCameraDeviceType(), "display-name", name.c_str(), "device-class",
                                             "Video/Source", "caps", caps, "properties", properties, nullptr));
    gst_caps_unref(caps);
    gst_structure_free(properties);
    return device;
}

GList* probe(GstDeviceProvider*)
{
    GList* devices = nullptr;
    for (int i = 0; i < cameraCount; ++i)
        devices = g_list_append(devices, makeDevice(i));
    return devices;
}

void testCameraProviderClassInit(gpointer klass, gpointer)
{
    auto* providerClass = GST_DEVICE_PROVIDER_CLASS(klass);
    providerClass->probe = probe;
    gst_device_provider_class_set_static_metadata(providerClass, "Lumiflux test cameras", "Source/Video",
                                                  "Test-pattern cameras for machines without one", "lumiflux");
}

GType testCameraProviderType()
{
    static GType type = 0;
    static std::once_flag once;
    std::call_once(once, [] {
        type = g_type_register_static_simple(GST_TYPE_DEVICE_PROVIDER, "LumifluxTestCameraProvider",
                                             sizeof(TestCameraProviderClass), testCameraProviderClassInit,
                                             sizeof(TestCameraProvider), nullptr, GTypeFlags(0));
    });
    return type;
}

gboolean pluginInit(GstPlugin* plugin)
{
    return gst_device_provider_register(plugin, "lumifluxtestcameras", GST_RANK_PRIMARY, testCameraProviderType());
}

} // namespace

namespace Tevara::Lumiflux::GstCameras {

bool registerTestCameraProvider(int count)
{
    static bool registered = false;
    static std::once_flag once;
    std::call_once(once, [count] {
        cameraCount = count;
        registered = gst_plugin_register_static(GST_VERSION_MAJOR, GST_VERSION_MINOR, "lumifluxtestcameras",
                                                "Test-pattern cameras", pluginInit, "1.0", "LGPL", "lumiflux",
                                                "lumiflux", "https://localhost/") != FALSE;
    });
    return registered;
}

} // namespace Tevara::Lumiflux::GstCameras
