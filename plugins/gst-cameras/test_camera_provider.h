#pragma once

// Test-pattern cameras for machines without one. A GStreamer device
// provider of our own, registered in this process only, whose devices are
// videotestsrc elements: the device monitor finds them like any real camera,
// so demos and tests run through exactly the code path real devices take.

namespace Tevara::Lumiflux::GstCameras {

/**
 * Registers the provider "lumifluxtestcameras" offering `count` cameras
 * (facings front, back, external in turn), once per process; later calls
 * do nothing. GStreamer must be initialised. Returns false when the
 * registration failed.
 */
bool registerTestCameraProvider(int count);

} // namespace Tevara::Lumiflux::GstCameras
