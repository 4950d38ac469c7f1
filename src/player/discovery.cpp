#include "core/log_macros.h"
#include "player/player_impl.h"

namespace Tevara::Lumiflux {

void Player::Impl::startAsyncDiscovery()
{
    std::string uri;
    {
        std::lock_guard<std::mutex> lock(mediaMutex);
        uri = mediaInfo.uri();
    }
    if (uri.empty())
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
    std::lock_guard<std::mutex> lock(discoveryMutex);
    if (gst_discoverer_discover_uri_async(discoverer, uri.c_str()))
        ++pendingDiscoveries;
    else
        LUMIFLUX_LOG_DIGIT(2, kPlayerLog) << "Can't discover uri: " << uri << std::endl;
}

void Player::Impl::onDiscovered(GstDiscoverer*, GstDiscovererInfo* info, GError* error, Impl* impl)
{
    {
        std::lock_guard<std::mutex> lock(impl->discoveryMutex);
        if (impl->pendingDiscoveries > 0)
            --impl->pendingDiscoveries;
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
