// The task queue: coalescing, ordering, and what destruction drops. The
// player thread is held inside a listener callback (the Init task reports
// the change to Empty from that thread) while the test queues tasks, so
// "before the thread runs" is a fact, not a race.

#include <chrono>
#include <future>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "recording_listener.h"
#include "syslog_capture.h"

using namespace std::chrono_literals;
using namespace lumiflux_test;

namespace {

class GateListener : public RecordingListener {
public:
    void onStateChanged(PlayerState from, PlayerState to) override
    {
        RecordingListener::onStateChanged(from, to);
        std::unique_lock<std::mutex> lock(gateMutex);
        if (to == PlayerState::Empty && armed) {
            armed = false;
            blocked = true;
            gate.notify_all();
            // Bounded, so that a failed assertion (which skips release())
            // shows as a failure, not as a player thread stuck for ever.
            gate.wait_for(lock, 2 * kTimeout, [&] { return released; });
        }
    }
    // Holds the player thread inside the Init task of a second setUri.
    bool hold(Player& player)
    {
        player.setUri(mediaUri("media.mkv"));
        player.pause();
        if (!waitForState(PlayerState::Paused))
            return false;
        setGate(true, false);
        player.setUri(mediaUri("media.mkv"));
        std::unique_lock<std::mutex> lock(gateMutex);
        return gate.wait_for(lock, kTimeout, [&] { return blocked; });
    }
    void release() { setGate(false, true); }

private:
    void setGate(bool arm, bool release)
    {
        std::lock_guard<std::mutex> lock(gateMutex);
        armed = arm;
        blocked = blocked && !arm;
        released = release;
        gate.notify_all();
    }
    std::mutex gateMutex;
    std::condition_variable gate;
    bool armed = false;
    bool blocked = false;
    bool released = false;
};

size_t countRecords(const std::string& needle)
{
    return syslogRecordsContaining(needle).size();
}

TEST(PlayerQueue, CoalescesMuteAndRateButNotSeeksAndDestructionDropsQueuedTasks)
{
    GateListener listener;
    auto player = std::make_unique<Player>();
    player->setListener(&listener);
    // Runs before the player's destructor joins its thread, however the test ends.
    std::shared_ptr<void> releaseOnExit(nullptr, [&](void*) { listener.release(); });
    ASSERT_TRUE(listener.hold(*player));
    clearSyslog();

    player->setMute(true);
    player->setMute(false);
    player->seek(1s);
    player->seek(2s);
    player->setPlaybackRate(1.0); // the current rate: nothing to do
    player->setPlaybackRate(0.5);
    player->setPlaybackRate(2.0);
    player->selectTracks({}); // marks the end of this batch
    listener.release();
    ASSERT_TRUE(listener.waitForErrorText("Trying to select 0 streams"));

    EXPECT_EQ(countRecords("addTask:"), 7u) << "every request is logged, dropped or not";
    EXPECT_EQ(countRecords("BEFORE task: ApplyMute\n"), 1u);
    EXPECT_EQ(countRecords("AFTER task: ApplyMute\n"), 1u);
    EXPECT_EQ(countRecords("BEFORE task: Seek\n"), 2u);
    EXPECT_EQ(countRecords("BEFORE task: ApplyPlaybackRate\n"), 1u);
    // In queue order, each task bracketed by its BEFORE and AFTER lines.
    std::vector<std::string> order;
    for (const auto& record : syslogRecordsContaining("BEFORE task: "))
        order.push_back(record.text.substr(record.text.find("BEFORE task: ") + 13));
    EXPECT_EQ(order,
              (std::vector<std::string>{"ApplyMute\n", "Seek\n", "Seek\n", "ApplyPlaybackRate\n", "SelectTracks\n"}));
    auto lines = syslogRecordsContaining("[lumiflux-player] ");
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front().text.rfind("0[lumiflux-player] addTask:", 0), 0u) << lines.front().text;

    // Held again, then destroyed with tasks queued: none of them runs.
    ASSERT_TRUE(listener.hold(*player));
    const size_t errors = listener.snapshot(listener.errors).size();
    clearSyslog();
    player->play();
    player->seek(1s);
    player->setUri(mediaUri("missing.mkv"));
    player->pause();
    auto destroyed = std::async(std::launch::async, [&] { player.reset(); });
    // Ordering only, not an assertion: the destructor posts its quit request
    // before the thread is let go, and that request outranks queued tasks.
    std::this_thread::sleep_for(300ms);
    listener.release();
    destroyed.get();

    EXPECT_EQ(countRecords("BEFORE task: "), 0u);
    EXPECT_EQ(listener.snapshot(listener.errors).size(), errors);
    EXPECT_EQ(listener.stateSequence().back(), PlayerState::Empty);
}

} // namespace
