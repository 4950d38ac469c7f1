// A plug-in written outside the project: it sees nothing but the installed
// headers and the pkg-config (or CMake package) flags.
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
    // The module may use the globals right away.
    (void)globals->sysInfo()->screenRotationAngle();
    static HelloModule module;
    return &module;
}
