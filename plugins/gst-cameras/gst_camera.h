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

#include "core/glib_ref.h"

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
    // Sets the pipeline to NULL, which waits for its streaming threads.
    void shutDown();

    const CameraInfo info;
    const std::vector<CameraCapability> capabilities;

    std::mutex controlMutex; ///< serialises start, stop and parameter changes
    Internal::Ref<GstElement> pipeline;
    Internal::Ref<GstElement> source;
    Internal::Ref<GstElement> capsFilter;
    bool capturing = false; ///< under controlMutex

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
