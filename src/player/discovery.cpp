#include "player/player_impl.h"
#include <lumiflux/log_line.h>

namespace Tevara::Lumiflux {

void Player::Impl::startAsyncDiscovery()
{
    // The discoverer builds and prerolls a pipeline of its own. Started at
    // once, it would compete with the player's pipeline, which the tasks
    // queued behind this one (the pause of play(uri) + pause()) are about to
    // start, and hold up the first frame. It starts instead once the
    // pipeline is not prerolling (see preroll_wait.cpp), and discovers the
    // URI current at that moment.
    discoveryWaits = 0;
    discoveryScheduled.exchange(true);
    schedulePrerollCheck();
}

void Player::Impl::discoverCurrentUri()
{
    std::string uri;
    {
        Internal::MutexLock lock(mediaMutex);
        uri = mediaInfo.uri();
    }
    // A descriptor may have replaced the URI meanwhile: never discovered.
    if (uri.empty() || uri.rfind("fd://", 0) == 0)
        return;
    // Under the lock the destructor takes to look at the discoverer: once it
    // has, no discoverer is created or started behind its back.
    Internal::MutexLock lock(discoveryMutex);
    if (shuttingDown.load())
        return;
    if (!discoverer) {
        Internal::Ref<GError> error;
        discoverer = Internal::Ref<GstDiscoverer>::adopt(gst_discoverer_new(5 * GST_SECOND, error.out()));
        if (!discoverer)
            return;
        // The discoverer lives until ~Impl, which stops and releases it before
        // anything else: the handlers never outlive this object.
        g_signal_connect(discoverer.get(), "source-setup", G_CALLBACK(&Impl::handleDiscovererSourceSetup), this);
        g_signal_connect(discoverer.get(), "discovered", G_CALLBACK(&Impl::onDiscovered), this);
    }
    // Runs on the thread-default context, which is the player's.
    gst_discoverer_start(discoverer.get());
    if (gst_discoverer_discover_uri_async(discoverer.get(), uri.c_str()))
        ++pendingDiscoveries;
    else
        LUMIFLUX_LOG_DIGIT(2, kPlayerLog) << "Can't discover uri: " << uri << std::endl;
}

void Player::Impl::handleDiscovererSourceSetup(GstDiscoverer*, GstElement* source, Impl* impl)
{
    GstElementFactory* factory = gst_element_get_factory(source);
    const char* factoryName = factory ? gst_plugin_feature_get_name(GST_PLUGIN_FEATURE(factory)) : nullptr;
    if (factoryName && impl->setupHttpSource(factoryName, source))
        impl->discovererSourceAnswer.watch(source);
    // The discoverer's demuxers make HTTP sources of their own too: watch
    // its pipeline (the source's top-level bin, kept for the discoverer's
    // life) once.
    Internal::Ref<GstObject> top = Internal::Ref<GstObject>::adopt(gst_object_get_parent(GST_OBJECT(source)));
    while (top) {
        Internal::Ref<GstObject> parent = Internal::Ref<GstObject>::adopt(gst_object_get_parent(top.get()));
        if (!parent)
            break;
        top = std::move(parent);
    }
    if (top && GST_IS_BIN(top.get()) && !g_object_get_data(G_OBJECT(top.get()), "lumiflux-watched")) {
        g_object_set_data(G_OBJECT(top.get()), "lumiflux-watched", impl);
        g_signal_connect(top.get(), "deep-element-added", G_CALLBACK(&Impl::handleDiscovererElementAdded), impl);
    }
    // Kept so that the destructor can end a discovery stuck on a server that
    // does not answer (see abortDiscoveries).
    Internal::Ref<GstElement> kept = Internal::Ref<GstElement>::share(source);
    Internal::MutexLock lock(impl->discovererSourceMutex);
    std::swap(impl->discovererSource, kept); // the previous one goes after the lock
}

void Player::Impl::handleDiscovererElementAdded(GstBin*, GstBin* subBin, GstElement* element, Impl* impl)
{
    impl->setupNestedHttpSource(subBin, element);
}

void Player::Impl::abortDiscoveries(std::chrono::steady_clock::time_point answerDeadline)
{
    // A discovery waiting on a server that never answers would hold the
    // destructor for the discoverer's whole timeout. An error posted by its
    // source ends it at once: the discoverer reports the URI as failed and
    // tears its pipeline down, which cancels the request.
    {
        Internal::MutexLock lock(discoveryMutex);
        if (pendingDiscoveries == 0)
            return;
    }
    Internal::Ref<GstElement> source;
    {
        Internal::MutexLock lock(discovererSourceMutex);
        source = discovererSource;
    }
    if (!source)
        return;
    waitForHttpAnswer(discovererSourceAnswer, answerDeadline);
    Internal::Ref<GError> error = Internal::Ref<GError>::adopt(
        g_error_new_literal(GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_READ, "Player destroyed"));
    gst_element_post_message(source.get(),
                             gst_message_new_error(GST_OBJECT(source.get()), error.get(), "discovery aborted"));
}

void Player::Impl::onDiscovered(GstDiscoverer*, GstDiscovererInfo* info, GError* error, Impl* impl)
{
    {
        Internal::MutexLock lock(impl->discoveryMutex);
        if (impl->pendingDiscoveries > 0)
            --impl->pendingDiscoveries;
    }
    Internal::Ref<GstElement> finished;
    {
        Internal::MutexLock lock(impl->discovererSourceMutex);
        std::swap(impl->discovererSource, finished); // released after the lock
    }
    impl->discovererSourceAnswer.release();
    impl->discoveryDone.notify_all();
    // Discovery only learns the duration early; playback never depends on it.
    if (error || !info)
        return;
    const GstClockTime nanoseconds = gst_discoverer_info_get_duration(info);
    if (!GST_CLOCK_TIME_IS_VALID(nanoseconds))
        return;
    impl->onDurationChanged(std::chrono::microseconds(static_cast<std::int64_t>(nanoseconds / 1000)));
}

} // namespace Tevara::Lumiflux
