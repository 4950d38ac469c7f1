// Destroying a player while it is busy returns promptly and leaves no thread
// of it behind: during preroll, during a seek, while the discoverer or the
// pipeline's source waits on a server that never answers, and while a
// listener callback runs on another thread.

#include <atomic>
#include <functional>
#include <iostream>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "network_fixture.h"

using namespace std::chrono_literals;
using namespace lumiflux_test;

namespace {

// Far below the discoverer's 5 s timeout and any HTTP timeout: a destructor
// that waits for either of them fails.
constexpr auto kPrompt = 3s;

// Blocks in the first state callback for a while, on whichever thread the
// player calls it.
class BlockingListener : public RecordingListener {
public:
    void onStateChanged(PlayerState from, PlayerState to) override
    {
        if (!claimed.exchange(true)) {
            callbackThread = std::this_thread::get_id();
            entered = true;
            std::this_thread::sleep_for(500ms);
            left = true;
        }
        RecordingListener::onStateChanged(from, to);
    }
    std::atomic<bool> claimed{false}, entered{false}, left{false};
    std::thread::id callbackThread;
};

TEST(PlayerDestruction, WhileBusyIsPromptAndLeavesNoThread)
{
    HttpTestServer server;
    serveNetworkMedia(server);
    // One full playback first, so that what GStreamer creates once per
    // process (and keeps) is there before the threads are counted.
    ASSERT_TRUE(ListenedPlayer().playsToEnd(server.url("/clip0.mkv")));

    const struct {
        const char* what;
        std::function<void(Player&, BlockingListener&)> busy;
    } cases[] = {
        {"during preroll",
         [&](Player& player, BlockingListener&) {
             player.play(server.url("/clip1.mkv"));
             player.pause();
             // The pipeline's own request is under way (the discoverer made the other).
             ASSERT_TRUE(server.waitForRequests("/clip1.mkv", 2, 20000));
         }},
        {"during a seek",
         [&](Player& player, BlockingListener& listener) {
             player.play(server.url("/clip2.mkv"));
             player.pause();
             ASSERT_TRUE(listener.waitForState(PlayerState::Playing));
             player.seek(500ms);
             player.seek(200ms);
         }},
        {"while the discoverer waits on a stalled server",
         [&](Player& player, BlockingListener&) {
             server.setFault("/clip0.mkv", HttpFault::Stall);
             // Only the discoverer asks: the pipeline stays in NULL.
             player.setUri(server.url("/clip0.mkv"));
             ASSERT_TRUE(server.waitForRequests("/clip0.mkv", 1, 20000));
         }},
        {"while the pipeline's source waits on a stalled server",
         [&](Player& player, BlockingListener&) {
             server.setFault("/clip0.mkv", HttpFault::Stall);
             player.play(server.url("/clip0.mkv"));
             player.pause();
             ASSERT_TRUE(server.waitForRequests("/clip0.mkv", 2, 20000));
         }},
        {"while a listener callback runs",
         [&](Player& player, BlockingListener& listener) {
             player.play(server.url("/clip3.mkv"));
             player.pause();
             const auto deadline = std::chrono::steady_clock::now() + 20s;
             while (!listener.entered && std::chrono::steady_clock::now() < deadline)
                 std::this_thread::sleep_for(1ms);
             ASSERT_TRUE(listener.entered);
             EXPECT_NE(listener.callbackThread, std::this_thread::get_id());
         }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        server.clearRequests();
        const int baseline = threadCount();
        BlockingListener listener;
        // Only the last case lets its listener block.
        listener.claimed = &c != &cases[std::size(cases) - 1];
        auto player = std::make_unique<Player>();
        player->setListener(&listener);
        c.busy(*player, listener);
        const auto start = std::chrono::steady_clock::now();
        player.reset();
        const auto took = std::chrono::steady_clock::now() - start;
        EXPECT_LT(took, kPrompt) << "destruction took "
                                 << std::chrono::duration_cast<std::chrono::milliseconds>(took).count() << " ms";
        // The callback was allowed to finish before the player went away.
        EXPECT_EQ(listener.left, listener.entered);
        server.clearFaults();
        EXPECT_LE(waitForThreadCount(baseline), baseline) << "threads left behind";
    }
}

// With a discovery under way against a server that never answers, the
// destructor waits once, briefly, for an answer that may be on its way (a
// request cancelled while its answer is read crashes the HTTP library), then
// ends the discovery and returns: within a second, whether or not the
// pipeline's own request waits on the same server.
TEST(PlayerDestruction, WithADiscoveryOnAStalledServerWithinASecond)
{
    HttpTestServer server;
    serveNetworkMedia(server);
    server.setFault("/clip0.mkv", HttpFault::Stall);
    const struct {
        const char* what;
        bool pipelineStarted;
        size_t requests;
    } cases[] = {{"the discoverer's request alone", false, 1}, {"and the pipeline's request", true, 2}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        server.clearRequests();
        auto player = std::make_unique<Player>();
        player->setUri(server.url("/clip0.mkv"));
        if (c.pipelineStarted)
            player->pause();
        ASSERT_TRUE(server.waitForRequests("/clip0.mkv", c.requests, 20000));
        const auto start = std::chrono::steady_clock::now();
        player.reset();
        const auto took =
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
        std::cout << "~Player with " << c.what << " stalled: " << took.count() << " ms" << std::endl;
        EXPECT_LT(took, 1s);
    }
}

} // namespace
