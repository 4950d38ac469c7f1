#pragma once

// The cameras GStreamer's device monitor sees in class "Video/Source", kept
// up to date from the monitor's bus. Hot-plug is reported to the manager's
// listener on the thread that posted the device message (the provider's).

#include <gst/gst.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <lumiflux/camera_base.h>

#include <lumiflux/gst_ref.h>

namespace Tevara::Lumiflux::GstCameras {

class GstCameraManager final : public Internal::BaseCameraManager {
public:
    GstCameraManager() = default;
    ~GstCameraManager() override;
    GstCameraManager(const GstCameraManager&) = delete;
    GstCameraManager& operator=(const GstCameraManager&) = delete;

    /**
     * Initialises GStreamer, registers the test cameras when
     * LUMIFLUX_TEST_CAMERAS is a positive number, and starts the device
     * monitor. False only when GStreamer cannot be initialised. Idempotent.
     */
    bool init() override;
    int getNumberOfCameras() override;
    bool getCameraInfo(unsigned int index, CameraInfo& info) override;
    bool queryCapabilities(const std::string& id, std::vector<CameraCapability>& capabilities) override;
    std::shared_ptr<Camera> openCamera(const std::string& id) override;

private:
    struct Entry {
        Internal::Ref<GstDevice> device;
        CameraInfo info;
        std::vector<CameraCapability> capabilities;
    };

    static GstBusSyncReply onBusMessage(GstBus* bus, GstMessage* message, gpointer self);
    // Both return the id that changed, or "" when nothing did.
    std::string addDevice(GstDevice* device);
    std::string removeDevice(GstDevice* device);
    void notify(bool added, const std::string& id);

    std::mutex initMutex; ///< serialises init
    bool initialised = false;
    bool initResult = false;
    Internal::Ref<GstDeviceMonitor> monitor;

    std::mutex mutex;           ///< guards devices; never held while the listener or GStreamer runs
    std::vector<Entry> devices; ///< in the order they appeared
    // Set once init is over: devices the monitor announces while it starts
    // are the initial list, not hot-plug (and the root manager is still in
    // its init, where a notification would deadlock it).
    std::atomic<bool> announcing{false};
};

} // namespace Tevara::Lumiflux::GstCameras
