#include "core/log_macros.h"
#include "player/player_impl.h"

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
        std::lock_guard<std::mutex> lock(mediaMutex);
        uri = mediaInfo.uri();
    }
    // A descriptor may have replaced the URI meanwhile: never discovered.
    if (uri.empty() || uri.rfind("fd://", 0) == 0)
        return;
    // Under the lock the destructor takes to look at the discoverer: once it
    // has, no discoverer is created or started behind its back.
    std::lock_guard<std::mutex> lock(discoveryMutex);
    if (shuttingDown.load())
        return;
    if (!discoverer) {
        GError* error = nullptr;
        discoverer = gst_discoverer_new(5 * GST_SECOND, &error);
        if (error)
            g_error_free(error);
        if (!discoverer)
            return;
        // The discoverer lives until ~Impl, which stops and releases it before
        // anything else: the handlers never outlive this object.
        g_signal_connect(discoverer, "source-setup", G_CALLBACK(&Impl::handleDiscovererSourceSetup), this);
        g_signal_connect(discoverer, "discovered", G_CALLBACK(&Impl::onDiscovered), this);
    }
    // Runs on the thread-default context, which is the player's.
    gst_discoverer_start(discoverer);
    if (gst_discoverer_discover_uri_async(discoverer, uri.c_str()))
        ++pendingDiscoveries;
    else
        LUMIFLUX_LOG_DIGIT(2, kPlayerLog) << "Can't discover uri: " << uri << std::endl;
}

void Player::Impl::abortDiscoveries()
{
    // A discovery waiting on a server that never answers would hold the
    // destructor for the discoverer's whole timeout. An error posted by its
    // source ends it at once: the discoverer reports the URI as failed and
    // tears its pipeline down, which cancels the request.
    {
        std::lock_guard<std::mutex> lock(discoveryMutex);
        if (pendingDiscoveries == 0)
            return;
    }
    GstElement* source = nullptr;
    {
        std::lock_guard<std::mutex> lock(discovererSourceMutex);
        if (!discovererSource)
            return;
        source = GST_ELEMENT(gst_object_ref(discovererSource));
    }
    waitForHttpAnswer(discovererSourceAnswer);
    GError* error = g_error_new_literal(GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_READ, "Player destroyed");
    gst_element_post_message(source, gst_message_new_error(GST_OBJECT(source), error, "discovery aborted"));
    g_error_free(error);
    gst_object_unref(source);
}

void Player::Impl::onDiscovered(GstDiscoverer*, GstDiscovererInfo* info, GError* error, Impl* impl)
{
    {
        std::lock_guard<std::mutex> lock(impl->discoveryMutex);
        if (impl->pendingDiscoveries > 0)
            --impl->pendingDiscoveries;
    }
    {
        std::lock_guard<std::mutex> lock(impl->discovererSourceMutex);
        if (impl->discovererSource) {
            gst_object_unref(impl->discovererSource);
            impl->discovererSource = nullptr;
        }
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
