// A plug-in built outside the project, from the installed headers and flags alone.
#include <lumiflux/lumiflux.h>

namespace {
class HelloModule : public Tevara::Lumiflux::PluginModule {
public:
    int getPriority() override { return 42; }
    std::shared_ptr<Tevara::Lumiflux::CameraManager> getCameraManager() override { return {}; }
    std::shared_ptr<Tevara::Lumiflux::CodecManager> getCodecManager() override { return {}; }
};
} // namespace

LUMIFLUX_DEFINE_MODULE(globals)
{
    (void)globals->sysInfo()->screenRotationAngle(); // a module may use the globals at once
    static HelloModule module;
    return &module;
}
