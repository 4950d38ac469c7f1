// Destroying a player while it is busy returns promptly and leaves no thread
// of it behind: during preroll, during a seek, while the discoverer waits on
// a server that never answers, and while a listener callback runs on another
// thread.

#include <atomic>
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

class PlayerDestruction : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        // One full playback first, so that what GStreamer creates once per
        // process (and keeps) is there before the threads are counted.
        HttpTestServer server;
        serveNetworkMedia(server);
        RecordingListener listener;
        Player player;
        player.setListener(&listener);
        playsToEnd(player, listener, server.url("/clip0.mkv"));
        player.setListener(nullptr);
    }

    void SetUp() override
    {
        serveNetworkMedia(server);
        baseline = threadCount();
        player = std::make_unique<Player>();
        player->setListener(&listener);
    }

    // Destroys the player, checks it was prompt and that the thread count
    // returns to what it was before the player existed.
    void destroyAndCheck()
    {
        const auto start = std::chrono::steady_clock::now();
        player.reset();
        const auto took = std::chrono::steady_clock::now() - start;
        EXPECT_LT(took, kPrompt) << "destruction took "
                                 << std::chrono::duration_cast<std::chrono::milliseconds>(took).count() << " ms";
        server.clearFaults();
        EXPECT_LE(waitForThreadCount(baseline), baseline) << "threads left behind";
    }

    HttpTestServer server;
    RecordingListener listener;
    std::unique_ptr<Player> player;
    int baseline = 0;
};

TEST_F(PlayerDestruction, DuringPreroll)
{
    player->play(server.url("/clip1.mkv"));
    player->pause();
    // The pipeline's own request is under way (the discoverer made the other).
    ASSERT_TRUE(server.waitForRequests("/clip1.mkv", 2, 20000));
    destroyAndCheck();
}

TEST_F(PlayerDestruction, DuringASeek)
{
    player->play(server.url("/clip2.mkv"));
    player->pause();
    ASSERT_TRUE(listener.waitForState(PlayerState::Playing));
    player->seek(500ms);
    player->seek(200ms);
    destroyAndCheck();
}

TEST_F(PlayerDestruction, WhileTheDiscovererWaitsOnAStalledServer)
{
    server.setFault("/clip0.mkv", HttpFault::Stall);
    // Only the discoverer asks: the pipeline stays in NULL.
    player->setUri(server.url("/clip0.mkv"));
    ASSERT_TRUE(server.waitForRequests("/clip0.mkv", 1, 20000));
    destroyAndCheck();
}

TEST_F(PlayerDestruction, WhileAPipelineSourceWaitsOnAStalledServer)
{
    server.setFault("/clip0.mkv", HttpFault::Stall);
    player->play(server.url("/clip0.mkv"));
    player->pause();
    ASSERT_TRUE(server.waitForRequests("/clip0.mkv", 2, 20000));
    destroyAndCheck();
}

// Blocks in the first state callback until released, on whichever thread
// the player calls it.
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
    std::atomic<bool> claimed{false};
    std::atomic<bool> entered{false};
    std::atomic<bool> left{false};
    std::thread::id callbackThread;
};

TEST_F(PlayerDestruction, WhileAListenerCallbackRuns)
{
    BlockingListener blocking;
    player->setListener(&blocking);
    player->play(server.url("/clip3.mkv"));
    player->pause();
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (!blocking.entered && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(1ms);
    ASSERT_TRUE(blocking.entered);
    EXPECT_NE(blocking.callbackThread, std::this_thread::get_id());
    destroyAndCheck();
    // The callback was allowed to finish before the player went away.
    EXPECT_TRUE(blocking.left);
}

} // namespace
