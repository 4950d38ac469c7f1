// What an application may do from inside the player's callbacks: call the
// player (the work is queued, never run inside the callback), destroy it
// (the teardown ends on another thread; no callback follows), and replace
// the video sink (which waits for a call to the old one under way). Each case
// runs under a watchdog: a deadlock ends the program with the case's name.

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "recording_listener.h"
#include "watchdog.h"

using namespace std::chrono_literals;
using namespace lumiflux_test;

namespace {

constexpr auto kCaseLimit = 40s;

enum class Hook { Error, Position, State, MediaInfo, Frame };
const char* hookName(Hook hook)
{
    switch (hook) {
    case Hook::Error:
        return "onError";
    case Hook::Position:
        return "onPositionChanged";
    case Hook::State:
        return "onStateChanged";
    case Hook::MediaInfo:
        return "onMediaInfo";
    case Hook::Frame:
        return "VideoSink::onFrame";
    }
    return "";
}

// Runs `action` once, from inside the first callback of the armed kind.
class HookedListener : public RecordingListener, public VideoSink {
public:
    void arm(Hook kind, std::function<void()> what)
    {
        std::lock_guard<std::mutex> lock(hookMutex);
        hook = kind;
        action = std::move(what);
    }
    bool waitForAction()
    {
        return waitFor([&] { return acted; });
    }

    void onError(PlayerError error, const std::string& message) override
    {
        RecordingListener::onError(error, message);
        fire(Hook::Error);
    }
    void onPositionChanged(std::chrono::microseconds position) override
    {
        RecordingListener::onPositionChanged(position);
        fire(Hook::Position);
    }
    void onStateChanged(PlayerState from, PlayerState to) override
    {
        RecordingListener::onStateChanged(from, to);
        fire(Hook::State);
    }
    void onMediaInfo(const MediaInfo& info) override
    {
        RecordingListener::onMediaInfo(info);
        fire(Hook::MediaInfo);
    }
    void onFrame(const VideoFrame&, bool) override
    {
        ++frames;
        fire(Hook::Frame);
    }

    std::atomic<int> frames{0};
    bool acted = false;

private:
    void fire(Hook kind)
    {
        std::function<void()> what;
        {
            std::lock_guard<std::mutex> lock(hookMutex);
            if (kind != hook || !action)
                return;
            what = std::move(action);
            action = nullptr;
        }
        what();
        {
            std::lock_guard<std::mutex> lock(mutex);
            acted = true;
        }
        changed.notify_all();
    }
    std::mutex hookMutex;
    Hook hook = Hook::Error;
    std::function<void()> action;
};

TEST(PlayerCallbacks, CallsFromCallbacksAreQueuedAndThePlayerGoesOn)
{
    enum class Call { SelectNothing, Seek, Pause };
    const char* callNames[] = {"selectTracks({})", "seek", "pause"};
    // Outlives the player: a case that fails leaves its destructor to hang.
    Watchdog whole("the re-entry cases and the player's teardown", 4 * kCaseLimit);
    // One player for every case, started once and kept going round.
    HookedListener listener;
    Player player;
    player.setListener(&listener);
    {
        Watchdog watchdog("starting the player", kCaseLimit);
        player.play(mediaUri("media.mkv"));
        player.pause();
        ASSERT_TRUE(listener.waitForState(PlayerState::Playing));
        player.setAutoRepeat(true);
    }
    for (Hook hook : {Hook::Error, Hook::Position, Hook::State}) {
        for (Call call : {Call::SelectNothing, Call::Seek, Call::Pause}) {
            const std::string name = std::string(callNames[static_cast<int>(call)]) + " from " + hookName(hook);
            SCOPED_TRACE(name);
            Watchdog watchdog(name, kCaseLimit);
            // Playing again, whatever the case before left: positions move.
            const size_t positions = listener.snapshot(listener.positions).size();
            player.play();
            ASSERT_TRUE(listener.waitFor([&] { return listener.positions.size() > positions + 1; }));
            {
                std::lock_guard<std::mutex> lock(listener.mutex);
                listener.acted = false;
            }
            listener.arm(hook, [&player, call] {
                if (call == Call::SelectNothing)
                    player.selectTracks({});
                else if (call == Call::Seek)
                    player.seek(500ms);
                else
                    player.pause();
            });
            if (hook == Hook::Error)
                player.selectTracks({}); // fails, on the player thread
            else if (hook == Hook::State)
                player.pause();
            ASSERT_TRUE(listener.waitForAction());
            // The queue still runs: a task queued now is carried out.
            EXPECT_TRUE(listener.drain(player));
        }
    }
    // setListener from inside a callback takes effect at once: the next
    // report goes to the new listener, the old one hears nothing more.
    Watchdog watchdog("setListener from onError", kCaseLimit);
    RecordingListener next;
    listener.arm(Hook::Error, [&] { player.setListener(&next); });
    {
        std::lock_guard<std::mutex> lock(listener.mutex);
        listener.acted = false;
    }
    player.selectTracks({});
    ASSERT_TRUE(listener.waitForAction());
    const size_t heard = listener.snapshot(listener.errors).size();
    EXPECT_TRUE(next.drain(player));
    EXPECT_EQ(listener.snapshot(listener.errors).size(), heard);
    player.setListener(nullptr);
}

TEST(PlayerCallbacks, APlayerDestroyedInsideItsCallbackLetsGoAtOnce)
{
    struct Case {
        Hook hook;
        std::string uri;
    };
    const Case cases[] = {
        {Hook::State, mediaUri("media.mkv")},
        {Hook::Position, mediaUri("media.mkv")},
        {Hook::MediaInfo, mediaUri("media.mkv")},
        {Hook::Frame, mediaUri("media.mkv")},
        // A pipeline error, and an error the player thread reports itself.
        {Hook::Error, mediaUri("missing.mkv")},
        {Hook::Error, "relative/clip.mkv"},
    };
    for (const Case& c : cases) {
        const std::string name = std::string("destroyed from ") + hookName(c.hook) + " playing " + c.uri;
        SCOPED_TRACE(name);
        Watchdog watchdog(name, kCaseLimit);
        HookedListener listener;
        auto player = std::make_unique<Player>();
        std::mutex playerMutex;
        std::atomic<bool> destroyed{false};
        std::atomic<int> callsAfter{0};
        player->setListener(&listener);
        player->setVideoSink(&listener);
        listener.arm(c.hook, [&] {
            std::unique_ptr<Player> last;
            {
                std::lock_guard<std::mutex> lock(playerMutex);
                last = std::move(player);
            }
            last.reset();
            destroyed = true;
        });
        {
            std::lock_guard<std::mutex> lock(playerMutex);
            player->play(c.uri);
            player->pause();
        }
        ASSERT_TRUE(listener.waitForAction());
        ASSERT_TRUE(destroyed.load());
        // Whatever the listener and the sink see from now on came after the
        // destructor returned.
        const size_t calls = listener.snapshot(listener.states).size() + listener.snapshot(listener.errors).size() +
                             listener.snapshot(listener.positions).size();
        const int frames = listener.frames.load();
        std::this_thread::sleep_for(300ms);
        EXPECT_EQ(listener.snapshot(listener.states).size() + listener.snapshot(listener.errors).size() +
                      listener.snapshot(listener.positions).size(),
                  calls);
        EXPECT_EQ(listener.frames.load(), frames);
    }
    // The process goes on: another player plays.
    Watchdog watchdog("a new player after the destructions", kCaseLimit);
    ListenedPlayer session;
    EXPECT_TRUE(session.start(mediaUri("media.mkv")));
}

// The sink given up with setVideoSink is not in a call once it returns, and
// is never called again: the application may destroy it then.
TEST(PlayerCallbacks, SetVideoSinkWaitsForTheFrameUnderWay)
{
    class SlowSink : public VideoSink {
    public:
        void onFrame(const VideoFrame&, bool) override
        {
            inCall = true;
            std::this_thread::sleep_for(300ms);
            ++calls;
            inCall = false;
        }
        std::atomic<bool> inCall{false};
        std::atomic<int> calls{0};
    };
    Watchdog watchdog("setVideoSink during a frame", kCaseLimit);
    SlowSink sink;
    ListenedPlayer session;
    session.player.setVideoSink(&sink);
    session.player.play(mediaUri("media.mkv"));
    session.player.pause();
    while (!sink.inCall.load())
        std::this_thread::sleep_for(5ms);
    session.player.setVideoSink(nullptr);
    EXPECT_FALSE(sink.inCall.load());
    const int calls = sink.calls.load();
    EXPECT_GE(calls, 1);
    std::this_thread::sleep_for(700ms);
    EXPECT_EQ(sink.calls.load(), calls);
}

} // namespace
