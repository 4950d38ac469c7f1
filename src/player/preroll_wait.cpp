#include "player/gst_quirks.h"
#include "player/player_impl.h"
#include <lumiflux/log_line.h>

// Work the player thread holds back while the pipeline prerolls: the start of
// a discovery (which would compete with the preroll for the processor) and,
// where the GStreamer version needs it, a stream selection (see
// gst_quirks.cpp). Also the bound on a local medium's preroll.

namespace Tevara::Lumiflux {

namespace {

// How often the pipeline's state is checked while work waits, and how many
// checks a discovery waits at most: a pipeline stuck on a silent server must
// not keep the duration from being discovered.
constexpr guint kPrerollCheckMs = 40;
constexpr int kDiscoveryMaxWaits = 25;
// A local medium prerolls in well under a second even on a loaded machine.
// GStreamer 1.22's decoding bin can leave the preroll of a damaged file
// unfinished for good (every streaming thread idle, no error, no end of
// stream): past this limit the player reports a stream failure instead of
// letting the application wait forever.
constexpr guint kLocalPrerollLimitSeconds = 15;

bool isLocalUri(const std::string& uri)
{
    return uri.rfind("file:", 0) == 0 || uri.rfind("fd://", 0) == 0;
}

} // namespace

bool Player::Impl::pipelinePrerolling(GstState* current)
{
    Internal::Ref<GstElement> pipe = pipelineElements.playbin();
    if (!pipe)
        return false;
    GstState reached = GST_STATE_VOID_PENDING;
    GstState pending = GST_STATE_VOID_PENDING;
    const bool prerolling = gst_element_get_state(pipe.get(), &reached, &pending, 0) == GST_STATE_CHANGE_ASYNC;
    if (current)
        *current = reached;
    return prerolling;
}

void Player::Impl::schedulePrerollCheck()
{
    if (prerollCheckSource)
        return;
    prerollCheckSource = Internal::Ref<GSource>::adopt(g_timeout_source_new(kPrerollCheckMs));
    g_source_set_priority(prerollCheckSource.get(), G_PRIORITY_LOW);
    g_source_set_callback(prerollCheckSource.get(), &Impl::prerollCheck, this, nullptr);
    g_source_attach(prerollCheckSource.get(), mainContext.get());
}

gboolean Player::Impl::prerollCheck(gpointer data)
{
    auto* impl = static_cast<Impl*>(data);
    if (impl->shuttingDown.load())
        return G_SOURCE_CONTINUE; // the destructor removes the source
    const bool prerolling = impl->pipelinePrerolling();
    if (impl->discoveryScheduled.load() && (!prerolling || ++impl->discoveryWaits > kDiscoveryMaxWaits)) {
        impl->discoveryScheduled.exchange(false);
        impl->discoverCurrentUri();
    }
    if (impl->pendingSelection && !prerolling)
        impl->sendSelectStreams(impl->pendingSelection.release());
    if (impl->discoveryScheduled.load() || impl->pendingSelection)
        return G_SOURCE_CONTINUE;
    impl->prerollCheckSource.reset(); // the context keeps it until this returns
    return G_SOURCE_REMOVE;
}

void Player::Impl::watchLocalPreroll(GstStateChangeReturn stateChange)
{
    stopPrerollWatchdog();
    if (stateChange != GST_STATE_CHANGE_ASYNC || !Internal::GstQuirks::boundLocalPreroll())
        return;
    {
        Internal::MutexLock lock(mediaMutex);
        if (!isLocalUri(mediaInfo.uri()))
            return;
    }
    prerollWatchdogSource = Internal::Ref<GSource>::adopt(g_timeout_source_new_seconds(kLocalPrerollLimitSeconds));
    g_source_set_callback(prerollWatchdogSource.get(), &Impl::prerollWatchdog, this, nullptr);
    g_source_attach(prerollWatchdogSource.get(), mainContext.get());
}

void Player::Impl::stopPrerollWatchdog()
{
    if (!prerollWatchdogSource)
        return;
    g_source_destroy(prerollWatchdogSource.get());
    prerollWatchdogSource.reset();
}

gboolean Player::Impl::prerollWatchdog(gpointer data)
{
    auto* impl = static_cast<Impl*>(data);
    if (impl->shuttingDown.load())
        return G_SOURCE_CONTINUE;        // the destructor removes the source
    impl->prerollWatchdogSource.reset(); // the context keeps it until this returns
    // Only a first preroll that never reached PAUSED: a seek prerolls again
    // from PAUSED and is none of this watchdog's business.
    GstState current = GST_STATE_VOID_PENDING;
    if (impl->pipelinePrerolling(&current) && current < GST_STATE_PAUSED) {
        LUMIFLUX_LOG_DIGIT(2, kPlayerLog)
            << "Preroll did not complete within " << kLocalPrerollLimitSeconds << " s" << std::endl;
        impl->onError(PlayerError::StreamFailed, "Preroll did not complete");
    }
    return G_SOURCE_REMOVE;
}

} // namespace Tevara::Lumiflux
