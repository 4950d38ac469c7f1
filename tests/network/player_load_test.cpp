// Many players and many threads: 16 players playing at once, 200 cheap
// create/play/pause/destroy cycles (leaks show under LeakSanitizer, races
// under ThreadSanitizer), and 8 application threads calling one player, each
// thread's calls run in the order it made them.

#include <algorithm>
#include <map>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "network_fixture.h"

using namespace std::chrono_literals;
using namespace lumiflux_test;

namespace {

class PlayerLoad : public ::testing::Test {
protected:
    void SetUp() override { serveNetworkMedia(server); }
    HttpTestServer server;
};

TEST_F(PlayerLoad, SixteenPlayersPlayAtOnce)
{
    std::vector<std::unique_ptr<ListenedPlayer>> sessions(16);
    for (auto& session : sessions)
        session = std::make_unique<ListenedPlayer>();
    // Four different clips, and the HLS stream for every fourth player.
    for (size_t i = 0; i < sessions.size(); ++i) {
        sessions[i]->player.play(
            server.url(i % 4 == 3 ? "/hls/playlist.m3u8" : "/clip" + std::to_string(i % 4) + ".mkv"));
        sessions[i]->player.pause();
    }
    for (size_t i = 0; i < sessions.size(); ++i) {
        auto& listener = sessions[i]->listener;
        EXPECT_TRUE(listener.waitForState(PlayerState::EOS, 120s)) << "player " << i;
        const auto errors = listener.snapshot(listener.errors);
        EXPECT_TRUE(errors.empty()) << "player " << i << ": " << (errors.empty() ? "" : errors[0].message);
        EXPECT_FALSE(listener.snapshot(listener.mediaInfos).empty()) << "player " << i;
    }
}

TEST_F(PlayerLoad, TwoHundredCreatePlayPauseDestroyCycles)
{
    // Each player is destroyed as soon as its tasks are queued, wherever
    // they have got to: some never start, some are building the pipeline,
    // some are prerolling.
    for (int cycle = 0; cycle < 200; ++cycle) {
        Player player;
        player.play(server.url("/clip" + std::to_string(cycle % 4) + ".mkv"));
        player.pause();
    }
    // The player still works afterwards.
    EXPECT_TRUE(ListenedPlayer().playsToEnd(server.url("/clip0.mkv")));
}

// Destroyed just as the server answers its first request: the HTTP source
// must not be cancelled while it reads the answer (it used to crash the
// process in the HTTP library about one run in two).
TEST_F(PlayerLoad, DestroyedWhileTheServerAnswers)
{
    for (int cycle = 0; cycle < 20; ++cycle) {
        const std::string path = "/clip" + std::to_string(cycle % 4) + ".mkv";
        const size_t before = server.requestsFor(path).size();
        Player player;
        player.play(server.url(path));
        player.pause();
        ASSERT_TRUE(server.waitForRequests(path, before + 1, 20000)) << "cycle " << cycle;
    }
    EXPECT_TRUE(ListenedPlayer().playsToEnd(server.url("/clip0.mkv")));
}

TEST_F(PlayerLoad, EightApplicationThreadsKeepTheirOrder)
{
    ListenedPlayer session;
    RecordingListener& listener = session.listener;
    Player& player = session.player;
    player.setUri(server.url("/clip0.mkv"));
    player.pause();
    ASSERT_TRUE(listener.waitForState(PlayerState::Paused));
    ASSERT_TRUE(listener.waitFor([&] { return !listener.mediaInfos.empty(); }));

    // The clip has one stream, so every identifier from 1 is unknown and its
    // selection fails with "Unknown track id: " cut by the identifier, which
    // tells the identifier back: thread t selects {2 + t, 10 + i} for its
    // i-th call, and the failures of one task arrive together.
    constexpr int kThreads = 8;
    constexpr int kCalls = 8; // as many as `inOrder` below lists
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&player, t] {
            for (int i = 0; i < kCalls; ++i) {
                player.selectTracks({2 + t, 10 + i});
                player.setMute(i % 2 == 0);
                player.setPlaybackRate(i % 2 ? 1.0 : 1.5);
                player.seek(std::chrono::milliseconds(100 * i));
                player.setHttpHeaders({{"X-Thread", std::to_string(t)}});
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    // Queue order: everything above has run once this last failure arrives.
    player.selectTracks({});
    // Only selection failures are counted: a seek may fail as well on a slow
    // machine, and every call ends with a "select 0 streams" failure too.
    ASSERT_TRUE(listener.waitFor([&] {
        const auto selectionFailures =
            std::count_if(listener.errors.begin(), listener.errors.end(),
                          [](const RecordedError& e) { return e.error == PlayerError::SelectTracksFailed; });
        return selectionFailures >= kThreads * kCalls * 3 + 1;
    }));

    std::vector<int> identifiers;
    for (const auto& error : listener.snapshot(listener.errors)) {
        if (error.error != PlayerError::SelectTracksFailed || error.message == "Trying to select 0 streams")
            continue;
        identifiers.push_back(18 - static_cast<int>(error.message.size()));
    }
    ASSERT_EQ(identifiers.size(), static_cast<size_t>(kThreads * kCalls * 2));
    std::map<int, std::vector<int>> callsByThread;
    for (size_t k = 0; k + 1 < identifiers.size(); k += 2) {
        const int thread = identifiers[k] - 2;
        ASSERT_TRUE(thread >= 0 && thread < kThreads) << identifiers[k];
        callsByThread[thread].push_back(identifiers[k + 1] - 10);
    }
    const std::vector<int> inOrder = {0, 1, 2, 3, 4, 5, 6, 7};
    for (int t = 0; t < kThreads; ++t)
        EXPECT_EQ(callsByThread[t], inOrder) << "thread " << t;
}

} // namespace
