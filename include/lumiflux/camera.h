#pragma once

/**
 * @file camera.h
 * Cameras: the records that describe a camera and its modes, the camera and
 * camera-manager interfaces that plug-ins implement, the listeners that
 * applications implement, and `LumifluxManager()`, the root manager through
 * which an application reaches every camera of every plug-in.
 *
 * Typical use:
 * @code
 * CameraManager* manager = LumifluxManager();
 * int count = manager->getNumberOfCameras();      // refreshes the list
 * CameraInfo info;
 * if (count > 0 && manager->getCameraInfo(0, info)) {
 *     auto camera = manager->openCamera(info.id);
 *     camera->setListener(&myListener);
 *     camera->startCapture(CameraCapability{640, 480, 30}, PixelFormat::YUV420SemiPlanar);
 * }
 * @endcode
 *
 * The virtual operations of every interface here keep their order: plug-ins
 * are compiled against it. Nothing may be inserted between them.
 */

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <lumiflux/export.h>
#include <lumiflux/types.h>

namespace Tevara::Lumiflux {

class GraphicBuffer;

/**
 * The `facing` values the bundled camera plug-in reports and that
 * applications may rely on. The list is ordered by `facing`, so front
 * cameras come first, then back cameras, then external ones (a USB camera,
 * or any device that does not say where it is mounted).
 */
namespace CameraFacing {
constexpr std::int32_t Front = 0;    ///< on the side of the screen
constexpr std::int32_t Back = 1;     ///< on the side away from the screen
constexpr std::int32_t External = 2; ///< a USB camera, or one that does not say where it is mounted
} // namespace CameraFacing

/** One camera, as its plug-in describes it. */
struct CameraInfo {
    std::string id;       ///< identifier, unique per plug-in; the key for every per-camera call
    std::string name;     ///< name for people
    std::string provider; ///< which subsystem found the camera
    std::int32_t facing;  ///< ordering key, see CameraFacing; set by the plug-in, no default
    /**
     * Clockwise rotation of the sensor in degrees against the device in its
     * natural orientation; set by the plug-in, no default. Frames are not
     * turned: their pixels come as the sensor delivers them, and
     * GraphicBuffer::rotation() of a frame from the bundled plug-in is 0
     * whatever this angle is. To show a frame upright on the device in its
     * natural orientation, turn it clockwise by mountAngle. The bundled
     * plug-in reads the angle from the device's properties
     * ("api.libcamera.rotation" or "camera.rotation"), 0 when it has none.
     */
    std::int32_t mountAngle;
    std::string description; ///< free text from the plug-in
};

/** One mode a camera can capture in, with a whole-number frame rate. */
struct CameraCapability {
    std::uint32_t width = 0;     ///< pixels
    std::uint32_t height = 0;    ///< pixels
    std::uint32_t frameRate = 0; ///< frames per second
};

/** A frame rate as a fraction (frames per numerator/denominator second). */
struct CameraFrameRate {
    std::uint32_t numerator = 0;   ///< frames
    std::uint32_t denominator = 1; ///< seconds
};

/** One mode with an exact frame rate. */
struct CameraCapabilityEx {
    std::uint32_t width = 0;   ///< pixels
    std::uint32_t height = 0;  ///< pixels
    CameraFrameRate frameRate; ///< exact frames per second
};

/** The span of a camera's modes for one pixel format. */
struct CameraCapabilityRanges {
    std::uint32_t minWidth = 0;    ///< smallest width in pixels
    std::uint32_t maxWidth = 0;    ///< largest width in pixels
    std::uint32_t stepWidth = 0;   ///< width step between modes; 0 when the widths are discrete
    std::uint32_t minHeight = 0;   ///< smallest height in pixels
    std::uint32_t maxHeight = 0;   ///< largest height in pixels
    std::uint32_t stepHeight = 0;  ///< height step between modes; 0 when the heights are discrete
    CameraFrameRate minFrameRate;  ///< lowest frame rate
    CameraFrameRate maxFrameRate;  ///< highest frame rate
    CameraFrameRate stepFrameRate; ///< frame-rate step; 0/1 when the rates are discrete
};

/** Which property counts most when no mode matches a request exactly. */
enum class CameraCapabilityPriority : std::int32_t {
    WidthHeightFrameRate = 0, ///< width, then height, then frame rate
    HeightWidthFrameRate = 1, ///< height, then width, then frame rate
    FrameRateWidthHeight = 2, ///< frame rate, then width, then height
    FrameRateHeightWidth = 3, ///< frame rate, then height, then width
};

/** A pixel format with the qualifier (modifier) of its memory layout. */
struct PixelFormatDescription {
    PixelFormat format = PixelFormat::Invalid; ///< the pixel layout
    std::uint64_t modifier = 0;                ///< compared for equality only
};

/**
 * What an application hears from one camera while it captures.
 *
 * Threads: every callback arrives on a thread of the plug-in (for the
 * bundled plug-in, a GStreamer streaming thread), except onCaptureEnded after
 * stopCapture(), which runs on the thread that called stopCapture(); always
 * under the camera's listener mutex, so after `Camera::setListener(nullptr)`
 * returns no callback is running or will run.
 *
 * Inside a callback, with the bundled plug-in:
 * - allowed on the same camera: `setListener` (the mutex is recursive),
 *   `takePicture`, `isCapturing`, `getInfo`, `getParameter`,
 *   `setParameter` and the mode queries; frames may be kept as long as the
 *   application likes;
 * - allowed: dropping a reference to the camera, even the last one. The
 *   listener is then called no more (from that moment on), and the camera's
 *   pipeline is taken down on a thread of its own once the callback has
 *   returned, since the teardown waits for the thread running the callback.
 *   Outside callbacks, releasing the last reference still stops the capture
 *   before the release returns;
 * - refused: `startCapture` and `stopCapture` on the same camera return
 *   false, with one error line in the log, and change nothing (both wait for
 *   the capture thread, which is the thread running the callback). Stop the
 *   capture from another thread, or drop the camera.
 *
 * A callback should return quickly: a slow callback holds back the next
 * frame, and frames that are kept hold capture memory until they are
 * released.
 *
 * Every operation has an empty default, so a listener overrides only what it
 * needs.
 */
class LUMIFLUX_EXPORT CameraListener {
public:
    virtual ~CameraListener();
    /**
     * One captured frame, in the pixel format capture was started with; the
     * buffer wraps the captured memory without a copy. Its `format` field
     * says YCbCrFlexible for either layout: the application knows the layout
     * from its own startCapture() call, or reads it from a mapped view
     * (graphic_buffer.h: Frame::fourcc, YCbCrFrame::chromaStep).
     */
    virtual void onFrame(const std::shared_ptr<GraphicBuffer>& frame);
    /** The frame `Camera::takePicture` asked for (it is also delivered to onFrame). */
    virtual void onPictureTaken(const std::shared_ptr<GraphicBuffer>& picture);
    /** Capture failed; no further frame follows until capture is started again. */
    virtual void onError(const std::string& message);
    /**
     * Capture has ended: after the last frame of a stopCapture() (called on
     * the thread of stopCapture), or when the device stopped delivering
     * frames on its own (end of stream; called on a capture thread).
     */
    virtual void onCaptureEnded();
};

/**
 * One camera. Plug-ins implement it, normally on Internal::BaseCamera
 * (camera_base.h). Objects are handed out as shared pointers; releasing the
 * last one stops a capture in progress before the release returns, or, when
 * it happens inside one of the camera's own listener calls, silences the
 * listener at once and finishes on another thread (see CameraListener).
 *
 * Threads: unless an operation says otherwise it may be called from any
 * thread except the camera's own callback threads; the bundled plug-in
 * serialises calls on one camera with a lock of its own.
 */
class LUMIFLUX_EXPORT Camera {
public:
    virtual ~Camera();

    /** This camera's description (the same record its manager lists). False if unknown. */
    virtual bool getInfo(CameraInfo& info) = 0;

    /** The `format` of each entry of getSupportedFormats(), in order, duplicates kept. */
    virtual std::vector<PixelFormat> getSupportedPixelFormats() = 0;

    /**
     * Starts capturing in the given mode and pixel format; frames go to the
     * listener. False when the mode or format cannot be captured or capture
     * is already running; also false, with an error line, inside one of this
     * camera's listener calls.
     */
    virtual bool startCapture(const CameraCapability& capability, PixelFormat format) = 0;

    /**
     * Stops capturing and waits until no frame callback runs any more; then
     * calls CameraListener::onCaptureEnded on the calling thread. False when
     * the camera was not capturing; also false, with an error line and
     * capture going on, inside one of this camera's listener calls (it would
     * wait for the thread running that call).
     */
    virtual bool stopCapture() = 0;

    /** Whether capture has been started and not stopped. */
    virtual bool isCapturing() = 0;

    /**
     * Asks for a still picture: the next captured frame is also delivered to
     * CameraListener::onPictureTaken. False when the camera is not capturing.
     * Returns at once; may be called inside a listener call.
     */
    virtual bool takePicture() = 0;

    /**
     * Reads a camera setting by name, as text. The bundled plug-in offers the
     * settings of its capture device (for example "brightness"). False, with
     * `value` untouched, for an unknown name.
     */
    virtual bool getParameter(const std::string& name, std::string& value) = 0;

    /** Changes a camera setting by name, from text. False for an unknown name or a bad value. */
    virtual bool setParameter(const std::string& name, const std::string& value) = 0;

    /**
     * Sets (or with nullptr removes) the application's listener. Takes the
     * camera's listener mutex, so once it returns the previous listener is
     * no longer called. Safe from any thread, also from inside a callback.
     */
    virtual void setListener(CameraListener* listener);

    /** The pixel formats (with modifiers) this camera captures in. */
    virtual std::vector<PixelFormatDescription> getSupportedFormats() = 0;

    /** True when getSupportedFormats() has an entry with the same format and modifier. */
    virtual bool isFormatSupported(const PixelFormatDescription& description) = 0;

    /** True when getSupportedFormats() has an entry with this format. */
    virtual bool isFormatSupported(PixelFormat format) = 0;

    /**
     * The smallest and largest width, height and frame rate over the
     * camera's modes. False when the camera does not list `format` or has no
     * modes.
     */
    virtual bool queryCapabilityRanges(PixelFormat format, CameraCapabilityRanges& ranges) = 0;

    /**
     * The mode closest to `wanted`, properties matched in the order
     * `priority` gives; the result's frame rate is a whole number over 1.
     * False, with `found` untouched, when the camera has no modes.
     */
    virtual bool findClosestCapability(PixelFormat format, const CameraCapabilityEx& wanted, CameraCapabilityEx& found,
                                       CameraCapabilityPriority priority) = 0;

    /** startCapture() with the frame rate rounded to a whole number. */
    virtual bool startCapture(const CameraCapabilityEx& capability, PixelFormat format) = 0;

    /** All modes of the camera, in the plug-in's order. False when they cannot be read. */
    virtual bool queryCapabilities(std::vector<CameraCapability>& capabilities) = 0;

protected:
    CameraListener* listener = nullptr; ///< read and called only under listenerMutex
    std::recursive_mutex listenerMutex; ///< guards `listener`; recursive so that a callback may change the listener
};

/**
 * What an application hears about cameras that come and go.
 *
 * Threads: called on whatever thread the plug-in notices the change on (for
 * the bundled plug-in, a GStreamer device-provider thread), under the
 * manager's recursive listener mutex. When the root manager calls it, its
 * camera list has already been refreshed, so getCameraInfo() inside the
 * callback sees the change. A callback may call setListener(); it must not
 * run getNumberOfCameras() on another thread and wait for it.
 */
class LUMIFLUX_EXPORT CameraManagerListener {
public:
    virtual ~CameraManagerListener();
    /** A camera with this id has appeared. */
    virtual void onCameraAdded(const std::string& id) = 0;
    /** The camera with this id has gone. */
    virtual void onCameraRemoved(const std::string& id) = 0;
};

/**
 * A set of cameras: what a plug-in provides (normally on
 * Internal::BaseCameraManager) and what `LumifluxManager()` returns.
 *
 * Threads (root manager): init() and getNumberOfCameras() may be called from
 * any thread and are serialised; getCameraInfo() and the per-camera
 * operations read the list of the latest enumeration without a lock, so the
 * application must not run them while another thread enumerates (handle
 * hot-plug on the thread used for queries).
 */
class LUMIFLUX_EXPORT CameraManager {
public:
    virtual ~CameraManager();

    /** Prepares the manager. The root manager never fails. */
    virtual bool init() = 0;

    /** Refreshes the camera list and returns its length. */
    virtual int getNumberOfCameras() = 0;

    /** Copies entry `index` of the latest list into `info`. False, `info` untouched, when out of range. */
    virtual bool getCameraInfo(unsigned int index, CameraInfo& info) = 0;

    /** All modes of camera `id`. False for an unknown id. */
    virtual bool queryCapabilities(const std::string& id, std::vector<CameraCapability>& capabilities) = 0;

    /** Opens camera `id`. Empty for an unknown id or when the camera cannot be opened. */
    virtual std::shared_ptr<Camera> openCamera(const std::string& id) = 0;

    /** Camera::getSupportedFormats() of camera `id`; empty for an unknown id. */
    virtual std::vector<PixelFormatDescription> getSupportedFormats(const std::string& id) = 0;

    /** Camera::queryCapabilityRanges() of camera `id`; false for an unknown id. */
    virtual bool queryCapabilityRanges(const std::string& id, PixelFormat format, CameraCapabilityRanges& ranges) = 0;

    /** Camera::findClosestCapability() of camera `id`; false for an unknown id. */
    virtual bool findClosestCapability(const std::string& id, PixelFormat format, const CameraCapabilityEx& wanted,
                                       CameraCapabilityEx& found, CameraCapabilityPriority priority) = 0;

    /**
     * Sets (or with nullptr removes) the hot-plug listener, under the
     * recursive listener mutex. Safe from any thread, also from inside a
     * notification.
     *
     * For plug-in writers: the root manager registers itself here on every
     * enumeration, while holding its enumeration lock, and its own
     * onCameraAdded/onCameraRemoved take that lock. A plug-in therefore reads
     * `listener` under `listenerMutex` but calls it after unlocking, or a
     * hot-plug on one thread and an enumeration on another wait for each
     * other. It must not notify from inside its own init, getNumberOfCameras
     * or getCameraInfo.
     */
    virtual void setListener(CameraManagerListener* listener);

protected:
    CameraManagerListener* listener = nullptr; ///< read and called only under listenerMutex
    std::recursive_mutex listenerMutex; ///< guards `listener`; recursive so that a callback may change the listener
};

} // namespace Tevara::Lumiflux

/**
 * The root camera manager: every camera of every plug-in, ordered by
 * `facing`. Initialises it on first use (loading the plug-ins) and returns
 * the same process-wide object on every call. Safe from any thread.
 */
extern "C" LUMIFLUX_EXPORT Tevara::Lumiflux::CameraManager* LumifluxManager();
