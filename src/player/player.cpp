#include <lumiflux/player.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include <lumiflux/log.h>

#include "player/player_impl.h"
#include <lumiflux/log_line.h>

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

// ---------------------------------------------------------------- callbacks

// The innermost call into the application that the current thread runs.
thread_local const Player::Impl::CallbackScope* Player::Impl::CallbackScope::innermost = nullptr;

namespace {
// How long the destructor waits for the discoveries under way to be
// reported once it has aborted them (they end at once then; the bound is for
// a discoverer that does not).
constexpr auto kDiscoveryEndWait = std::chrono::seconds(6);
// An absolute path is taken for the file it names; anything else is left as
// it is and must be a URI.
std::string playableUri(std::string_view location)
{
    if (!location.empty() && location.front() == '/') {
        g_autofree gchar* uri = g_filename_to_uri(std::string(location).c_str(), nullptr, nullptr);
        if (uri)
            return uri;
    }
    return std::string(location);
}
// Players destroyed from their own callbacks finish on threads of their own.
// A process that ends meanwhile waits for them (for a while) when its statics
// go, so that no teardown is still inside GStreamer while the process exits.
class BackgroundTeardowns {
public:
    static BackgroundTeardowns& instance()
    {
        static BackgroundTeardowns teardowns;
        return teardowns;
    }
    void started()
    {
        std::lock_guard<std::mutex> lock(mutex);
        ++running;
    }
    void ended()
    {
        std::lock_guard<std::mutex> lock(mutex);
        --running;
        done.notify_all();
    }
    ~BackgroundTeardowns()
    {
        std::unique_lock<std::mutex> lock(mutex);
        done.wait_for(lock, std::chrono::seconds(10), [this] { return running == 0; });
    }

private:
    std::mutex mutex;
    std::condition_variable done;
    int running = 0;
};
} // namespace

Player::Impl::CallbackScope::CallbackScope(Impl& impl, Kind callKind) : owner(impl), kind(callKind), outer(innermost)
{
    ++owner.callbacksRunning;
    innermost = this;
}

Player::Impl::CallbackScope::~CallbackScope()
{
    innermost = outer;
    --owner.callbacksRunning; // the last touch of owner: its destructor waits for this
}

bool Player::Impl::CallbackScope::inside(const Impl& impl, Kind kind)
{
    for (const CallbackScope* scope = innermost; scope; scope = scope->outer)
        if (&scope->owner == &impl && scope->kind == kind)
            return true;
    return false;
}

bool Player::Impl::onOwnThread() const
{
    return std::this_thread::get_id() == thread.get_id() || CallbackScope::inside(*this, CallbackScope::Listener) ||
           CallbackScope::inside(*this, CallbackScope::Sink);
}

void Player::Impl::replaceListener(PlayerListener* replacement)
{
    // Inside one of this player's callbacks the current thread already
    // holds the listener lock.
    if (CallbackScope::inside(*this, CallbackScope::Listener)) {
        listenerMutex.assertHeld();
        listener = replacement;
        return;
    }
    Internal::MutexLock lock(listenerMutex);
    listener = replacement;
}

void Player::Impl::replaceVideoSink(VideoSink* replacement)
{
    videoSink.store(replacement);
    // Waits for a call to the previous sink under way, unless it is this
    // thread's own call.
    if (!CallbackScope::inside(*this, CallbackScope::Sink))
        Internal::MutexLock handOffDone(sinkCallMutex);
}

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

    positionSource = Internal::Ref<GSource>::adopt(g_timeout_source_new(100));
    g_source_set_callback(positionSource.get(), &Impl::positionSourceCallback, this, nullptr);
    g_source_attach(positionSource.get(), mainContext.get());

    durationSource = Internal::Ref<GSource>::adopt(g_timeout_source_new(100));
    g_source_set_callback(durationSource.get(), &Impl::durationSourceCallback, this, nullptr);
    g_source_attach(durationSource.get(), mainContext.get());
}

Player::Impl::~Impl()
{
    shuttingDown.exchange(true);
    // One deadline for every request still waiting for its answer (the
    // discoverer's and the pipeline's), not one each: with both sources on a
    // stalled server, the destruction waits once.
    const auto answerDeadline = answerDeadlineFromNow();
    bool discovering = false;
    {
        Internal::MutexLock lock(discoveryMutex);
        discovering = static_cast<bool>(discoverer);
    }
    if (discovering) {
        // The player thread still runs and reports the discoveries under way
        // (at once when aborted, or within the discoverer's 5 s timeout).
        abortDiscoveries(answerDeadline);
        Internal::Ref<GstDiscoverer> released;
        {
            Internal::MutexLock lock(discoveryMutex);
            const auto deadline = std::chrono::steady_clock::now() + kDiscoveryEndWait;
            while (pendingDiscoveries > 0 && discoveryDone.wait_until(lock, deadline) != std::cv_status::timeout) {
            }
            released = std::move(discoverer);
        }
    }
    {
        Internal::MutexLock lock(discovererSourceMutex);
        discovererSource.reset();
    }
    // Quit at a priority above every queued task's idle source, so that the
    // loop's next iteration dispatches only this and queued tasks are dropped.
    g_main_context_invoke_full(mainContext.get(), -100, &Impl::quitMainLoop, this, nullptr);
    if (thread.joinable())
        thread.join();

    destroyPipeline(answerDeadline);
    runPendingCleanups();

    // The timers must not fire again: they point at this object.
    g_source_destroy(positionSource.get());
    g_source_destroy(durationSource.get());
    if (prerollCheckSource)
        g_source_destroy(prerollCheckSource.get());
    stopPrerollWatchdog();
    // A callback that destroyed its player may still be returning from the
    // listener lock; nothing of this object may go before it has.
    while (callbacksRunning.load() > 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

void Player::Impl::loop()
{
    g_main_context_push_thread_default(mainContext.get());
    mainLoop = Internal::Ref<GMainLoop>::adopt(g_main_loop_new(mainContext.get(), FALSE));
    g_main_loop_run(mainLoop.get());
    mainLoop.reset();
    g_main_context_pop_thread_default(mainContext.get());
}

gboolean Player::Impl::quitMainLoop(gpointer data)
{
    auto* impl = static_cast<Impl*>(data);
    if (impl->mainLoop)
        g_main_loop_quit(impl->mainLoop.get());
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
    notifyListener([&](PlayerListener& l) { l.onError(error, message); });
}

// ---------------------------------------------------------------- facade

Player::Player() : impl(std::make_unique<Impl>())
{
    // If the thread cannot be started, std::thread throws and impl's
    // destructor tears the partly built state down as usual.
    Impl* p = impl.get();
    impl->thread = std::thread([p] { p->loop(); });
}

Player::~Player()
{
    if (!impl->onOwnThread())
        return; // impl's destructor tears down in the documented order
    // Destroyed from one of its own callbacks: joining the player thread, or
    // stopping the pipeline whose streaming thread runs the callback, would
    // wait for this very thread. The application is let go of now (no
    // callback after this returns), and the rest ends on a thread of its own.
    impl->shuttingDown.exchange(true);
    impl->replaceListener(nullptr);
    impl->replaceVideoSink(nullptr);
    LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "destroyed from its own thread: the teardown ends on another" << std::endl;
    Impl* owned = impl.release();
    try {
        BackgroundTeardowns& teardowns = BackgroundTeardowns::instance();
        teardowns.started();
        std::thread([owned, &teardowns] {
            std::unique_ptr<Impl> last(owned);
            last.reset();
            teardowns.ended();
        }).detach();
    } catch (const std::exception& e) {
        // Left as it is rather than deadlocking the host.
        LUMIFLUX_LOG_DIGIT(2, kPlayerLog) << "cannot start the teardown: " << e.what() << std::endl;
    }
}

void Player::setListener(PlayerListener* listener)
{
    impl->replaceListener(listener);
}

bool Player::setVideoSink(VideoSink* sink)
{
    impl->replaceVideoSink(sink);
    return true;
}

void Player::setUri(std::string_view uri, const HttpHeaders& headers)
{
    impl->playWhenReady.exchange(false);
    Impl::Task task(Impl::Task::Init);
    task.uri = playableUri(uri);
    task.httpHeaders = headers;
    impl->addTask(std::move(task));
}

void Player::play(std::string_view uri, const HttpHeaders& headers)
{
    impl->playWhenReady.exchange(true);
    Impl::Task task(Impl::Task::Init);
    task.uri = playableUri(uri);
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
std::chrono::microseconds Player::getPosition() const
{
    return std::chrono::microseconds(impl->position.load());
}
std::chrono::microseconds Player::getDuration() const
{
    return std::chrono::microseconds(impl->duration.load());
}
MediaInfo Player::getMediaInfo() const
{
    Internal::MutexLock lock(impl->mediaMutex);
    return impl->mediaInfo;
}

} // namespace Tevara::Lumiflux
