#pragma once

// What the camera commands share: naming a camera on the command line and
// describing it.

#include <optional>
#include <string>
#include <vector>

#include <lumiflux/camera.h>

namespace lumiflux_tool {

/** "front", "back", "external" or the number. */
std::string facingName(std::int32_t facing);

/** Every camera of the root manager, in its order (refreshes the list). */
std::vector<Tevara::Lumiflux::CameraInfo> listCameras(Tevara::Lumiflux::CameraManager& manager);

/** The camera named by its id or, failing that, by its index in the list. */
std::optional<Tevara::Lumiflux::CameraInfo> findCamera(Tevara::Lumiflux::CameraManager& manager,
                                                       const std::string& idOrIndex);

} // namespace lumiflux_tool
