#include "gst_camera.h"

#include <gst/app/gstappsink.h>

#include <chrono>
#include <thread>
#include <utility>

#include <lumiflux/gst_graphic_buffer.h>

#include <lumiflux/log_line.h>

namespace Tevara::Lumiflux::GstCameras {

using Internal::Ref;

namespace {

// Long enough for a real sensor to start streaming (some need a second or
// two for exposure), short enough that a dead device fails visibly.
constexpr auto startTimeout = std::chrono::seconds(10);

const char* gstFormatOf(PixelFormat format)
{
    switch (format) {
    case PixelFormat::YUV420SemiPlanar:
        return "NV12";
    case PixelFormat::YUV420Planar:
        return "I420";
    default:
        return nullptr;
    }
}

// The listener calls this thread is running, innermost first. A camera asks
// whether one of its own is among them: the end of another camera's capture
// may be reported inside a frame callback of this one.
class CallbackScope {
public:
    explicit CallbackScope(const void* camera) : owner(camera), outer(innermost) { innermost = this; }
    ~CallbackScope() { innermost = outer; }
    CallbackScope(const CallbackScope&) = delete;
    CallbackScope& operator=(const CallbackScope&) = delete;

    static bool running(const void* camera)
    {
        for (const CallbackScope* scope = innermost; scope != nullptr; scope = scope->outer)
            if (scope->owner == camera)
                return true;
        return false;
    }

private:
    const void* owner;
    const CallbackScope* outer;
    static inline thread_local const CallbackScope* innermost = nullptr;
};

} // namespace

GstCamera::GstCamera(GstDevice* device, CameraInfo cameraInfo, std::vector<CameraCapability> modes)
    : info(std::move(cameraInfo)), capabilities(std::move(modes))
{
    // The element comes floating: sink it into a reference of our own.
    if (GstElement* element = gst_device_create_element(device, nullptr))
        source = Ref<GstElement>::adopt(GST_ELEMENT(gst_object_ref_sink(element)));
    if (!source) {
        LUMIFLUX_LOG(LogLevel::Error, "main ") << "device " << info.id << " has no capture element" << std::endl;
        return;
    }
    GstElement* convert = gst_element_factory_make("videoconvert", nullptr);
    GstElement* scale = gst_element_factory_make("videoscale", nullptr);
    GstElement* filter = gst_element_factory_make("capsfilter", nullptr);
    GstElement* sink = gst_element_factory_make("appsink", nullptr);
    if (convert == nullptr || scale == nullptr || filter == nullptr || sink == nullptr) {
        LUMIFLUX_LOG(LogLevel::Error, "main ")
            << "videoconvert, videoscale, capsfilter or appsink is missing" << std::endl;
        for (GstElement* element : {convert, scale, filter, sink})
            if (element != nullptr)
                gst_object_unref(gst_object_ref_sink(element));
        source.reset();
        return;
    }
    capsFilter = Ref<GstElement>::share(filter);

    Ref<GstElement> bin = Ref<GstElement>::share(gst_pipeline_new(nullptr));
    gst_bin_add_many(GST_BIN(bin.get()), source.get(), convert, scale, filter, sink, nullptr);
    if (!gst_element_link_many(source.get(), convert, scale, filter, sink, nullptr)) {
        LUMIFLUX_LOG(LogLevel::Error, "main ") << "cannot link the capture pipeline of " << info.id << std::endl;
        source.reset();
        capsFilter.reset();
        return;
    }
    // A live camera: never wait for the clock, and let an application that
    // falls behind lose old frames rather than stall the sensor.
    g_object_set(sink, "sync", FALSE, "max-buffers", 4u, "drop", TRUE, nullptr);
    GstAppSinkCallbacks callbacks{};
    callbacks.new_sample = [](GstAppSink* appSink, gpointer self) { return onNewSample(GST_ELEMENT(appSink), self); };
    // The callbacks hold `this`: the destructor takes the pipeline to NULL
    // (no streaming thread left) before `this` goes.
    gst_app_sink_set_callbacks(GST_APP_SINK(sink), &callbacks, this, nullptr);
    Ref<GstBus> bus = Ref<GstBus>::adopt(gst_element_get_bus(bin.get()));
    gst_bus_set_sync_handler(bus.get(), onBusMessage, this, nullptr);
    pipeline = std::move(bin);
}

GstCamera::~GstCamera()
{
    if (!pipeline)
        return;
    running = false;
    shutDown();
    Ref<GstBus> bus = Ref<GstBus>::adopt(gst_element_get_bus(pipeline.get()));
    gst_bus_set_sync_handler(bus.get(), nullptr, nullptr, nullptr);
}

std::shared_ptr<Camera> GstCamera::handOut(std::shared_ptr<GstCamera> camera)
{
    GstCamera* raw = camera.get();
    // The application's copies share one count of their own; the object's
    // own owner lives in the deleter, which decides where the teardown runs.
    return std::shared_ptr<Camera>(raw, [owner = std::move(camera)](Camera*) mutable {
        if (owner->insideOwnCallback())
            releaseFromCallback(std::move(owner));
        else
            owner.reset(); // the documented order: stopped before the release returns
    });
}

void GstCamera::releaseFromCallback(std::shared_ptr<GstCamera> camera)
{
    // This thread runs one of the camera's listener calls, so it holds the
    // (recursive) listener mutex, and for a frame it is the streaming thread
    // that taking the pipeline to NULL would wait for. The application has
    // let go: it hears nothing more from now on.
    {
        std::lock_guard<std::recursive_mutex> lock(camera->listenerMutex);
        camera->listener = nullptr;
    }
    camera->running = false;
    // The teardown waits for the listener call in progress to return (the
    // mutex), then the destructor stops the pipeline, joining the streaming
    // thread. Detached: the thread owns the camera and ends with it.
    std::thread([owner = std::move(camera)]() mutable {
        {
            std::lock_guard<std::recursive_mutex> wait(owner->listenerMutex);
        }
        owner.reset();
    }).detach();
}

bool GstCamera::insideOwnCallback() const
{
    return CallbackScope::running(this);
}

bool GstCamera::refusedInsideCallback(const char* operation) const
{
    if (!insideOwnCallback())
        return false;
    LUMIFLUX_LOG(LogLevel::Error, "main ") << operation << " on " << info.id
                                           << " refused inside its own listener call: it would wait for the thread "
                                              "running that call; call it from another thread"
                                           << std::endl;
    return true;
}

void GstCamera::shutDown()
{
    gst_element_set_state(pipeline.get(), GST_STATE_NULL);
}

bool GstCamera::getInfo(CameraInfo& out)
{
    out = info;
    return true;
}

std::vector<PixelFormatDescription> GstCamera::getSupportedFormats()
{
    // Whatever the device delivers natively, the pipeline converts to these.
    return {{PixelFormat::YUV420SemiPlanar, 0}, {PixelFormat::YUV420Planar, 0}};
}

bool GstCamera::queryCapabilities(std::vector<CameraCapability>& out)
{
    out = capabilities;
    return !capabilities.empty();
}

bool GstCamera::startCapture(const CameraCapability& capability, PixelFormat format)
{
    const char* gstFormat = gstFormatOf(format);
    if (gstFormat == nullptr || capability.width == 0 || capability.height == 0) {
        LUMIFLUX_LOG(LogLevel::Error, "main ") << "cannot capture " << toString(format) << " at " << capability.width
                                               << "x" << capability.height << std::endl;
        return false;
    }
    if (refusedInsideCallback("startCapture"))
        return false;
    std::lock_guard<std::mutex> control(controlMutex);
    if (!pipeline || capturing)
        return false;

    Ref<GstCaps> caps = Ref<GstCaps>::adopt(gst_caps_new_simple(
        "video/x-raw", "format", G_TYPE_STRING, gstFormat, "width", G_TYPE_INT, static_cast<int>(capability.width),
        "height", G_TYPE_INT, static_cast<int>(capability.height), nullptr));
    if (capability.frameRate > 0)
        gst_caps_set_simple(caps.get(), "framerate", GST_TYPE_FRACTION, static_cast<int>(capability.frameRate), 1,
                            nullptr);
    g_object_set(capsFilter.get(), "caps", caps.get(), nullptr);

    {
        std::lock_guard<std::mutex> lock(startMutex);
        firstFrameSeen = false;
        startError.clear();
    }
    if (gst_element_set_state(pipeline.get(), GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        shutDown();
        LUMIFLUX_LOG(LogLevel::Error, "main ") << "cannot start capture on " << info.id << std::endl;
        return false;
    }
    // A live source reaches PLAYING before negotiation: a mode the device
    // cannot deliver shows only as an error once data flows. Wait for the
    // first frame so that startCapture can report it.
    std::string error;
    bool started = false;
    {
        std::unique_lock<std::mutex> lock(startMutex);
        startChanged.wait_for(lock, startTimeout, [this] { return firstFrameSeen || !startError.empty(); });
        started = firstFrameSeen && startError.empty();
        error = startError.empty() ? std::string("no frame within the start timeout") : startError;
    }
    if (!started) {
        shutDown();
        LUMIFLUX_LOG(LogLevel::Error, "main ") << "capture on " << info.id << " failed: " << error << std::endl;
        return false;
    }
    // A takePicture racing the last stop must not turn this capture's first frame into a picture.
    pictureRequested = false;
    capturing = true;
    running = true;
    return true;
}

bool GstCamera::stopCapture()
{
    if (refusedInsideCallback("stopCapture"))
        return false;
    {
        std::lock_guard<std::mutex> control(controlMutex);
        if (!capturing)
            return false;
        running = false;
        shutDown();
        capturing = false;
        pictureRequested = false;
    }
    reportEnded();
    return true;
}

bool GstCamera::isCapturing()
{
    return capturing;
}

bool GstCamera::takePicture()
{
    // Only flags the next frame: works from a listener call too.
    if (!capturing)
        return false;
    pictureRequested = true;
    return true;
}

// The source element never changes and GObject properties are safe to use
// from any thread, so parameters need no lock: a listener call may use them
// while another thread stops the capture.
bool GstCamera::getParameter(const std::string& name, std::string& value)
{
    if (!source)
        return false;
    GParamSpec* property = g_object_class_find_property(G_OBJECT_GET_CLASS(source.get()), name.c_str());
    if (property == nullptr || (property->flags & G_PARAM_READABLE) == 0)
        return false;
    GValue current = G_VALUE_INIT;
    g_value_init(&current, property->value_type);
    g_object_get_property(G_OBJECT(source.get()), name.c_str(), &current);
    bool ok = false;
    if (G_VALUE_HOLDS_ENUM(&current)) {
        // The nick is what setParameter accepts back ("white", not GST_VIDEO_TEST_SRC_WHITE).
        GEnumValue* entry =
            g_enum_get_value(G_ENUM_CLASS(g_type_class_peek(property->value_type)), g_value_get_enum(&current));
        if (entry != nullptr) {
            value = entry->value_nick;
            ok = true;
        }
    } else if (G_VALUE_HOLDS_STRING(&current)) {
        value = g_value_get_string(&current) != nullptr ? g_value_get_string(&current) : "";
        ok = true;
    } else if (gchar* text = gst_value_serialize(&current)) {
        value = text;
        g_free(text);
        ok = true;
    }
    g_value_unset(&current);
    return ok;
}

bool GstCamera::setParameter(const std::string& name, const std::string& value)
{
    if (!source)
        return false;
    GParamSpec* property = g_object_class_find_property(G_OBJECT_GET_CLASS(source.get()), name.c_str());
    if (property == nullptr || (property->flags & G_PARAM_WRITABLE) == 0 ||
        (property->flags & G_PARAM_CONSTRUCT_ONLY) != 0)
        return false;
    GValue parsed = G_VALUE_INIT;
    g_value_init(&parsed, property->value_type);
    bool ok = false;
    if (G_VALUE_HOLDS_STRING(&parsed)) {
        g_value_set_string(&parsed, value.c_str());
        ok = true;
    } else {
        ok = gst_value_deserialize(&parsed, value.c_str()) != FALSE;
    }
    if (ok)
        ok = !g_param_value_validate(property, &parsed); // true means it had to be clamped: a bad value
    if (ok)
        g_object_set_property(G_OBJECT(source.get()), name.c_str(), &parsed);
    g_value_unset(&parsed);
    return ok;
}

GstFlowReturn GstCamera::onNewSample(GstElement* sink, gpointer self)
{
    auto* camera = static_cast<GstCamera*>(self);
    Ref<GstSample> sample = Ref<GstSample>::adopt(gst_app_sink_pull_sample(GST_APP_SINK(sink)));
    if (!sample)
        return GST_FLOW_OK;
    try {
        camera->deliver(sample.get());
    } catch (const std::exception& error) {
        // Nothing may cross back into GStreamer's C code.
        LUMIFLUX_LOG(LogLevel::Error, "main ") << "frame listener failed: " << error.what() << std::endl;
    } catch (...) {
        LUMIFLUX_LOG(LogLevel::Error, "main ") << "frame listener failed" << std::endl;
    }
    return GST_FLOW_OK;
}

void GstCamera::deliver(GstSample* sample)
{
    if (!running) {
        // Still starting: the first frame completes startCapture. It is not
        // delivered, since the application has not been told capture runs.
        std::lock_guard<std::mutex> lock(startMutex);
        if (!firstFrameSeen) {
            firstFrameSeen = true;
            startChanged.notify_all();
        }
        return;
    }
    GstCaps* caps = gst_sample_get_caps(sample);
    GstBuffer* buffer = gst_sample_get_buffer(sample);
    if (caps == nullptr || buffer == nullptr)
        return;
    // One factory per negotiated format; a renegotiation brings a new one.
    if (!factory || !factory->matches(caps))
        factory = GraphicBufferFactory::fromCaps(caps);
    if (!factory)
        return;
    std::shared_ptr<GraphicBuffer> frame = factory->create(buffer);
    const bool picture = pictureRequested.exchange(false);
    std::lock_guard<std::recursive_mutex> lock(listenerMutex);
    CallbackScope scope(this);
    if (listener != nullptr)
        listener->onFrame(frame);
    // onFrame may have removed the listener (or dropped the camera).
    if (picture && listener != nullptr)
        listener->onPictureTaken(frame);
}

GstBusSyncReply GstCamera::onBusMessage(GstBus*, GstMessage* message, gpointer self)
{
    auto* camera = static_cast<GstCamera*>(self);
    try {
        switch (GST_MESSAGE_TYPE(message)) {
        case GST_MESSAGE_ERROR: {
            GError* error = nullptr;
            gchar* debug = nullptr;
            gst_message_parse_error(message, &error, &debug);
            Ref<GError> owned = Ref<GError>::adopt(error);
            g_free(debug);
            camera->reportError(owned ? owned->message : "capture failed");
            break;
        }
        case GST_MESSAGE_EOS:
            camera->reportEnded();
            break;
        default:
            break;
        }
    } catch (...) {
        LUMIFLUX_LOG(LogLevel::Error, "main ") << "camera listener failed" << std::endl;
    }
    // Nobody watches this bus: drop everything here rather than let it pile up.
    return GST_BUS_DROP;
}

void GstCamera::reportError(const std::string& text)
{
    if (!running) {
        std::lock_guard<std::mutex> lock(startMutex);
        if (startError.empty())
            startError = text;
        startChanged.notify_all();
        return;
    }
    LUMIFLUX_LOG(LogLevel::Error, "main ") << "capture on " << info.id << " failed: " << text << std::endl;
    std::lock_guard<std::recursive_mutex> lock(listenerMutex);
    CallbackScope scope(this);
    if (listener != nullptr)
        listener->onError(text);
}

void GstCamera::reportEnded()
{
    std::lock_guard<std::recursive_mutex> lock(listenerMutex);
    CallbackScope scope(this);
    if (listener != nullptr)
        listener->onCaptureEnded();
}

} // namespace Tevara::Lumiflux::GstCameras
