// The player against a real HTTP server on 127.0.0.1: headers on the wire,
// faulty servers, many players and threads, destruction while busy.

#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <iostream>
#include <map>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "../player/recording_listener.h"
#include "http_test_server.h"
#include "syslog_capture.h"

using namespace std::chrono_literals;
using namespace lumiflux_test;

namespace {

class Network : public ::testing::Test, protected ListenedPlayer {
protected:
    // The network media fixture: clip0..3.mkv (1 s each), and an HLS stream.
    Network()
    {
        const std::string dir = buildDir() + "/network-media";
        for (const char* clip : {"/clip0.mkv", "/clip1.mkv", "/clip2.mkv", "/clip3.mkv"})
            server.serveFile(clip, dir + clip);
        server.serveFile("/bad.mkv", dir + "/clip0.mkv");
        server.serveDirectory("/hls/", dir + "/hls");
    }
    // Every request for `path` carries `name` with exactly `value`.
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
    // With the pipeline in NULL the only request is the discoverer's: it tells the duration.
    player.setUri(server.url("/clip3.mkv"), {{"User-Agent", "LumifluxTest/1.0"}, {"X-Session", "discover"}});
    ASSERT_TRUE(listener.waitFor([&] { return !listener.durations.empty(); }));
    expectEveryRequestHas("/clip3.mkv", "User-Agent", "LumifluxTest/1.0");
    expectEveryRequestHas("/clip3.mkv", "X-Session", "discover");
    EXPECT_EQ(player.getState(), PlayerState::Empty);
    EXPECT_GT(listener.snapshot(listener.durations).front(), 900ms);

    // A later header of the same name wins; gzip and "Close" replace the
    // client's own; "close" and "identity" turn keep-alive and compression off.
    const struct {
        const char* path;
        HttpHeaders headers;
        std::vector<std::pair<std::string, std::string>> sent;
    } cases[] = {{"/clip1.mkv",
                  {{"User-Agent", "LumifluxTest/2.0"},
                   {"X-Token", "first"},
                   {"X-Token", "second"},
                   {"Accept-Encoding", "gzip"},
                   {"Connection", "Close"}},
                  {{"User-Agent", "LumifluxTest/2.0"}, {"X-Token", "second"}, {"Connection", "Close"}}},
                 {"/clip0.mkv",
                  {{"Connection", "close"}, {"Accept-Encoding", "identity"}},
                  {{"Connection", "close"}, {"Accept-Encoding", "identity"}}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        ASSERT_TRUE(playsToEnd(server.url(c.path), c.headers));
        EXPECT_GE(server.requestsFor(c.path).size(), 2u);
        for (const auto& [name, value] : c.sent)
            expectEveryRequestHas(c.path, name, value);
    }
    const auto gzip = server.requestsFor("/clip1.mkv")[0].values("Accept-Encoding");
    EXPECT_NE(std::find(gzip.begin(), gzip.end(), "gzip"), gzip.end());

    // A seek makes the source ask again, with the headers it has now.
    server.clearRequests();
    listener.clear();
    player.setHttpHeaders({{"X-Version", "2"}, {"User-Agent", "LumifluxTest/3.0"}});
    player.seek(500ms);
    player.play();
    ASSERT_TRUE(listener.waitFor([&] { return listener.sawAfter(PlayerState::Playing, PlayerState::EOS); }));
    ASSERT_TRUE(server.waitForRequests("/clip0.mkv", 1)) << "the seek made no new request";
    expectEveryRequestHas("/clip0.mkv", "X-Version", "2");
    expectEveryRequestHas("/clip0.mkv", "User-Agent", "LumifluxTest/3.0");
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
    // The playing demuxer's own client takes over only the User-Agent; the
    // discoverer's demuxer fetches through HTTP sources, which get every header.
    for (const char* segment : {"/hls/segment00000.ts", "/hls/segment00001.ts"})
        expectEveryRequestHas(segment, "User-Agent", "LumifluxHls/1.0");
    const auto first = server.requestsFor("/hls/segment00000.ts");
    EXPECT_TRUE(std::any_of(first.begin(), first.end(), [](const HttpRequest& r) {
        return r.header("X-Hls") == "yes";
    })) << "the discoverer's segment request lacks the application's header";
}

// One process per value of LUMIFLUX_HTTP_LOG_LEVEL; LUMIFLUX_TEST_EXPECT_HTTP_LOG_LEVEL says what to expect.
TEST_F(Network, HttpLogLevelFromTheEnvironmentIsSetOrRefused)
{
    const char* configured = std::getenv("LUMIFLUX_HTTP_LOG_LEVEL");
    const char* expected = std::getenv("LUMIFLUX_TEST_EXPECT_HTTP_LOG_LEVEL");
    ASSERT_TRUE(configured && expected);
    const bool invalid = std::string(expected) == "invalid";
    ASSERT_TRUE(playsToEnd(server.url("/clip0.mkv")));
    const std::string set = "setting http-log-level to ", refused = "invalid http-log-level value ";
    EXPECT_TRUE(syslogRecordsContaining(invalid ? set : refused).empty());
    // The discoverer's source and the pipeline's each set or refuse it.
    const auto records = syslogRecordsContaining(invalid ? refused : set);
    ASSERT_GE(records.size(), 2u);
    for (const auto& record : records) {
        EXPECT_NE(record.text.find(invalid ? refused + configured : set + expected), std::string::npos) << record.text;
        EXPECT_TRUE(!invalid || record.text[0] == '2') << record.text;
    }
}

// Each fault gives the error GStreamer 1.22 and libsoup 3 give, never a crash or a hang.
TEST_F(Network, FaultsGiveTheirErrorAndThePlayerRecovers)
{
    // A port on 127.0.0.1 that nothing listens on: bound, never listened to.
    const int closed = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(closed, reinterpret_cast<sockaddr*>(&address), length);
    getsockname(closed, reinterpret_cast<sockaddr*>(&address), &length);
    const std::string refused = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
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
        player.play(c.uri[0] == '/' ? server.url(c.uri) : c.uri + "/clip0.mkv");
        player.pause();
        ASSERT_TRUE(listener.waitFor([&] { return !listener.errors.empty(); }));
        const auto error = listener.snapshot(listener.errors).front();
        EXPECT_EQ(error.error, c.expected) << toString(error.error) << ": " << error.message;
        EXPECT_FALSE(error.message.empty());
        EXPECT_NE(error.message.find(c.message), std::string::npos) << error.message;
        server.clearFaults();
        EXPECT_TRUE(playsToEnd(server.url("/clip1.mkv"))) << "the player did not recover";
    }
    close(closed);

    // stop() leaves a stalled server (both requests hang) long before any HTTP timeout.
    server.clearRequests();
    server.setFault("/bad.mkv", HttpFault::Stall);
    player.play(server.url("/bad.mkv"));
    player.pause();
    ASSERT_TRUE(server.waitForRequests("/bad.mkv", 2));
    player.stop();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(playsToEnd(server.url("/clip1.mkv")));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
    EXPECT_TRUE(listener.snapshot(listener.errors).empty());
}

using PlayerLoad = Network;

TEST_F(PlayerLoad, SixteenPlayersPlayAtOnce)
{
    std::vector<std::unique_ptr<ListenedPlayer>> sessions(16);
    // Four different clips, and the HLS stream for the last player (its
    // fragment downloads fail now and then when the machine is overloaded).
    for (size_t i = 0; i < sessions.size(); ++i) {
        sessions[i] = std::make_unique<ListenedPlayer>();
        sessions[i]->player.play(server.url(i == 15 ? "/hls/playlist.m3u8" : "/clip" + std::to_string(i % 4) + ".mkv"));
        sessions[i]->player.pause();
    }
    for (size_t i = 0; i < sessions.size(); ++i) {
        auto& heard = sessions[i]->listener;
        EXPECT_TRUE(heard.waitForState(PlayerState::EOS, 120s)) << "player " << i;
        const auto errors = heard.snapshot(heard.errors);
        EXPECT_TRUE(errors.empty()) << "player " << i << ": " << (errors.empty() ? "" : errors[0].message);
    }
}

// Destroyed wherever they have got to; every tenth as the server answers,
// while the HTTP source reads the answer (that used to crash the HTTP library).
TEST_F(PlayerLoad, TwoHundredCreatePlayPauseDestroyCycles)
{
    for (int cycle = 0; cycle < 200; ++cycle) {
        const std::string path = "/clip" + std::to_string(cycle % 4) + ".mkv";
        const size_t before = server.requestsFor(path).size();
        Player brief;
        brief.play(server.url(path));
        brief.pause();
        EXPECT_TRUE(cycle % 10 || server.waitForRequests(path, before + 1)) << "cycle " << cycle;
    }
    EXPECT_TRUE(playsToEnd(server.url("/clip0.mkv")));
}

TEST_F(PlayerLoad, EightApplicationThreadsKeepTheirOrder)
{
    player.setUri(server.url("/clip0.mkv"));
    player.pause();
    ASSERT_TRUE(listener.waitForState(PlayerState::Paused));
    ASSERT_TRUE(listener.waitFor([&] { return !listener.mediaInfos.empty(); }));
    // One stream: "Unknown track id: " cut by the identifier tells it back.
    // Thread t selects {2 + t, 10 + i} in its i-th call.
    constexpr int kThreads = 8, kCalls = 8;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([this, t] {
            for (int i = 0; i < kCalls; ++i) {
                player.selectTracks({2 + t, 10 + i});
                player.setMute(i % 2 == 0);
                player.setPlaybackRate(i % 2 ? 1.0 : 1.5);
                player.seek(std::chrono::milliseconds(100 * i));
                player.setHttpHeaders({{"X-Thread", std::to_string(t)}});
            }
        });
    for (auto& thread : threads)
        thread.join();
    // In queue order: all of the above has run once this last failure arrives.
    player.selectTracks({});
    ASSERT_TRUE(listener.waitFor([&] {
        return std::count_if(listener.errors.begin(), listener.errors.end(), [](const RecordedError& e) {
                   return e.error == PlayerError::SelectTracksFailed;
               }) > kThreads * kCalls * 3;
    }));
    std::map<int, std::vector<int>> callsByThread;
    int thread = -1;
    for (const auto& error : listener.snapshot(listener.errors)) {
        // A seek may fail as well on a slow machine.
        if (error.error != PlayerError::SelectTracksFailed || error.message == "Trying to select 0 streams")
            continue;
        const int id = 18 - static_cast<int>(error.message.size());
        if (thread < 0)
            thread = id - 2;
        else
            callsByThread[std::exchange(thread, -1)].push_back(id - 10);
    }
    for (int t = 0; t < kThreads; ++t)
        EXPECT_EQ(callsByThread[t], (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7})) << "thread " << t;
}

// Blocks in the first state callback for a while, on whichever thread the player calls it.
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

int threadsAtMost(int limit) // waits (10 s at most) for GStreamer's pooled threads to wind down
{
    for (int i = 0;; ++i) {
        int count = 0;
        DIR* dir = opendir("/proc/self/task");
        while (const dirent* entry = readdir(dir))
            count += entry->d_name[0] != '.';
        closedir(dir);
        if (count <= limit || i == 200)
            return count;
        std::this_thread::sleep_for(50ms);
    }
}

// Far below the discoverer's and any HTTP timeout, and with no thread left.
// On a stalled server the destructor waits once, briefly, for an answer on
// its way (cancelling a request while its answer is read crashes the HTTP library).
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
        const auto took =
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
        std::cout << "~Player " << c.what << ": " << took.count() << " ms" << std::endl;
        EXPECT_LT(took, c.limit);
        EXPECT_EQ(blocking.left, blocking.entered) << "the callback was cut short";
        EXPECT_NE(blocking.callbackThread, std::this_thread::get_id());
        server.clearFaults();
        EXPECT_LE(threadsAtMost(baseline), baseline) << "threads left behind";
    }
}

} // namespace
