#include <lumiflux/sysinfo.h>

#include <dconf.h>

#include <lumiflux/gst_ref.h>

namespace Tevara::Lumiflux::Internal {

namespace {

constexpr const char* screenRotationKey = "/desktop/vantel/components/screen_rotation_angle";

class SysInfoImpl final : public SysInfo {
public:
    SysInfoImpl() { read(); }
    int screenRotationAngle() const override { return angle; }

private:
    void read()
    {
        angle = 0;
        Ref<DConfClient> client = Ref<DConfClient>::adopt(dconf_client_new());
        if (!client)
            return;
        Ref<GVariant> value = Ref<GVariant>::adopt(dconf_client_read(client.get(), screenRotationKey));
        // A missing key gives no value and another type is not ours to read:
        // both leave the angle at 0.
        if (value && g_variant_is_of_type(value.get(), G_VARIANT_TYPE_INT32))
            g_variant_get(value.get(), "i", &angle);
    }

    gint32 angle = 0;
};

class GlobalsImpl final : public Globals {
public:
    constexpr GlobalsImpl() = default;
    SysInfo* sysInfo() override
    {
        // Function-local static: thread-safe one-time read, destroyed at exit.
        static SysInfoImpl info;
        return &info;
    }
};

// Constant-initialised, so a module may use it before any constructor runs.
GlobalsImpl globalsInstance;

} // namespace

Globals* globals()
{
    return &globalsInstance;
}

} // namespace Tevara::Lumiflux::Internal
