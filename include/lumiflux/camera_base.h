#pragma once

/**
 * @file camera_base.h
 * Partial cameras and camera managers for plug-ins. A plug-in camera
 * supplies its modes (queryCapabilities), its formats (getSupportedFormats)
 * and its native capture start (startCapture with a whole-number rate), plus
 * the operations the library leaves to plug-ins; BaseCamera derives format
 * checks, capability ranges, the closest-mode search and the exact-rate
 * capture start from them, so every plug-in answers them alike.
 *
 * Neither class holds state beyond Camera's listener; every operation asks
 * the plug-in afresh, may be called from any thread the plug-in's own
 * operations allow, and lets the plug-in's exceptions through unchanged.
 */

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <lumiflux/camera.h>
#include <lumiflux/export.h>

namespace Tevara::Lumiflux::Internal {

/**
 * A frame rate as a whole number: the fraction reduced, divided and rounded
 * half away from zero. 0 when the numerator is 0 or the denominator is 0.
 * So 30000/1001 gives 30 and 25/2 gives 13.
 */
LUMIFLUX_EXPORT std::uint32_t frameRateToInteger(std::uint32_t numerator, std::uint32_t denominator);

/**
 * Camera operations built on the plug-in's primitive ones.
 *
 * For plug-in writers: applications rely on the rules CameraListener states
 * for callbacks. A camera that delivers on a thread it must join to stop
 * (a GStreamer streaming thread) therefore refuses startCapture and
 * stopCapture made on that thread from inside its listener calls (false and
 * one error line), and hands cameras out through a shared pointer whose
 * deleter, when the last reference goes inside one of those calls, clears
 * the listener and moves the teardown to another thread. The bundled
 * plug-in does both; these base classes take no part in it.
 */
class LUMIFLUX_EXPORT BaseCamera : public Camera {
public:
    using Camera::isFormatSupported;
    using Camera::startCapture;

    ~BaseCamera() override;

    /** The format of every entry of getSupportedFormats(), in order. */
    std::vector<PixelFormat> getSupportedPixelFormats() override;

    /** True when an entry of getSupportedFormats() has the same format and modifier. */
    bool isFormatSupported(const PixelFormatDescription& description) override;

    /** True when an entry of getSupportedFormats() has this format. */
    bool isFormatSupported(PixelFormat format) override;

    /**
     * Minimum and maximum of width, height and frame rate over all modes
     * (whatever their format); steps are 0, frame rates over 1. A running
     * minimum of 0 counts as unset and is replaced by the next value. False
     * when the camera does not list `format` or has no modes.
     */
    bool queryCapabilityRanges(PixelFormat format, CameraCapabilityRanges& ranges) override;

    /**
     * Narrows all modes (whatever their format) to those nearest `wanted` in
     * each property, in the order `priority` gives, and returns the first
     * left. A priority outside the four values applies no filter, so the
     * first mode is returned. False, `found` untouched, without modes.
     */
    bool findClosestCapability(PixelFormat format, const CameraCapabilityEx& wanted, CameraCapabilityEx& found,
                               CameraCapabilityPriority priority) override;

    /** The plug-in's startCapture() with the frame rate as a whole number. */
    bool startCapture(const CameraCapabilityEx& capability, PixelFormat format) override;
};

/**
 * Manager operations answered by way of a camera of the manager's own: each
 * call opens the camera anew with openCamera(id), asks it, and releases it.
 * The plug-in supplies init, getNumberOfCameras, getCameraInfo,
 * queryCapabilities and openCamera.
 */
class LUMIFLUX_EXPORT BaseCameraManager : public CameraManager {
public:
    ~BaseCameraManager() override;

    /** The camera's getSupportedFormats(); empty when it cannot be opened. */
    std::vector<PixelFormatDescription> getSupportedFormats(const std::string& id) override;

    /** The camera's queryCapabilityRanges(); false when it cannot be opened. */
    bool queryCapabilityRanges(const std::string& id, PixelFormat format, CameraCapabilityRanges& ranges) override;

    /** The camera's findClosestCapability(); false when it cannot be opened. */
    bool findClosestCapability(const std::string& id, PixelFormat format, const CameraCapabilityEx& wanted,
                               CameraCapabilityEx& found, CameraCapabilityPriority priority) override;
};

} // namespace Tevara::Lumiflux::Internal
