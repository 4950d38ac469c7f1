#include "camera_lookup.h"

#include <cstdlib>

namespace lumiflux_tool {

using namespace Tevara::Lumiflux;

std::string facingName(std::int32_t facing)
{
    switch (facing) {
    case CameraFacing::Front:
        return "front";
    case CameraFacing::Back:
        return "back";
    case CameraFacing::External:
        return "external";
    default:
        return std::to_string(facing);
    }
}

std::vector<CameraInfo> listCameras(CameraManager& manager)
{
    std::vector<CameraInfo> cameras;
    const int count = manager.getNumberOfCameras();
    for (int i = 0; i < count; ++i) {
        CameraInfo info;
        if (manager.getCameraInfo(static_cast<unsigned>(i), info))
            cameras.push_back(info);
    }
    return cameras;
}

std::optional<CameraInfo> findCamera(CameraManager& manager, const std::string& idOrIndex)
{
    const auto cameras = listCameras(manager);
    for (const auto& camera : cameras)
        if (camera.id == idOrIndex)
            return camera;
    char* end = nullptr;
    const long index = std::strtol(idOrIndex.c_str(), &end, 10);
    if (!idOrIndex.empty() && *end == 0 && index >= 0 && static_cast<size_t>(index) < cameras.size())
        return cameras[static_cast<size_t>(index)];
    return std::nullopt;
}

} // namespace lumiflux_tool
