#include "gst_camera_manager.h"

#include <cstdlib>

#include "device_description.h"
#include "gst_camera.h"
#include "test_camera_provider.h"
#include <lumiflux/log_line.h>

namespace Tevara::Lumiflux::GstCameras {

using Internal::Ref;

namespace {

int testCameraCount()
{
    const char* value = std::getenv("LUMIFLUX_TEST_CAMERAS");
    if (value == nullptr)
        return 0;
    char* end = nullptr;
    const long count = std::strtol(value, &end, 10);
    if (end == value || *end != 0 || count < 0 || count > 64) {
        LUMIFLUX_LOG(LogLevel::Error, "main ")
            << "LUMIFLUX_TEST_CAMERAS must be a number from 0 to 64, not '" << value << "'" << std::endl;
        return 0;
    }
    return static_cast<int>(count);
}

} // namespace

GstCameraManager::~GstCameraManager()
{
    if (!monitor)
        return;
    announcing = false;
    gst_device_monitor_stop(monitor.get());
    Ref<GstBus> bus = Ref<GstBus>::adopt(gst_device_monitor_get_bus(monitor.get()));
    gst_bus_set_sync_handler(bus.get(), nullptr, nullptr, nullptr);
}

bool GstCameraManager::init()
{
    // Held for the whole of init, so two first calls start one monitor; the
    // device list's own mutex stays free, because starting the monitor
    // already delivers devices through onBusMessage on this thread.
    std::lock_guard<std::mutex> lock(initMutex);
    if (initialised)
        return initResult;
    initialised = true;

    GError* rawError = nullptr;
    if (!gst_init_check(nullptr, nullptr, &rawError)) {
        Ref<GError> error = Ref<GError>::adopt(rawError);
        LUMIFLUX_LOG(LogLevel::Error, "main ")
            << "cannot initialise GStreamer: " << (error ? error->message : "unknown error") << std::endl;
        return initResult = false;
    }
    if (const int count = testCameraCount(); count > 0 && !registerTestCameraProvider(count))
        LUMIFLUX_LOG(LogLevel::Error, "main ") << "cannot register the test cameras" << std::endl;

    monitor = Ref<GstDeviceMonitor>::adopt(gst_device_monitor_new());
    gst_device_monitor_add_filter(monitor.get(), "Video/Source", nullptr);
    Ref<GstBus> bus = Ref<GstBus>::adopt(gst_device_monitor_get_bus(monitor.get()));
    // Handled where it is posted: no main loop of ours is needed, and the
    // listener hears of a device on the provider's own thread. Unset in the
    // destructor before the monitor goes.
    gst_bus_set_sync_handler(bus.get(), onBusMessage, this, nullptr);
    if (!gst_device_monitor_start(monitor.get())) {
        // No provider at all on this machine: no cameras, and none can come.
        LUMIFLUX_LOG_DIGIT(1, "main ") << "no video device provider" << std::endl;
        return initResult = true;
    }
    GList* current = gst_device_monitor_get_devices(monitor.get());
    for (GList* item = current; item != nullptr; item = item->next)
        addDevice(GST_DEVICE(item->data));
    g_list_free_full(current, gst_object_unref);
    announcing = true;
    return initResult = true;
}

std::string GstCameraManager::addDevice(GstDevice* device)
{
    Entry entry{Ref<GstDevice>::share(device), describeDevice(device), {}};
    Ref<GstCaps> caps = Ref<GstCaps>::adopt(gst_device_get_caps(device));
    entry.capabilities = capabilitiesOf(caps.get());
    std::lock_guard<std::mutex> lock(mutex);
    for (const Entry& known : devices)
        // The monitor reports devices present at start both as messages and
        // in its list; and two providers may see one device.
        if (known.device.get() == device || known.info.id == entry.info.id)
            return {};
    const std::string id = entry.info.id;
    devices.push_back(std::move(entry));
    return id;
}

std::string GstCameraManager::removeDevice(GstDevice* device)
{
    std::lock_guard<std::mutex> lock(mutex);
    for (auto it = devices.begin(); it != devices.end(); ++it)
        if (it->device.get() == device) {
            const std::string id = it->info.id;
            devices.erase(it);
            return id;
        }
    return {};
}

void GstCameraManager::notify(bool added, const std::string& id)
{
    if (id.empty() || !announcing)
        return;
    // The listener is called outside listenerMutex. The root manager, our
    // listener, takes its own lock in the callback and, on another thread,
    // calls our setListener while holding that same lock in every
    // enumeration: calling it under listenerMutex would invert the order.
    CameraManagerListener* target = nullptr;
    {
        std::lock_guard<std::recursive_mutex> lock(listenerMutex);
        target = listener;
    }
    if (target == nullptr)
        return;
    if (added)
        target->onCameraAdded(id);
    else
        target->onCameraRemoved(id);
}

GstBusSyncReply GstCameraManager::onBusMessage(GstBus*, GstMessage* message, gpointer self)
{
    auto* manager = static_cast<GstCameraManager*>(self);
    try {
        GstDevice* device = nullptr;
        switch (GST_MESSAGE_TYPE(message)) {
        case GST_MESSAGE_DEVICE_ADDED: {
            gst_message_parse_device_added(message, &device);
            Ref<GstDevice> owned = Ref<GstDevice>::adopt(device);
            manager->notify(true, manager->addDevice(owned.get()));
            break;
        }
        case GST_MESSAGE_DEVICE_REMOVED: {
            gst_message_parse_device_removed(message, &device);
            Ref<GstDevice> owned = Ref<GstDevice>::adopt(device);
            manager->notify(false, manager->removeDevice(owned.get()));
            break;
        }
        case GST_MESSAGE_DEVICE_CHANGED: {
            // Same camera, new description: replaced without a notification.
            GstDevice* previous = nullptr;
            gst_message_parse_device_changed(message, &device, &previous);
            Ref<GstDevice> owned = Ref<GstDevice>::adopt(device);
            Ref<GstDevice> old = Ref<GstDevice>::adopt(previous);
            manager->removeDevice(old.get());
            manager->addDevice(owned.get());
            break;
        }
        default:
            break;
        }
    } catch (const std::exception& error) {
        LUMIFLUX_LOG(LogLevel::Error, "main ") << "device change not handled: " << error.what() << std::endl;
    } catch (...) {
        LUMIFLUX_LOG(LogLevel::Error, "main ") << "device change not handled" << std::endl;
    }
    return GST_BUS_DROP;
}

int GstCameraManager::getNumberOfCameras()
{
    std::lock_guard<std::mutex> lock(mutex);
    return static_cast<int>(devices.size());
}

bool GstCameraManager::getCameraInfo(unsigned int index, CameraInfo& info)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (index >= devices.size())
        return false;
    info = devices[index].info;
    return true;
}

bool GstCameraManager::queryCapabilities(const std::string& id, std::vector<CameraCapability>& capabilities)
{
    std::lock_guard<std::mutex> lock(mutex);
    for (const Entry& entry : devices)
        if (entry.info.id == id) {
            capabilities = entry.capabilities;
            return !capabilities.empty();
        }
    return false;
}

std::shared_ptr<Camera> GstCameraManager::openCamera(const std::string& id)
{
    Ref<GstDevice> device;
    CameraInfo info;
    std::vector<CameraCapability> capabilities;
    {
        std::lock_guard<std::mutex> lock(mutex);
        for (const Entry& entry : devices)
            if (entry.info.id == id) {
                device = entry.device;
                info = entry.info;
                capabilities = entry.capabilities;
            }
    }
    if (!device)
        return nullptr;
    auto camera = std::make_shared<GstCamera>(device.get(), std::move(info), std::move(capabilities));
    if (!camera->valid())
        return nullptr;
    return GstCamera::handOut(std::move(camera));
}

} // namespace Tevara::Lumiflux::GstCameras
