// The root camera manager: one list over the cameras of every plug-in, and
// the routing of every per-camera call to the plug-in that owns the id.

#include <lumiflux/camera_base.h>
#include <lumiflux/plugin.h>

#include <libintl.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "camera/camera_sort.h"

namespace Tevara::Lumiflux {

namespace {

class RootCameraManager final : public Internal::BaseCameraManager, public CameraManagerListener {
public:
    bool init() override;
    int getNumberOfCameras() override;
    bool getCameraInfo(unsigned int index, CameraInfo& info) override;
    bool queryCapabilities(const std::string& id, std::vector<CameraCapability>& capabilities) override;
    std::shared_ptr<Camera> openCamera(const std::string& id) override;
    std::vector<PixelFormatDescription> getSupportedFormats(const std::string& id) override;
    bool queryCapabilityRanges(const std::string& id, PixelFormat format, CameraCapabilityRanges& ranges) override;
    bool findClosestCapability(const std::string& id, PixelFormat format, const CameraCapabilityEx& wanted,
                               CameraCapabilityEx& found, CameraCapabilityPriority priority) override;

    void onCameraAdded(const std::string& id) override;
    void onCameraRemoved(const std::string& id) override;

private:
    void enumerate();
    // A copy of the owner, so that the call runs on a reference of its own
    // even if the plug-in drops the manager meanwhile. Empty when unknown.
    std::shared_ptr<CameraManager> ownerOf(const std::string& id) const;

    std::mutex mutex;
    bool initialised = false;
    std::vector<CameraInfo> cameras;
    std::map<std::string, std::shared_ptr<CameraManager>> owners;
    std::vector<Plugin> plugins;
};

bool RootCameraManager::init()
{
    std::lock_guard<std::mutex> lock(mutex);
    if (initialised)
        return true;
    bindtextdomain("lumiflux", "/usr/share/locale");
    for (const Plugin& plugin : PluginManager::get().listPlugins()) {
        // Only the record is kept: the module is asked for its manager again
        // whenever it is needed, so a module may replace it.
        const std::shared_ptr<CameraManager> manager = plugin.module->getCameraManager();
        if (manager && manager->init())
            plugins.push_back(plugin);
    }
    initialised = true;
    return true;
}

void RootCameraManager::enumerate()
{
    std::lock_guard<std::mutex> lock(mutex);
    cameras.clear();
    owners.clear();
    for (const Plugin& plugin : plugins) {
        std::shared_ptr<CameraManager> manager = plugin.module->getCameraManager();
        if (!manager)
            continue;
        // Repeated every time: a plug-in that replaced its manager is followed too.
        manager->setListener(this);
        // The count is asked again before every index: a camera that appears
        // while we list is taken in the same pass.
        for (unsigned int index = 0; static_cast<long long>(index) < manager->getNumberOfCameras(); ++index) {
            CameraInfo info;
            if (!manager->getCameraInfo(index, info))
                continue;
            cameras.push_back(info);
            // A later plug-in that reports the same id takes over its calls.
            owners[info.id] = manager;
        }
    }
    Internal::sortCamerasByFacing(cameras);
}

int RootCameraManager::getNumberOfCameras()
{
    init();
    enumerate();
    return static_cast<int>(cameras.size());
}

bool RootCameraManager::getCameraInfo(unsigned int index, CameraInfo& info)
{
    if (index >= cameras.size())
        return false;
    const CameraInfo& entry = cameras[index];
    info.id = entry.id;
    info.name = entry.name;
    info.provider = entry.provider;
    info.facing = entry.facing;
    info.mountAngle = entry.mountAngle;
    info.description = entry.description;
    return true;
}

std::shared_ptr<CameraManager> RootCameraManager::ownerOf(const std::string& id) const
{
    const auto found = owners.find(id);
    return found != owners.end() ? found->second : nullptr;
}

bool RootCameraManager::queryCapabilities(const std::string& id, std::vector<CameraCapability>& capabilities)
{
    const auto owner = ownerOf(id);
    return owner ? owner->queryCapabilities(id, capabilities) : false;
}

std::shared_ptr<Camera> RootCameraManager::openCamera(const std::string& id)
{
    const auto owner = ownerOf(id);
    return owner ? owner->openCamera(id) : nullptr;
}

std::vector<PixelFormatDescription> RootCameraManager::getSupportedFormats(const std::string& id)
{
    const auto owner = ownerOf(id);
    return owner ? owner->getSupportedFormats(id) : std::vector<PixelFormatDescription>{};
}

bool RootCameraManager::queryCapabilityRanges(const std::string& id, PixelFormat format, CameraCapabilityRanges& ranges)
{
    const auto owner = ownerOf(id);
    return owner ? owner->queryCapabilityRanges(id, format, ranges) : false;
}

bool RootCameraManager::findClosestCapability(const std::string& id, PixelFormat format,
                                              const CameraCapabilityEx& wanted, CameraCapabilityEx& found,
                                              CameraCapabilityPriority priority)
{
    const auto owner = ownerOf(id);
    return owner ? owner->findClosestCapability(id, format, wanted, found, priority) : false;
}

// Hot-plug: the list is refreshed before the application hears of the
// change, on the plug-in's thread, so a query from inside the callback sees it.
void RootCameraManager::onCameraAdded(const std::string& id)
{
    enumerate();
    std::lock_guard<std::recursive_mutex> lock(listenerMutex);
    if (listener != nullptr)
        listener->onCameraAdded(id);
}

void RootCameraManager::onCameraRemoved(const std::string& id)
{
    enumerate();
    std::lock_guard<std::recursive_mutex> lock(listenerMutex);
    if (listener != nullptr)
        listener->onCameraRemoved(id);
}

// Constructed when the library is loaded, destroyed at exit; it neither
// detaches from the plug-in managers nor unloads anything.
RootCameraManager rootCameraManager;

} // namespace

} // namespace Tevara::Lumiflux

extern "C" LUMIFLUX_EXPORT Tevara::Lumiflux::CameraManager* LumifluxManager()
{
    Tevara::Lumiflux::rootCameraManager.init();
    return &Tevara::Lumiflux::rootCameraManager;
}
