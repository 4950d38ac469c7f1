#include <cstring>

#include "player/gst_quirks.h"
#include "player/http_headers.h"
#include "player/player_impl.h"
#include <lumiflux/gst_ref.h>
#include <lumiflux/log_line.h>

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

// A new element with a reference of our own (its floating one sunk), or none.
Internal::Ref<GstElement> makeElement(GstElement* made)
{
    return Internal::Ref<GstElement>::adopt(made ? GST_ELEMENT(gst_object_ref_sink(made)) : nullptr);
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
            Internal::MutexLock lock(mediaMutex);
            mediaInfo.swapUri(uri);
            mediaInfo.swapHttpHeaders(headers);
        }
        LUMIFLUX_LOG_DIGIT(2, kPlayerLog) << message << std::endl;
        onError(PlayerError::NotFound, message);
        return;
    }

    // Built whole into `built` and published only at the end: a failure on
    // the way drops what was made so far, and no other thread ever sees a
    // pipeline without its sinks.
    Internal::PipelineOwner::Built built;
    // The multi-stream playbin is required: track selection works on its
    // stream collections.
    built.playbin = makeElement(gst_element_factory_make("playbin3", "playbin"));
    if (!built.playbin) {
        LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "Failed to create a source" << std::endl;
        return;
    }
    GstElement* pipe = built.playbin.get();

    std::string currentUri;
    {
        Internal::MutexLock lock(mediaMutex);
        mediaInfo.swapUri(uri);
        mediaInfo.swapHttpHeaders(headers);
        currentUri = mediaInfo.uri();
    }

    const bool descriptor = startsWith(currentUri.c_str(), "fd://");
    if (!descriptor) {
        LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "Starting async src discovery:" << currentUri << std::endl;
        startAsyncDiscovery();
    }

    // These handlers live as long as the pipeline, which never outlives this
    // object (destroyPipeline runs in ~Impl), so they are not disconnected.
    g_signal_connect(pipe, "source-setup", G_CALLBACK(&Impl::handleSourceSetup), this);
    g_signal_connect(pipe, "deep-element-added", G_CALLBACK(&Impl::handleDeepElementAdded), this);

    // Video, audio and buffering; subtitles and software volume stay off.
    constexpr guint kPlayFlags = Internal::kPlayFlagVideo | Internal::kPlayFlagAudio | Internal::kPlayFlagBuffering;
    constexpr guint kPlayFlagsUnbuffered = Internal::kPlayFlagVideo | Internal::kPlayFlagAudio;
    g_object_set(pipe, "flags",
                 descriptor && Internal::GstQuirks::descriptorWithoutBuffering() ? kPlayFlagsUnbuffered : kPlayFlags,
                 nullptr);

    built.audioSink = makeElement(gst_element_factory_make("autoaudiosink", "audiosink"));
    if (!built.audioSink) {
        LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "Failed to create an audiosink" << std::endl;
        return;
    }
    g_signal_connect(built.audioSink.get(), "element-added", G_CALLBACK(&Impl::handleElementAdded), this);

    Internal::Ref<GstElement> audioConvert = makeElement(gst_element_factory_make("audioconvert", nullptr));
    if (!audioConvert) {
        LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "Failed to create an audioconvert" << std::endl;
        return;
    }
    g_object_set(pipe, "audio-filter", audioConvert.get(), nullptr);
    g_object_set(pipe, "audio-sink", built.audioSink.get(), nullptr);

    built.videoconvert = makeElement(gst_element_factory_make("videoconvert", "videoconvert"));
    if (!built.videoconvert) {
        LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "Failed to create an videoconvert" << std::endl;
        return;
    }

    built.bus = Internal::Ref<GstBus>::adopt(gst_element_get_bus(pipe));
    if (!built.bus) {
        LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "Failed to create an bus" << std::endl;
        return;
    }

    built.fakeVideoSink = makeElement(gst_element_factory_make("fakesink", "videosink"));
    if (!built.fakeVideoSink) {
        LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "Failed to create an videoSink" << std::endl;
        return;
    }
    built.outputBin = makeElement(gst_bin_new("output"));
    if (!built.outputBin) {
        LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "Failed to create an output" << std::endl;
        return;
    }

    GstElement* fakeSink = built.fakeVideoSink.get();
    g_object_set(fakeSink, "sync", TRUE, "qos", FALSE, nullptr);
    g_object_set(fakeSink, "signal-handoffs", TRUE, nullptr);
    // Lifetime of the fake sink, which the pipeline owns: no disconnection needed.
    g_signal_connect(fakeSink, "preroll-handoff", G_CALLBACK(&Impl::handlePrerollHandoff), this);
    g_signal_connect(fakeSink, "handoff", G_CALLBACK(&Impl::handleHandoff), this);

    GstElement* convert = built.videoconvert.get();
    gst_bin_add_many(GST_BIN(built.outputBin.get()), convert, fakeSink, nullptr);
    Internal::Ref<GstCaps> nv12 = Internal::Ref<GstCaps>::adopt(gst_caps_from_string("video/x-raw,format=NV12"));
    if (!gst_element_link_filtered(convert, fakeSink, nv12.get())) {
        LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "Failed to link elements" << std::endl;
        return;
    }

    Internal::Ref<GstPad> convertSink = Internal::Ref<GstPad>::adopt(gst_element_get_static_pad(convert, "sink"));
    GstPad* ghost = gst_ghost_pad_new("sink", convertSink.get());
    gst_pad_set_active(ghost, TRUE);
    gst_element_add_pad(built.outputBin.get(), ghost);

    g_object_set(pipe, "video-sink", built.outputBin.get(), nullptr);
    g_object_set(pipe, "uri", currentUri.c_str(), nullptr);
    // Nothing posts on the bus before the pipeline leaves NULL, which only a
    // task after this one asks for.
    gst_bus_set_sync_handler(built.bus.get(), &Impl::handleGstMessage, this, nullptr);
    pipelineElements.publish(std::move(built));
}

void Player::Impl::destroyPipeline(std::chrono::steady_clock::time_point answerDeadline)
{
    Internal::Ref<GstElement> pipe = pipelineElements.playbin();
    if (!pipe)
        return;
    if (Internal::Ref<GstElement> fakeSink = pipelineElements.fakeVideoSink())
        g_object_set(fakeSink.get(), "signal-handoffs", FALSE, nullptr);
    descriptorSourceHold.release();
    stopPrerollWatchdog();

    // An HTTP source goes down first, on its own. Taken down by its bin
    // while the type of its data is being found, it can deadlock GStreamer 1.22:
    // the bin holds its lock while it waits for the source's streaming
    // thread, which waits for the same lock to report the type it found.
    // Alone, the source's thread finishes that report and stops.
    if (Internal::Ref<GstElement> source = pipelineElements.takeHttpSource()) {
        waitForHttpAnswer(pipelineSourceAnswer, answerDeadline);
        gst_element_set_state(source.get(), GST_STATE_NULL);
    }
    // Still published while it goes down: the state changes it posts bring
    // the reported state to Empty.
    gst_element_set_state(pipe.get(), GST_STATE_NULL);
    pipelineSourceAnswer.release();
    // No streaming thread runs any more: none is inside the tag handler.
    {
        Internal::MutexLock lock(mediaMutex);
        unwatchTrackTagsLocked();
    }
    Internal::PipelineOwner::Held held = pipelineElements.takeDown();
    // The pipeline is down: no message may reach this object from a bus that
    // an element still holds after we let go of it.
    if (held.built.bus)
        gst_bus_set_sync_handler(held.built.bus.get(), nullptr, nullptr, nullptr);
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
        impl->pipelineElements.setAdaptiveDemuxer(element);
        return;
    }
    if (startsWith(name, "queue2")) {
        // Keep the download buffer in memory, never in a temporary file.
        g_object_set(element, "temp-template", nullptr, nullptr);
    } else if (startsWith(name, "uridecodebin") || startsWith(name, "decodebin")) {
        // Lifetime of the nested bin, inside the pipeline: no disconnection needed.
        g_signal_connect(element, "element-added", G_CALLBACK(&Impl::handleElementAdded), impl);
    } else if (endsWith(name, "sink-pulse")) {
        impl->pipelineElements.setAudioMuteElement(element);
        Internal::Ref<GstStructure> properties;
        g_object_get(element, "stream-properties", properties.out(), nullptr);
        if (properties)
            gst_structure_set(properties.get(), "media.role", G_TYPE_STRING, "x-tollan", nullptr);
        else
            properties =
                Internal::Ref<GstStructure>::adopt(gst_structure_from_string("props,media.role=x-tollan", nullptr));
        g_object_set(element, "stream-properties", properties.get(), "provide-clock", TRUE, nullptr);
    }
}

void Player::Impl::handleDeepElementAdded(GstBin*, GstBin* subBin, GstElement* element, Impl* impl)
{
    impl->setupNestedHttpSource(subBin, element);
    handleElementAdded(subBin, element, impl);
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
    if (factoryName && std::strcmp(factoryName, "fdsrc") == 0 && Internal::GstQuirks::holdDescriptorSourceStart())
        impl->descriptorSourceHold.hold(source);
    if (factoryName && impl->setupHttpSource(factoryName, source)) {
        impl->pipelineSourceAnswer.watch(source);
        // Also taken down before the pipeline: see destroyPipeline.
        impl->pipelineElements.setHttpSource(source);
    }
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
    Internal::MutexLock lock(mediaMutex);
    return mediaInfo.httpHeaders();
}

std::chrono::steady_clock::time_point Player::Impl::answerDeadlineFromNow()
{
    // Long enough for a server that answers at all; a stalled one is then
    // cancelled safely, as nothing is being read from it.
    constexpr auto kAnswerWait = std::chrono::milliseconds(600);
    return std::chrono::steady_clock::now() + kAnswerWait;
}

void Player::Impl::waitForHttpAnswer(Internal::HttpAnswerWatch& watch, std::chrono::steady_clock::time_point deadline)
{
    if (!Internal::GstQuirks::waitForHttpAnswer())
        return;
    if (!watch.waitForAnswer(deadline))
        LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "No HTTP answer yet, cancelling the request" << std::endl;
}

void Player::Impl::updateHttpHeaders(GstElement* element)
{
    if (!element)
        return;
    Internal::updateHttpHeaders(element, currentHttpHeaders());
}

} // namespace Tevara::Lumiflux
