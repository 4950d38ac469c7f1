#pragma once

// What a GStreamer device says about itself, turned into the camera records
// of the library: identity and placement from its properties, modes from its
// caps.

#include <gst/gst.h>

#include <string>
#include <vector>

#include <lumiflux/camera.h>

namespace Tevara::Lumiflux::GstCameras {

/**
 * The camera record of a device. The id is "<api>:<node>", from the
 * device's "device.api" property and the first of its path-like properties
 * ("api.v4l2.path", "device.path", "object.path", "node.name"), falling back
 * to the display name, so it stays the same across runs and re-plugs.
 * Facing comes from "api.libcamera.location" or "camera.location" ("front",
 * "back", anything else or nothing: CameraFacing::External); the mount angle
 * from "api.libcamera.rotation" or "camera.rotation" (0 without).
 */
CameraInfo describeDevice(GstDevice* device);

/**
 * The modes of a device's raw video caps, without duplicates, in caps order.
 * Size ranges are expanded to common sizes inside the range plus the
 * largest; frame-rate ranges to the rates people ask for (5, 10, 15, 20, 24,
 * 25, 30, 50, 60, 90, 120) inside the range plus both ends.
 */
std::vector<CameraCapability> capabilitiesOf(const GstCaps* caps);

} // namespace Tevara::Lumiflux::GstCameras
