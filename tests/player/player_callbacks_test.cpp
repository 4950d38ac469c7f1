// What an application may do from inside the player's callbacks; a watchdog names the case that deadlocks.

#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "recording_listener.h"
#include "watchdog.h"

using namespace std::chrono_literals;
using namespace lumiflux_test;

namespace {

constexpr auto kCaseLimit = 40s;

TEST(PlayerCallbacks, CallsFromCallbacksAreQueuedAndThePlayerGoesOn)
{
    const std::pair<const char*, std::function<void(Player&)>> calls[] = {
        {"selectTracks({})", [](Player& p) { p.selectTracks({}); }},
        {"seek", [](Player& p) { p.seek(500ms); }},
        {"pause", [](Player& p) { p.pause(); }}};
    // Outlives the player: a case that fails leaves its destructor to hang.
    Watchdog whole("the re-entry cases and the player's teardown", 4 * kCaseLimit);
    HookedListener listener;
    Player player;
    player.setListener(&listener);
    {
        // Made while the pipeline still prerolls and adds its pads (it once hung there one time in five).
        Watchdog watchdog("selectTracks from onMediaInfo during the preroll", kCaseLimit);
        listener.arm(OnMediaInfo, [&] { player.selectTracks({0, 2}); });
        player.play(mediaUri("media.mkv")), player.pause();
        ASSERT_TRUE(listener.waitForState(PlayerState::Playing));
        player.setAutoRepeat(true);
        ASSERT_TRUE(listener.waitFor([&] {
            const auto& s = listener.selections;
            return !s.empty() && std::find(s.back().begin(), s.back().end(), 2) != s.back().end();
        }));
    }
    for (Hook hook : {OnError, OnPosition, OnState}) {
        for (const auto& [callName, call] : calls) {
            const std::string name = std::string(callName) + " from " + kHookNames[hook];
            SCOPED_TRACE(name);
            Watchdog watchdog(name, kCaseLimit);
            // Playing again, whatever the case before left: positions move.
            const size_t positions = listener.snapshot(listener.positions).size();
            player.play();
            ASSERT_TRUE(listener.waitFor([&] { return listener.positions.size() > positions + 1; }));
            listener.arm(hook, [&player, &call = call] { call(player); });
            if (hook == OnError)
                player.selectTracks({}); // fails, on the player thread
            else if (hook == OnState)
                player.pause();
            ASSERT_TRUE(listener.waitForAction());
            EXPECT_TRUE(listener.drain(player));
        }
    }
    // Takes effect at once: the old listener hears nothing more.
    Watchdog watchdog("setListener from onError", kCaseLimit);
    RecordingListener next;
    listener.arm(OnError, [&] { player.setListener(&next); });
    player.selectTracks({});
    ASSERT_TRUE(listener.waitForAction());
    const size_t heard = listener.snapshot(listener.errors).size();
    EXPECT_TRUE(next.drain(player));
    EXPECT_EQ(listener.snapshot(listener.errors).size(), heard);
    player.setListener(nullptr);
}

TEST(PlayerCallbacks, APlayerDestroyedInsideItsCallbackLetsGoAtOnce)
{
    const std::string media = mediaUri("media.mkv");
    // Last, a pipeline error and an error the player thread reports itself.
    const std::pair<Hook, std::string> cases[] = {{OnState, media},
                                                  {OnPosition, media},
                                                  {OnMediaInfo, media},
                                                  {OnFrame, media},
                                                  {OnError, mediaUri("missing.mkv")},
                                                  {OnError, "relative/clip.mkv"}};
    for (const auto& [hook, uri] : cases) {
        const std::string name = std::string("destroyed from ") + kHookNames[hook] + " playing " + uri;
        SCOPED_TRACE(name);
        Watchdog watchdog(name, kCaseLimit);
        HookedListener listener;
        auto player = std::make_unique<Player>();
        std::mutex playerMutex;
        std::atomic<bool> destroyed{false};
        player->setListener(&listener), player->setVideoSink(&listener);
        listener.arm(hook, [&] {
            std::unique_lock<std::mutex> lock(playerMutex);
            std::unique_ptr<Player> last = std::move(player);
            lock.unlock(), last.reset(), destroyed = true;
        });
        std::unique_lock<std::mutex> lock(playerMutex);
        player->play(uri), player->pause(), lock.unlock();
        ASSERT_TRUE(listener.waitForAction());
        ASSERT_TRUE(destroyed.load());
        // Nothing may come after the destructor returned.
        const auto heard = [&] {
            std::lock_guard<std::mutex> lock(listener.mutex);
            return listener.states.size() + listener.errors.size() + listener.positions.size() + listener.frames;
        };
        const size_t calls = heard();
        std::this_thread::sleep_for(300ms);
        EXPECT_EQ(heard(), calls);
    }
    Watchdog watchdog("a new player after the destructions", kCaseLimit);
    ListenedPlayer session;
    EXPECT_TRUE(session.start(mediaUri("media.mkv")));
}

// The sink given up is not in a call once setVideoSink returns, and is never called again.
TEST(PlayerCallbacks, SetVideoSinkWaitsForTheFrameUnderWay)
{
    struct SlowSink : VideoSink {
        void onFrame(const VideoFrame&, bool) override
        {
            inCall = true;
            std::this_thread::sleep_for(300ms);
            ++calls, inCall = false;
        }
        std::atomic<bool> inCall{false};
        std::atomic<int> calls{0};
    };
    Watchdog watchdog("setVideoSink during a frame", kCaseLimit);
    SlowSink sink;
    ListenedPlayer session;
    session.player.setVideoSink(&sink), session.player.play(mediaUri("media.mkv")), session.player.pause();
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
