// lumiflux-gst-codecs: the video encoders and decoders of the GStreamer
// registry, hardware ones first.

#include <lumiflux/plugin.h>

#include "gst_codec_manager.h"

namespace {

class GstCodecsModule : public Tevara::Lumiflux::PluginModule {
public:
    // Below zero, so that every hardware codec of a device maker's module at
    // priority 0 or above comes before our software codecs, consistently.
    int getPriority() override { return -1; }
    std::shared_ptr<Tevara::Lumiflux::CameraManager> getCameraManager() override { return {}; }
    std::shared_ptr<Tevara::Lumiflux::CodecManager> getCodecManager() override { return manager; }

private:
    std::shared_ptr<Tevara::Lumiflux::CodecManager> manager =
        std::make_shared<Tevara::Lumiflux::GstCodecs::GstCodecManager>();
};

} // namespace

LUMIFLUX_DEFINE_MODULE(globals)
{
    (void)globals;
    static GstCodecsModule module;
    return &module;
}
