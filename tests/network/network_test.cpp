// The player against a real HTTP server on 127.0.0.1.

#include <filesystem>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "../player/recording_listener.h"
#include "http_test_server.h"

using namespace std::chrono_literals;
using namespace lumiflux_test;

namespace {

class Network : public ::testing::Test, protected ListenedPlayer {
protected:
    Network()
    {
        const std::string dir = buildDir() + "/network-media";
        for (const char* clip : {"/clip0.mkv", "/clip1.mkv", "/clip2.mkv", "/clip3.mkv"})
            server.serveFile(clip, dir + clip);
        server.serveFile("/bad.mkv", dir + "/clip0.mkv");
        server.serveDirectory("/hls/", dir + "/hls");
    }
    void expectEveryRequestHas(const std::string& path, const std::string& name, const std::string& value)
    {
        const auto requests = server.requestsFor(path);
        ASSERT_FALSE(requests.empty()) << path;
        for (const auto& request : requests)
            EXPECT_EQ(request.values(name), std::vector<std::string>{value}) << path << " " << name;
    }
    HttpTestServer server;
};

using PlayerHttpHeaders = Network;

TEST_F(PlayerHttpHeaders, OnEveryRequestOfAProgressiveDownloadAndAfterSetHttpHeaders)
{
    // Only the discoverer asks while the pipeline is in NULL.
    player.setUri(server.url("/clip3.mkv"), {{"User-Agent", "LumifluxTest/1.0"}, {"X-Session", "discover"}});
    ASSERT_TRUE(listener.waitFor([&] { return !listener.durations.empty(); }));
    expectEveryRequestHas("/clip3.mkv", "User-Agent", "LumifluxTest/1.0");
    expectEveryRequestHas("/clip3.mkv", "X-Session", "discover");
    EXPECT_EQ(player.getState(), PlayerState::Empty);
    EXPECT_GT(listener.snapshot(listener.durations).front(), 900ms);

    // The last of a name wins; "Close" turns keep-alive off (the element test has every rule).
    ASSERT_TRUE(playsToEnd(server.url("/clip1.mkv"), {{"User-Agent", "LumifluxTest/2.0"},
                                                      {"X-Token", "first"},
                                                      {"X-Token", "second"},
                                                      {"Accept-Encoding", "gzip"},
                                                      {"Connection", "Close"}}));
    EXPECT_GE(server.requestsFor("/clip1.mkv").size(), 2u);
    for (auto [name, value] :
         {std::pair{"User-Agent", "LumifluxTest/2.0"}, {"X-Token", "second"}, {"Connection", "Close"}})
        expectEveryRequestHas("/clip1.mkv", name, value);
    const auto gzip = server.requestsFor("/clip1.mkv")[0].values("Accept-Encoding");
    EXPECT_NE(std::find(gzip.begin(), gzip.end(), "gzip"), gzip.end());

    // A seek makes the source ask again, with the headers it has now.
    server.clearRequests();
    listener.clear();
    player.setHttpHeaders({{"X-Version", "2"}, {"User-Agent", "LumifluxTest/3.0"}});
    player.seek(500ms);
    player.play();
    ASSERT_TRUE(listener.waitFor([&] { return listener.sawAfter(PlayerState::Playing, PlayerState::EOS); }));
    ASSERT_TRUE(server.waitForRequests("/clip1.mkv", 1)) << "the seek made no new request";
    expectEveryRequestHas("/clip1.mkv", "X-Version", "2");
    expectEveryRequestHas("/clip1.mkv", "User-Agent", "LumifluxTest/3.0");
    EXPECT_TRUE(listener.snapshot(listener.errors).empty());
}

TEST_F(PlayerHttpHeaders, HlsPlaylistAndSegmentsCarryTheHeaders)
{
    ASSERT_TRUE(playsToEnd(server.url("/hls/playlist.m3u8"), {{"User-Agent", "LumifluxHls/1.0"}, {"X-Hls", "yes"}}));
    EXPECT_TRUE(listener.snapshot(listener.errors).empty());
    // The discoverer and the demuxer both read the playlist.
    EXPECT_GE(server.requestsFor("/hls/playlist.m3u8").size(), 2u);
    expectEveryRequestHas("/hls/playlist.m3u8", "User-Agent", "LumifluxHls/1.0");
    expectEveryRequestHas("/hls/playlist.m3u8", "X-Hls", "yes");
    // The playing demuxer's own client takes only the User-Agent; the discoverer's HTTP sources get every header.
    for (const char* segment : {"/hls/segment00000.ts", "/hls/segment00001.ts"})
        expectEveryRequestHas(segment, "User-Agent", "LumifluxHls/1.0");
    const auto first = server.requestsFor("/hls/segment00000.ts");
    EXPECT_TRUE(std::any_of(first.begin(), first.end(), [](const HttpRequest& r) {
        return r.values("X-Hls") == std::vector<std::string>{"yes"};
    })) << "the discoverer's segment request lacks the application's header";
}

// Each fault gives the error GStreamer 1.22 and libsoup 3 give, never a crash or a hang.
TEST_F(Network, FaultsGiveTheirErrorAndThePlayerRecovers)
{
    const std::string refused = "http://127.0.0.1:1"; // a port nothing listens on
    const struct {
        const char *what, *faulty; // requests for paths from `faulty` get `fault`
        HttpFault fault;
        std::string uri;
        PlayerError expected;
        const char* message; // part of the error's text
    } cases[] = {
        {"404", "/bad.mkv", HttpFault::NotFound, "/bad.mkv", PlayerError::NotFound, "Not Found"},
        {"500", "/bad.mkv", HttpFault::ServerError, "/bad.mkv", PlayerError::ReadFailed, "Internal Server Error"},
        // The source's failure reaches the bus after its streaming loop's generic error.
        {"refused", "", HttpFault::None, refused, PlayerError::StreamFailed, "Internal data stream error."},
        // The source resumes with a range request, which this fault does not honour.
        {"reset mid-body", "/bad.mkv", HttpFault::ResetMidBody, "/bad.mkv", PlayerError::SeekFailed,
         "Server does not support seeking."},
        {"redirect loop", "/bad.mkv", HttpFault::Redirect, "/bad.mkv", PlayerError::ReadFailed, ""},
        // The demuxer gives up with the code of a missing file.
        {"segments missing", "/hls/segment", HttpFault::NotFound, "/hls/playlist.m3u8", PlayerError::NotFound,
         "Couldn't download fragments"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        listener.clear();
        server.setFault(c.faulty, c.fault, c.faulty);
        player.play(c.uri[0] == '/' ? server.url(c.uri) : c.uri + "/clip0.mkv"), player.pause();
        ASSERT_TRUE(listener.waitFor([&] { return !listener.errors.empty(); }));
        const auto error = listener.snapshot(listener.errors).front();
        EXPECT_EQ(error.error, c.expected) << toString(error.error) << ": " << error.message;
        EXPECT_FALSE(error.message.empty());
        EXPECT_NE(error.message.find(c.message), std::string::npos) << error.message;
        server.clearFaults();
        EXPECT_TRUE(playsToEnd(server.url("/clip1.mkv"))) << "the player did not recover";
    }

    // stop() leaves a stalled server (both requests hang) long before any HTTP timeout.
    server.clearRequests();
    server.setFault("/bad.mkv", HttpFault::Stall);
    player.play(server.url("/bad.mkv")), player.pause();
    ASSERT_TRUE(server.waitForRequests("/bad.mkv", 2));
    player.stop();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(playsToEnd(server.url("/clip1.mkv")));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
    EXPECT_TRUE(listener.snapshot(listener.errors).empty());
}

// Blocks in the first state callback for a while, on whichever thread the player calls it.
struct BlockingListener : RecordingListener {
    void onStateChanged(PlayerState from, PlayerState to) override
    {
        if (!claimed.exchange(true))
            callbackThread = std::this_thread::get_id(), entered = true, std::this_thread::sleep_for(500ms),
            left = true;
        RecordingListener::onStateChanged(from, to);
    }
    std::atomic<bool> claimed{false}, entered{false}, left{false};
    std::thread::id callbackThread;
};

int threadsAtMost(int limit) // waits (10 s at most) for GStreamer's pooled threads to wind down
{
    for (int i = 0;; ++i) {
        const int count = std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
        if (count <= limit || i == 200)
            return count;
        std::this_thread::sleep_for(50ms);
    }
}

// Far below any HTTP timeout, with no thread left. On a stalled server the destructor waits once, briefly,
// for an answer on its way (cancelling a request while its answer is read crashes the HTTP library).
TEST_F(Network, PlayerDestructionWhileBusyIsPromptAndLeavesNoThread)
{
    // What GStreamer creates once per process (and keeps) is there before threads are counted.
    ASSERT_TRUE(playsToEnd(server.url("/clip0.mkv")));
    const struct {
        const char* what;
        std::chrono::milliseconds limit;
        const char* path;
        bool stall, pipeline; // without the pipeline only the discoverer asks
        size_t requests;      // waited for: the discoverer's, then the pipeline's
        bool seek, block;
    } cases[] = {{"during preroll", 3s, "/clip1.mkv", false, true, 2, false, false},
                 {"during a seek", 3s, "/clip2.mkv", false, true, 0, true, false},
                 {"while the discoverer waits on a stalled server", 1s, "/clip0.mkv", true, false, 1, false, false},
                 {"while both sources wait on a stalled server", 1s, "/clip0.mkv", true, true, 2, false, false},
                 {"while a listener callback runs", 3s, "/clip3.mkv", false, true, 0, false, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        server.clearRequests();
        const int baseline = threadsAtMost(1 << 20);
        BlockingListener blocking;
        blocking.claimed = !c.block;
        auto busy = std::make_unique<Player>();
        busy->setListener(&blocking);
        if (c.stall)
            server.setFault(c.path, HttpFault::Stall);
        if (c.pipeline)
            busy->play(server.url(c.path)), busy->pause();
        else
            busy->setUri(server.url(c.path));
        ASSERT_TRUE(server.waitForRequests(c.path, c.requests));
        if (c.seek) {
            ASSERT_TRUE(blocking.waitForState(PlayerState::Playing));
            busy->seek(500ms), busy->seek(200ms);
        }
        for (int i = 0; c.block && i < 20000 && !blocking.entered; ++i)
            std::this_thread::sleep_for(1ms);
        EXPECT_EQ(blocking.entered, c.block);
        const auto start = std::chrono::steady_clock::now();
        busy.reset();
        EXPECT_LT(std::chrono::steady_clock::now() - start, c.limit);
        EXPECT_EQ(blocking.left, blocking.entered) << "the callback was cut short";
        EXPECT_NE(blocking.callbackThread, std::this_thread::get_id());
        server.clearFaults();
        EXPECT_LE(threadsAtMost(baseline), baseline) << "threads left behind";
    }
}

} // namespace
