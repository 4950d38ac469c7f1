// lumiflux-gst-cameras: the cameras GStreamer's device monitor finds (V4L2,
// libcamera, PipeWire: whatever providers the machine has), with hot-plug,
// and test-pattern cameras when LUMIFLUX_TEST_CAMERAS is set.

#include <memory>

#include <lumiflux/plugin.h>

#include "gst_camera_manager.h"

namespace {

class GstCamerasModule final : public Tevara::Lumiflux::PluginModule {
public:
    int getPriority() override { return 0; }
    std::shared_ptr<Tevara::Lumiflux::CameraManager> getCameraManager() override { return manager; }
    std::shared_ptr<Tevara::Lumiflux::CodecManager> getCodecManager() override { return {}; }

private:
    // One manager for the process: the root asks for it on every enumeration.
    std::shared_ptr<Tevara::Lumiflux::GstCameras::GstCameraManager> manager =
        std::make_shared<Tevara::Lumiflux::GstCameras::GstCameraManager>();
};

} // namespace

LUMIFLUX_DEFINE_MODULE(globals)
{
    (void)globals;
    static GstCamerasModule module;
    return &module;
}
