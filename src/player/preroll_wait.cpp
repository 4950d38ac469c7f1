#include "core/log_macros.h"
#include "player/player_impl.h"

// Work the player thread holds back while the pipeline prerolls: the start of
// a discovery (which would compete with the preroll for the processor) and a
// stream selection (GStreamer 1.22's playbin3 forwards a selection under its
// own lock into the decoding bin, whose streaming threads take the two locks
// in the opposite order while they add pads during the preroll: sent then,
// the selection can deadlock the player thread and the pipeline).

namespace Tevara::Lumiflux {

namespace {

// How often the pipeline's state is checked while work waits, and how many
// checks a discovery waits at most: a pipeline stuck on a silent server must
// not keep the duration from being discovered.
constexpr guint kPrerollCheckMs = 40;
constexpr int kDiscoveryMaxWaits = 25;

} // namespace

bool Player::Impl::pipelinePrerolling()
{
    GstElement* pipe = pipeline.load();
    if (!pipe)
        return false;
    GstState current = GST_STATE_VOID_PENDING;
    GstState pending = GST_STATE_VOID_PENDING;
    return gst_element_get_state(pipe, &current, &pending, 0) == GST_STATE_CHANGE_ASYNC;
}

void Player::Impl::schedulePrerollCheck()
{
    if (prerollCheckSource)
        return;
    prerollCheckSource = g_timeout_source_new(kPrerollCheckMs);
    g_source_set_priority(prerollCheckSource, G_PRIORITY_LOW);
    g_source_set_callback(prerollCheckSource, &Impl::prerollCheck, this, nullptr);
    g_source_attach(prerollCheckSource, mainContext);
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
    g_source_unref(impl->prerollCheckSource);
    impl->prerollCheckSource = nullptr;
    return G_SOURCE_REMOVE;
}

} // namespace Tevara::Lumiflux
