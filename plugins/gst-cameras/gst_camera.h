#pragma once

// One camera found by the device monitor. Capture runs the device's own
// element into an app sink:
//   device element ! videoconvert ! videoscale ! capsfilter ! appsink
// When the device delivers the requested format and size itself, videoconvert
// and videoscale pass its buffers through untouched, and each frame reaches
// the application as a graphic buffer over the captured memory.

#include <gst/gst.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <lumiflux/camera_base.h>

#include <lumiflux/gst_ref.h>

namespace Tevara::Lumiflux {
class GraphicBufferFactory;
}

namespace Tevara::Lumiflux::GstCameras {

class GstCamera final : public Internal::BaseCamera {
public:
    using Internal::BaseCamera::startCapture;

    /** Builds the capture pipeline around the device's element; check valid(). */
    GstCamera(GstDevice* device, CameraInfo info, std::vector<CameraCapability> capabilities);
    /** Stops a capture in progress without telling the listener. */
    ~GstCamera() override;

    /**
     * The pointer the manager hands to applications. When its last copy goes
     * inside one of this camera's own listener calls, the teardown (which
     * waits for the thread running that call) moves to a thread of its own;
     * everywhere else the camera is torn down before the release returns.
     */
    static std::shared_ptr<Camera> handOut(std::shared_ptr<GstCamera> camera);
    GstCamera(const GstCamera&) = delete;
    GstCamera& operator=(const GstCamera&) = delete;

    /** False when the device would not create its element. */
    bool valid() const { return static_cast<bool>(pipeline); }

    bool getInfo(CameraInfo& out) override;
    bool startCapture(const CameraCapability& capability, PixelFormat format) override;
    bool stopCapture() override;
    bool isCapturing() override;
    bool takePicture() override;
    bool getParameter(const std::string& name, std::string& value) override;
    bool setParameter(const std::string& name, const std::string& value) override;
    std::vector<PixelFormatDescription> getSupportedFormats() override;
    bool queryCapabilities(std::vector<CameraCapability>& out) override;

private:
    static GstFlowReturn onNewSample(GstElement* sink, gpointer self);
    static GstBusSyncReply onBusMessage(GstBus* bus, GstMessage* message, gpointer self);
    void deliver(GstSample* sample);
    void reportError(const std::string& text);
    void reportEnded();
    // True while this thread runs one of this camera's listener calls.
    bool insideOwnCallback() const;
    // False, with an error line, for an operation that would wait for the
    // thread running the listener call it is made from.
    bool refusedInsideCallback(const char* operation) const;
    // The last application reference went inside a listener call.
    static void releaseFromCallback(std::shared_ptr<GstCamera> camera);
    // Sets the pipeline to NULL, which waits for its streaming threads.
    void shutDown();

    const CameraInfo info;
    const std::vector<CameraCapability> capabilities;

    // Serialises start and stop, which wait for the streaming thread; never
    // taken by what a listener call may use (takePicture, isCapturing, the
    // parameters), so a stop on another thread cannot wait for a callback
    // that waits for this lock.
    std::mutex controlMutex;
    // Set in the constructor, never changed afterwards: read without a lock.
    Internal::Ref<GstElement> pipeline;
    Internal::Ref<GstElement> source;
    Internal::Ref<GstElement> capsFilter;
    std::atomic<bool> capturing{false}; ///< written under controlMutex

    // Start-up handshake: startCapture waits for the first frame or an error.
    std::mutex startMutex;
    std::condition_variable startChanged;
    bool firstFrameSeen = false;
    std::string startError;
    std::atomic<bool> running{false}; ///< frames and errors go to the listener only while set

    std::atomic<bool> pictureRequested{false};

    // Frames of one negotiated format share one factory. Used on the
    // streaming thread only; stopping joins it before the next start.
    std::shared_ptr<GraphicBufferFactory> factory;
};

} // namespace Tevara::Lumiflux::GstCameras
