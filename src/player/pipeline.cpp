#include <cstring>

#include "core/glib_ref.h"
#include "core/log_macros.h"
#include "player/http_headers.h"
#include "player/player_impl.h"

namespace Tevara::Lumiflux {

namespace {

bool startsWith(const char* text, const char* prefix)
{
    return text && std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

bool endsWith(const char* text, const char* suffix)
{
    if (!text)
        return false;
    const size_t length = std::strlen(text);
    const size_t suffixLength = std::strlen(suffix);
    return length >= suffixLength && std::strcmp(text + length - suffixLength, suffix) == 0;
}

const char* factoryNameOf(GstElement* element)
{
    GstElementFactory* factory = gst_element_get_factory(element);
    return factory ? gst_plugin_feature_get_name(GST_PLUGIN_FEATURE(factory)) : nullptr;
}

} // namespace

void Player::Impl::createPipeline(std::string&& uri, HttpHeaders&& headers)
{
    LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "uri: " << uri << std::endl;
    destroyPipeline();
    if (!gst_uri_is_valid(uri.c_str())) {
        // Said at once: playbin would only fail later, and with less to go on.
        const std::string message = "Not a URI or an absolute path: '" + uri + "'";
        {
            std::lock_guard<std::mutex> lock(mediaMutex);
            mediaInfo.swapUri(uri);
            mediaInfo.swapHttpHeaders(headers);
        }
        LUMIFLUX_LOG_DIGIT(2, kPlayerLog) << message << std::endl;
        onError(PlayerError::NotFound, message);
        return;
    }

    // The multi-stream playbin is required: track selection works on its
    // stream collections.
    GstElement* pipe = gst_element_factory_make("playbin3", "playbin");
    if (!pipe) {
        LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "Failed to create a source" << std::endl;
        return;
    }
    gst_object_ref_sink(pipe);
    pipeline.store(pipe);

    std::string currentUri;
    {
        std::lock_guard<std::mutex> lock(mediaMutex);
        mediaInfo.swapUri(uri);
        mediaInfo.swapHttpHeaders(headers);
        currentUri = mediaInfo.uri();
    }

    if (!startsWith(currentUri.c_str(), "fd://")) {
        LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "Starting async src discovery:" << currentUri << std::endl;
        startAsyncDiscovery();
    }

    // These handlers live as long as the pipeline, which never outlives this
    // object (destroyPipeline runs in ~Impl), so they are not disconnected.
    g_signal_connect(pipe, "source-setup", G_CALLBACK(&Impl::handleSourceSetup), this);
    g_signal_connect(pipe, "deep-element-added", G_CALLBACK(&Impl::handleDeepElementAdded), this);

    // Video, audio and buffering; subtitles and software volume stay off.
    // A descriptor is local and gets no buffering: GStreamer 1.22's playbin3
    // faults when an fd:// source with buffering is taken down.
    const bool descriptor = startsWith(currentUri.c_str(), "fd://");
    g_object_set(pipe, "flags", descriptor ? 3 : 259, nullptr);

    GstElement* audioSink = gst_element_factory_make("autoaudiosink", "audiosink");
    if (!audioSink) {
        LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "Failed to create an audiosink" << std::endl;
        return;
    }
    g_signal_connect(audioSink, "element-added", G_CALLBACK(&Impl::handleElementAdded), this);

    GstElement* audioConvert = gst_element_factory_make("audioconvert", nullptr);
    if (!audioConvert) {
        LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "Failed to create an audioconvert" << std::endl;
        gst_object_unref(gst_object_ref_sink(audioSink));
        return;
    }
    g_object_set(pipe, "audio-filter", audioConvert, nullptr);
    g_object_set(pipe, "audio-sink", audioSink, nullptr);

    GstElement* convert = gst_element_factory_make("videoconvert", "videoconvert");
    if (!convert) {
        LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "Failed to create an videoconvert" << std::endl;
        return;
    }
    videoconvert.store(convert);

    GstBus* pipelineBus = gst_element_get_bus(pipe);
    if (!pipelineBus) {
        LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "Failed to create an bus" << std::endl;
        gst_object_unref(gst_object_ref_sink(convert));
        videoconvert.store(nullptr);
        return;
    }
    bus.store(pipelineBus);
    gst_bus_set_sync_handler(pipelineBus, &Impl::handleGstMessage, this, nullptr);

    GstElement* fakeSink = gst_element_factory_make("fakesink", "videosink");
    if (!fakeSink) {
        LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "Failed to create an videoSink" << std::endl;
        gst_object_unref(gst_object_ref_sink(convert));
        videoconvert.store(nullptr);
        return;
    }
    GstElement* output = gst_bin_new("output");
    if (!output) {
        LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "Failed to create an output" << std::endl;
        gst_object_unref(gst_object_ref_sink(convert));
        gst_object_unref(gst_object_ref_sink(fakeSink));
        videoconvert.store(nullptr);
        return;
    }
    videoSinkElement.store(fakeSink);
    outputBin.store(output);

    g_object_set(fakeSink, "sync", TRUE, "qos", FALSE, nullptr);
    g_object_set(fakeSink, "signal-handoffs", TRUE, nullptr);
    // Lifetime of the fake sink, which the pipeline owns: no disconnection needed.
    g_signal_connect(fakeSink, "preroll-handoff", G_CALLBACK(&Impl::handlePrerollHandoff), this);
    g_signal_connect(fakeSink, "handoff", G_CALLBACK(&Impl::handleHandoff), this);

    gst_bin_add_many(GST_BIN(output), convert, fakeSink, nullptr);
    Internal::Ref<GstCaps> nv12 = Internal::Ref<GstCaps>::adopt(gst_caps_from_string("video/x-raw,format=NV12"));
    if (!gst_element_link_filtered(convert, fakeSink, nv12.get())) {
        LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "Failed to link elements" << std::endl;
        gst_object_unref(gst_object_ref_sink(output));
        videoconvert.store(nullptr);
        videoSinkElement.store(nullptr);
        outputBin.store(nullptr);
        return;
    }

    Internal::Ref<GstPad> convertSink = Internal::Ref<GstPad>::adopt(gst_element_get_static_pad(convert, "sink"));
    GstPad* ghost = gst_ghost_pad_new("sink", convertSink.get());
    gst_pad_set_active(ghost, TRUE);
    gst_element_add_pad(output, ghost);

    g_object_set(pipe, "video-sink", output, nullptr);
    g_object_set(pipe, "uri", currentUri.c_str(), nullptr);
}

void Player::Impl::destroyPipeline()
{
    GstElement* pipe = pipeline.load();
    if (!pipe)
        return;
    if (GstElement* fakeSink = videoSinkElement.load())
        g_object_set(fakeSink, "signal-handoffs", FALSE, nullptr);
    descriptorSourceHold.release();
    stopPrerollWatchdog();

    // An HTTP source goes down first, on its own. Taken down by its bin
    // while the type of its data is being found, it can deadlock GStreamer 1.22:
    // the bin holds its lock while it waits for the source's streaming
    // thread, which waits for the same lock to report the type it found.
    // Alone, the source's thread finishes that report and stops.
    Internal::Ref<GstElement> source;
    {
        std::lock_guard<std::mutex> lock(sourceMutex);
        source = std::move(pipelineSource);
    }
    if (source) {
        waitForHttpAnswer(pipelineSourceAnswer);
        gst_element_set_state(source.get(), GST_STATE_NULL);
    }
    gst_element_set_state(pipe, GST_STATE_NULL);
    pipelineSourceAnswer.release();
    // No streaming thread runs any more: none is inside the tag handler.
    {
        std::lock_guard<std::mutex> lock(tagWatchMutex);
        unwatchTrackTagsLocked();
    }
    // The pipeline is down: no message may reach this object from a bus that
    // an element still holds after we let go of it.
    if (GstBus* pipelineBus = bus.load())
        gst_bus_set_sync_handler(pipelineBus, nullptr, nullptr, nullptr);
    pipeline.store(nullptr);
    gst_object_unref(pipe);
    if (GstBus* pipelineBus = bus.exchange(nullptr))
        gst_object_unref(pipelineBus);

    videoconvert.store(nullptr);
    videoSinkElement.store(nullptr);
    outputBin.store(nullptr);
    {
        std::lock_guard<std::mutex> lock(audioMuteMutex);
        audioMuteElement.reset();
    }
    adaptiveDemuxer.store(nullptr);
    httpSource.store(nullptr);
    // Its stream identifiers belonged to the pipeline just destroyed.
    pendingSelection.reset();
}

void Player::Impl::handleElementAdded(GstBin*, GstElement* element, Impl* impl)
{
    g_autofree gchar* name = gst_element_get_name(element);
    const char* factoryName = factoryNameOf(element);
    LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "added element " << (factoryName ? factoryName : "") << " name " << name << " "
                                      << Internal::LogPointer{element} << std::endl;

    if (impl->setupAdaptiveDemuxer(factoryName, element)) {
        impl->adaptiveDemuxer.store(element);
        return;
    }
    if (startsWith(name, "queue2")) {
        // Keep the download buffer in memory, never in a temporary file.
        g_object_set(element, "temp-template", nullptr, nullptr);
    } else if (startsWith(name, "uridecodebin") || startsWith(name, "decodebin")) {
        // Lifetime of the nested bin, inside the pipeline: no disconnection needed.
        g_signal_connect(element, "element-added", G_CALLBACK(&Impl::handleElementAdded), impl);
    } else if (endsWith(name, "sink-pulse")) {
        {
            std::lock_guard<std::mutex> lock(impl->audioMuteMutex);
            impl->audioMuteElement = Internal::Ref<GstElement>::share(element);
        }
        GstStructure* properties = nullptr;
        g_object_get(element, "stream-properties", &properties, nullptr);
        if (properties)
            gst_structure_set(properties, "media.role", G_TYPE_STRING, "x-tollan", nullptr);
        else
            properties = gst_structure_from_string("props,media.role=x-tollan", nullptr);
        g_object_set(element, "stream-properties", properties, "provide-clock", TRUE, nullptr);
        gst_structure_free(properties);
    }
}

void Player::Impl::handleDeepElementAdded(GstBin*, GstBin* subBin, GstElement* element, Impl* impl)
{
    impl->setupNestedHttpSource(subBin, element);
    handleElementAdded(subBin, element, impl);
}

void Player::Impl::handleDiscovererElementAdded(GstBin*, GstBin* subBin, GstElement* element, Impl* impl)
{
    impl->setupNestedHttpSource(subBin, element);
}

void Player::Impl::setupNestedHttpSource(GstBin* subBin, GstElement* element)
{
    // An HTTP source that a demuxer makes for itself (the fragments of an
    // adaptive stream) gets the same headers as the main source. The main
    // source, child of the URI bin, is set up through "source-setup".
    const char* parentFactory = factoryNameOf(GST_ELEMENT(subBin));
    if (parentFactory &&
        (std::strcmp(parentFactory, "urisourcebin") == 0 || std::strcmp(parentFactory, "uridecodebin") == 0))
        return;
    setupHttpSource(factoryNameOf(element), element);
}

void Player::Impl::handleSourceSetup(GstBin*, GstElement* source, Impl* impl)
{
    const char* factoryName = factoryNameOf(source);
    if (factoryName && std::strcmp(factoryName, "fdsrc") == 0)
        impl->descriptorSourceHold.hold(source);
    if (factoryName && impl->setupHttpSource(factoryName, source)) {
        impl->httpSource.store(source);
        impl->pipelineSourceAnswer.watch(source);
        // A network source pushes what it downloads into the type finding
        // while the pipeline may be taken down: see destroyPipeline.
        std::lock_guard<std::mutex> lock(impl->sourceMutex);
        impl->pipelineSource = Internal::Ref<GstElement>::share(source);
    }
}

void Player::Impl::handleDiscovererSourceSetup(GstDiscoverer*, GstElement* source, Impl* impl)
{
    const char* factoryName = factoryNameOf(source);
    if (factoryName && impl->setupHttpSource(factoryName, source))
        impl->discovererSourceAnswer.watch(source);
    // The discoverer's demuxers make HTTP sources of their own too: watch
    // its pipeline (the source's top-level bin, kept for the discoverer's
    // life) once.
    GstObject* top = gst_object_get_parent(GST_OBJECT(source));
    while (top) {
        GstObject* parent = gst_object_get_parent(top);
        if (!parent)
            break;
        gst_object_unref(top);
        top = parent;
    }
    if (top && GST_IS_BIN(top) && !g_object_get_data(G_OBJECT(top), "lumiflux-watched")) {
        g_object_set_data(G_OBJECT(top), "lumiflux-watched", impl);
        g_signal_connect(top, "deep-element-added", G_CALLBACK(&Impl::handleDiscovererElementAdded), impl);
    }
    if (top)
        gst_object_unref(top);
    // Kept so that the destructor can end a discovery stuck on a server that
    // does not answer (see abortDiscoveries).
    std::lock_guard<std::mutex> lock(impl->discovererSourceMutex);
    if (impl->discovererSource)
        gst_object_unref(impl->discovererSource);
    impl->discovererSource = GST_ELEMENT(gst_object_ref(source));
}

bool Player::Impl::setupHttpSource(const char* factoryName, GstElement* element)
{
    if (!factoryName || !element || std::strcmp(factoryName, "souphttpsrc") != 0)
        return false;
    LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "src.class: " << G_OBJECT_TYPE_NAME(element) << std::endl;
    updateHttpHeaders(element);
    Internal::setupHttpLogLevel(element);
    return true;
}

bool Player::Impl::setupAdaptiveDemuxer(const char* factoryName, GstElement* element)
{
    if (!factoryName || !element)
        return false;
    if (std::strcmp(factoryName, "hlsdemux2") != 0 && std::strcmp(factoryName, "dashdemux2") != 0 &&
        std::strcmp(factoryName, "mssdemux2") != 0)
        return false;
    LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "adaptivedemux.class: " << G_OBJECT_TYPE_NAME(element) << std::endl;
    updateHttpHeaders(element);
    Internal::setupHttpLogLevel(element);
    return true;
}

HttpHeaders Player::Impl::currentHttpHeaders()
{
    std::lock_guard<std::mutex> lock(mediaMutex);
    return mediaInfo.httpHeaders();
}

void Player::Impl::waitForHttpAnswer(Internal::HttpAnswerWatch& watch)
{
    // Long enough for a server that answers at all; a stalled one is then
    // cancelled safely, as nothing is being read from it.
    constexpr auto kAnswerWait = std::chrono::milliseconds(600);
    if (!watch.waitForAnswer(std::chrono::steady_clock::now() + kAnswerWait))
        LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "No HTTP answer yet, cancelling the request" << std::endl;
}

void Player::Impl::updateHttpHeaders(GstElement* element)
{
    if (!element)
        return;
    Internal::updateHttpHeaders(element, currentHttpHeaders());
}

} // namespace Tevara::Lumiflux
