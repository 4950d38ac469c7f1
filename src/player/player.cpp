#include <lumiflux/player.h>

#include <mutex>

#include <lumiflux/log.h>

#include "core/log_macros.h"
#include "player/player_impl.h"

namespace Tevara::Lumiflux {

// ---------------------------------------------------------------- interfaces

PlayerListener::~PlayerListener() = default;
void PlayerListener::onMediaInfo(const MediaInfo&) {}
void PlayerListener::onTracksSelected(const std::vector<int>&) {}
void PlayerListener::onStateChanged(PlayerState, PlayerState) {}
void PlayerListener::onDurationChanged(std::chrono::microseconds) {}
void PlayerListener::onPositionChanged(std::chrono::microseconds) {}
void PlayerListener::onBufferingChanged(int) {}
void PlayerListener::onError(PlayerError, const std::string&) {}

VideoSink::~VideoSink() = default;

// ---------------------------------------------------------------- Impl life

Player::Impl::Impl()
{
    LogInit();
    // Once per process, before any player thread builds a pipeline: GStreamer
    // may report itself initialised while another thread is still scanning
    // its registry, and players created at the same moment then find no
    // element factories.
    static std::once_flag gstreamerInitialised;
    std::call_once(gstreamerInitialised, [] {
        if (!gst_is_initialized())
            gst_init(nullptr, nullptr);
    });
    mainContext = g_main_context_new();

    positionSource = g_timeout_source_new(100);
    g_source_set_callback(positionSource, &Impl::positionSourceCallback, this, nullptr);
    g_source_attach(positionSource, mainContext);

    durationSource = g_timeout_source_new(100);
    g_source_set_callback(durationSource, &Impl::durationSourceCallback, this, nullptr);
    g_source_attach(durationSource, mainContext);
}

Player::Impl::~Impl()
{
    shuttingDown.exchange(true);
    bool discovering = false;
    {
        std::lock_guard<std::mutex> lock(discoveryMutex);
        discovering = discoverer != nullptr;
    }
    if (discovering) {
        // The player thread still runs and reports the discoveries under way
        // (each ends within the discoverer's 5 s timeout, or at once when
        // aborted).
        abortDiscoveries();
        {
            std::unique_lock<std::mutex> lock(discoveryMutex);
            discoveryDone.wait_for(lock, std::chrono::seconds(6), [this] { return pendingDiscoveries == 0; });
        }
        g_object_unref(discoverer);
        discoverer = nullptr;
    }
    {
        std::lock_guard<std::mutex> lock(discovererSourceMutex);
        if (discovererSource)
            gst_object_unref(discovererSource);
        discovererSource = nullptr;
    }
    // Quit at a priority above every queued task's idle source, so that the
    // loop's next iteration dispatches only this and queued tasks are dropped.
    g_main_context_invoke_full(mainContext, -100, &Impl::quitMainLoop, this, nullptr);
    if (thread.joinable())
        thread.join();

    destroyPipeline();
    runPendingCleanups();

    // The timers must not fire again: they point at this object.
    g_source_destroy(positionSource);
    g_source_destroy(durationSource);
    if (prerollCheckSource) {
        g_source_destroy(prerollCheckSource);
        g_source_unref(prerollCheckSource);
    }
    stopPrerollWatchdog();
    g_main_context_unref(mainContext);
    g_source_unref(positionSource);
    g_source_unref(durationSource);
}

void Player::Impl::loop()
{
    g_main_context_push_thread_default(mainContext);
    mainLoop = g_main_loop_new(mainContext, FALSE);
    g_main_loop_run(mainLoop);
    g_main_loop_unref(mainLoop);
    mainLoop = nullptr;
    g_main_context_pop_thread_default(mainContext);
}

gboolean Player::Impl::quitMainLoop(gpointer data)
{
    auto* impl = static_cast<Impl*>(data);
    if (impl->mainLoop)
        g_main_loop_quit(impl->mainLoop);
    return G_SOURCE_REMOVE;
}

void Player::Impl::resetPlaybackSettings()
{
    autoRepeat.exchange(false);
    mute.exchange(false);
    playbackRate.exchange(1.0);
    appliedPlaybackRate.exchange(1.0);
    shouldApplyPlaybackRate.exchange(false);
}

void Player::Impl::onError(PlayerError error, const std::string& message)
{
    std::lock_guard<std::mutex> lock(listenerMutex);
    if (listener)
        listener->onError(error, message);
}

// ---------------------------------------------------------------- facade

Player::Player() : impl(std::make_unique<Impl>())
{
    // If the thread cannot be started, std::thread throws and impl's
    // destructor tears the partly built state down as usual.
    Impl* p = impl.get();
    impl->thread = std::thread([p] { p->loop(); });
}

Player::~Player() = default;

void Player::setListener(PlayerListener* listener)
{
    std::lock_guard<std::mutex> lock(impl->listenerMutex);
    impl->listener = listener;
}

bool Player::setVideoSink(VideoSink* sink)
{
    impl->videoSink.store(sink);
    return true;
}

void Player::setUri(std::string_view uri, const HttpHeaders& headers)
{
    impl->playWhenReady.exchange(false);
    Impl::Task task(Impl::Task::Init);
    task.uri = std::string(uri);
    task.httpHeaders = headers;
    impl->addTask(std::move(task));
}

void Player::play(std::string_view uri, const HttpHeaders& headers)
{
    impl->playWhenReady.exchange(true);
    Impl::Task task(Impl::Task::Init);
    task.uri = std::string(uri);
    task.httpHeaders = headers;
    impl->addTask(std::move(task));
}

void Player::setHttpHeaders(const HttpHeaders& headers)
{
    Impl::Task task(Impl::Task::Modify);
    task.httpHeaders = headers;
    impl->addTask(std::move(task));
}

void Player::play()
{
    impl->addTask(Impl::Task(Impl::Task::Play));
}
void Player::pause()
{
    impl->addTask(Impl::Task(Impl::Task::Pause));
}

void Player::seek(std::chrono::microseconds position)
{
    Impl::Task task(Impl::Task::Seek);
    task.position = position.count();
    impl->addTask(std::move(task));
}

void Player::stop()
{
    impl->addTask(Impl::Task(Impl::Task::Stop));
}

void Player::reset()
{
    stop();
    setListener(nullptr);
    setVideoSink(nullptr);
}

void Player::selectTracks(const std::vector<int>& trackIds)
{
    Impl::Task task(Impl::Task::SelectTracks);
    task.trackIds = trackIds;
    impl->addTask(std::move(task));
}

void Player::setPlaybackRate(double rate)
{
    if (rate == impl->playbackRate.load())
        return;
    impl->playbackRate.exchange(rate);
    impl->addTask(Impl::Task(Impl::Task::ApplyPlaybackRate), true);
}

void Player::setMute(bool mute)
{
    impl->mute.exchange(mute);
    impl->addTask(Impl::Task(Impl::Task::ApplyMute), true);
}

void Player::setAutoRepeat(bool autoRepeat)
{
    impl->autoRepeat.exchange(autoRepeat);
}

PlayerState Player::getState() const
{
    return impl->state.load();
}
double Player::getPlaybackRate() const
{
    return impl->playbackRate.load();
}
bool Player::getAutoRepeat() const
{
    return impl->autoRepeat.load();
}
bool Player::getMute() const
{
    return impl->mute.load();
}

} // namespace Tevara::Lumiflux
