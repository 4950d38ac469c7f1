#include "core/log_macros.h"
#include "player/player_impl.h"

namespace Tevara::Lumiflux {

namespace {

// While the pipeline prerolls, the discovery waits in steps of this length,
// at most kDiscoveryMaxWaits times: a pipeline stuck on a silent server must
// not keep the duration from being discovered.
constexpr guint kDiscoveryWaitMs = 40;
constexpr int kDiscoveryMaxWaits = 25;

} // namespace

void Player::Impl::startAsyncDiscovery()
{
    // The discoverer builds and prerolls a pipeline of its own. Started at
    // once, it would compete with the player's pipeline, which the tasks
    // queued behind this one (the pause of play(uri) + pause()) are about to
    // start, and hold up the first frame. It starts instead when the player's
    // context has nothing more urgent to do and the pipeline is not busy
    // prerolling. One pending start suffices: it discovers the URI current
    // at that moment.
    discoveryWaits = 0;
    if (discoveryScheduled.exchange(true))
        return;
    scheduleDiscovery(g_idle_source_new());
}

void Player::Impl::scheduleDiscovery(GSource* source)
{
    g_source_set_priority(source, G_PRIORITY_LOW);
    g_source_set_callback(source, &Impl::scheduledDiscovery, this, nullptr);
    g_source_attach(source, mainContext);
    g_source_unref(source);
}

gboolean Player::Impl::scheduledDiscovery(gpointer data)
{
    auto* impl = static_cast<Impl*>(data);
    if (GstElement* pipe = impl->pipeline.load()) {
        GstState current = GST_STATE_VOID_PENDING;
        GstState pending = GST_STATE_VOID_PENDING;
        const bool busy = gst_element_get_state(pipe, &current, &pending, 0) == GST_STATE_CHANGE_ASYNC;
        if (busy && ++impl->discoveryWaits <= kDiscoveryMaxWaits && !impl->shuttingDown.load()) {
            impl->scheduleDiscovery(g_timeout_source_new(kDiscoveryWaitMs));
            return G_SOURCE_REMOVE;
        }
    }
    impl->discoveryScheduled.exchange(false);
    impl->discoverCurrentUri();
    return G_SOURCE_REMOVE;
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
