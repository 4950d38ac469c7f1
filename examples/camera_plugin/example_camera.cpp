// A minimal camera plug-in on the library's base classes: one camera,
// "example:0", that captures a grey frame with a moving white bar in NV12 at
// 320x240 or 640x480, 30 frames per second.
//
// The base classes answer format and mode queries (ranges, closest mode,
// fractional rates) from the three operations a camera must provide:
// getSupportedFormats(), queryCapabilities() and startCapture().

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include <gst/video/video.h>

#include <lumiflux/camera_base.h>
#include <lumiflux/gst_graphic_buffer.h>
#include <lumiflux/plugin.h>

namespace {

using namespace Tevara::Lumiflux;

const CameraInfo kInfo{"example:0", "Example camera", "example", CameraFacing::External, 0, "a moving bar"};

class ExampleCamera : public Internal::BaseCamera {
public:
    ~ExampleCamera() override { stopCapture(); }

    bool getInfo(CameraInfo& info) override
    {
        info = kInfo;
        return true;
    }
    std::vector<PixelFormatDescription> getSupportedFormats() override { return {{PixelFormat::YUV420SemiPlanar, 0}}; }
    bool queryCapabilities(std::vector<CameraCapability>& capabilities) override
    {
        capabilities = {{320, 240, 30}, {640, 480, 30}};
        return true;
    }

    // Frames come from a thread of the camera's own, as a real device's
    // would; the listener is called under listenerMutex, which
    // Camera::setListener() takes too, so a listener being removed is never
    // called afterwards.
    bool startCapture(const CameraCapability& capability, PixelFormat format) override
    {
        std::vector<CameraCapability> modes;
        queryCapabilities(modes);
        const bool known = std::any_of(modes.begin(), modes.end(), [&](const CameraCapability& mode) {
            return mode.width == capability.width && mode.height == capability.height &&
                   mode.frameRate == capability.frameRate;
        });
        if (!known || format != PixelFormat::YUV420SemiPlanar || running.exchange(true))
            return false;
        GstVideoInfo info;
        gst_video_info_set_format(&info, GST_VIDEO_FORMAT_NV12, capability.width, capability.height);
        auto factory = GraphicBufferFactory::fromInfo(info);
        if (!factory) {
            running = false;
            return false;
        }
        worker = std::thread([this, info, factory, rate = capability.frameRate] { produce(info, *factory, rate); });
        return true;
    }
    bool stopCapture() override
    {
        if (!running.exchange(false))
            return false;
        worker.join();
        std::lock_guard<std::recursive_mutex> lock(listenerMutex);
        if (listener != nullptr)
            listener->onCaptureEnded();
        return true;
    }
    bool isCapturing() override { return running; }
    bool takePicture() override { return false; }
    bool getParameter(const std::string&, std::string&) override { return false; }
    bool setParameter(const std::string&, const std::string&) override { return false; }

private:
    void produce(GstVideoInfo info, const GraphicBufferFactory& factory, std::uint32_t rate)
    {
        const auto period = std::chrono::microseconds(1000000 / rate);
        auto next = std::chrono::steady_clock::now();
        for (std::uint64_t index = 0; running; ++index) {
            GstBuffer* buffer = gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&info), nullptr);
            GstVideoFrame frame;
            if (gst_video_frame_map(&frame, &info, buffer, GST_MAP_WRITE)) {
                const int width = GST_VIDEO_FRAME_WIDTH(&frame);
                const int height = GST_VIDEO_FRAME_HEIGHT(&frame);
                const int bar = static_cast<int>(index * 4 % static_cast<std::uint64_t>(width));
                auto* y = static_cast<std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0));
                for (int row = 0; row < height; ++row) {
                    std::uint8_t* line = y + row * GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0);
                    std::memset(line, 128, static_cast<std::size_t>(width));
                    std::memset(line + bar, 235, static_cast<std::size_t>(std::min(8, width - bar)));
                }
                auto* uv = static_cast<std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 1));
                for (int row = 0; row < height / 2; ++row)
                    std::memset(uv + row * GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 1), 128,
                                static_cast<std::size_t>(width));
                gst_video_frame_unmap(&frame);
            }
            GST_BUFFER_PTS(buffer) = gst_util_uint64_scale_int(index * GST_SECOND, 1, static_cast<int>(rate));
            // The graphic buffer keeps its own reference to the GstBuffer.
            std::shared_ptr<GraphicBuffer> graphic = factory.create(buffer);
            gst_buffer_unref(buffer);
            {
                std::lock_guard<std::recursive_mutex> lock(listenerMutex);
                if (listener != nullptr && graphic)
                    listener->onFrame(graphic);
            }
            next += period;
            std::this_thread::sleep_until(next);
        }
    }

    std::atomic<bool> running{false};
    std::thread worker;
};

class ExampleCameraManager : public Internal::BaseCameraManager {
public:
    bool init() override
    {
        gst_init(nullptr, nullptr);
        return true;
    }
    int getNumberOfCameras() override { return 1; }
    bool getCameraInfo(unsigned int index, CameraInfo& info) override
    {
        if (index != 0)
            return false;
        info = kInfo;
        return true;
    }
    bool queryCapabilities(const std::string& id, std::vector<CameraCapability>& capabilities) override
    {
        auto camera = openCamera(id);
        return camera && camera->queryCapabilities(capabilities);
    }
    std::shared_ptr<Camera> openCamera(const std::string& id) override
    {
        return id == kInfo.id ? std::make_shared<ExampleCamera>() : nullptr;
    }
};

class ExampleModule : public PluginModule {
public:
    int getPriority() override { return 0; }
    std::shared_ptr<CameraManager> getCameraManager() override { return manager; }
    std::shared_ptr<CodecManager> getCodecManager() override { return {}; }

private:
    std::shared_ptr<CameraManager> manager = std::make_shared<ExampleCameraManager>();
};

} // namespace

// The library calls this once, after loading the module, and never deletes
// the object it returns.
LUMIFLUX_DEFINE_MODULE(globals)
{
    (void)globals;
    static ExampleModule module;
    return &module;
}
