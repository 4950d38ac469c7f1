// The application's HTTP headers reach our test server on every request the
// player makes for a medium: the discoverer's, the progressive download, an
// HLS playlist and its segments, and those made after setHttpHeaders; and the
// HTTP log level taken from the environment.

#include <algorithm>
#include <cstdlib>
#include <string>

#include <glib.h>
#include <gtest/gtest.h>

#include "network_fixture.h"
#include "syslog_capture.h"

using namespace std::chrono_literals;
using namespace lumiflux_test;

namespace {

// Every value a request carried under `name` (case-insensitive), in order.
std::vector<std::string> valuesOf(const HttpRequest& request, const std::string& name)
{
    std::vector<std::string> values;
    for (const auto& [key, value] : request.headers)
        if (g_ascii_strcasecmp(key.c_str(), name.c_str()) == 0)
            values.push_back(value);
    return values;
}

std::string describe(const HttpRequest& request)
{
    std::string text;
    for (const auto& [key, value] : request.headers)
        text += key + ": " + value + "\n";
    return text;
}

using Values = std::vector<std::string>;

class PlayerHttpHeaders : public ::testing::Test {
protected:
    void SetUp() override
    {
        serveNetworkMedia(server);
        player.setListener(&listener);
    }
    void TearDown() override { player.setListener(nullptr); }

    // Every request for `path` carries `name` with exactly `value`.
    void expectEveryRequestHas(const std::string& path, const std::string& name, const std::string& value)
    {
        const auto requests = server.requestsFor(path);
        ASSERT_FALSE(requests.empty()) << path;
        for (const auto& request : requests)
            EXPECT_EQ(request.header(name), value) << path << " " << name;
    }

    HttpTestServer server;
    RecordingListener listener;
    Player player;
};

TEST_F(PlayerHttpHeaders, DiscovererRequestCarriesTheHeadersAndReportsTheDuration)
{
    // Without a pause or play the pipeline stays in NULL: the only request is
    // the discoverer's.
    player.setUri(server.url("/clip0.mkv"), {{"User-Agent", "LumifluxTest/1.0"}, {"X-Session", "discover"}});
    ASSERT_TRUE(server.waitForRequests("/clip0.mkv", 1, 20000));
    ASSERT_TRUE(listener.waitFor([&] { return !listener.durations.empty(); }));
    const auto requests = server.requestsFor("/clip0.mkv");
    ASSERT_GE(requests.size(), 1u);
    for (const auto& request : requests) {
        EXPECT_EQ(request.header("User-Agent"), "LumifluxTest/1.0");
        EXPECT_EQ(request.header("X-Session"), "discover");
    }
    EXPECT_EQ(player.getState(), PlayerState::Empty);
    EXPECT_GT(listener.snapshot(listener.durations).front(), 900ms);
}

TEST_F(PlayerHttpHeaders, ProgressiveDownloadCarriesHeadersLaterOfTheSameNameWinning)
{
    const HttpHeaders headers{{"User-Agent", "LumifluxTest/2.0"},
                              {"X-Token", "first"},
                              {"X-Token", "second"},
                              {"Accept-Encoding", "gzip"},
                              {"Connection", "keep-alive"}};
    player.play(server.url("/clip1.mkv"), headers);
    player.pause();
    ASSERT_TRUE(listener.waitForState(PlayerState::EOS));
    // The discoverer's request and the pipeline's.
    EXPECT_GE(server.requestsFor("/clip1.mkv").size(), 2u);
    expectEveryRequestHas("/clip1.mkv", "User-Agent", "LumifluxTest/2.0");
    expectEveryRequestHas("/clip1.mkv", "X-Token", "second");
    // Not turned into properties: sent as they are, beside what the HTTP
    // source sends of its own.
    for (const auto& request : server.requestsFor("/clip1.mkv")) {
        const auto encodings = valuesOf(request, "Accept-Encoding");
        EXPECT_NE(std::find(encodings.begin(), encodings.end(), "gzip"), encodings.end()) << describe(request);
        const auto connection = valuesOf(request, "Connection");
        EXPECT_NE(std::find(connection.begin(), connection.end(), "keep-alive"), connection.end()) << describe(request);
    }
    EXPECT_TRUE(listener.snapshot(listener.errors).empty());
}

TEST_F(PlayerHttpHeaders, ConnectionAndAcceptEncodingRules)
{
    // "close" (exactly) turns keep-alive off instead of being sent as given;
    // "identity" turns compression off instead.
    player.play(server.url("/clip0.mkv"), {{"Connection", "close"}, {"Accept-Encoding", "identity"}});
    player.pause();
    ASSERT_TRUE(listener.waitForState(PlayerState::EOS));
    const auto closed = server.requestsFor("/clip0.mkv");
    ASSERT_GE(closed.size(), 2u);
    for (const auto& request : closed) {
        // Keep-alive off: the HTTP client itself says "close", once.
        EXPECT_EQ(valuesOf(request, "Connection"), Values{"close"}) << describe(request);
        // Compression off: only identity is accepted, and the header is not
        // sent a second time as an extra header.
        EXPECT_EQ(valuesOf(request, "Accept-Encoding"), Values{"identity"}) << describe(request);
    }

    // "Close" is not the special value: it is sent as an extra header.
    server.clearRequests();
    player.play(server.url("/clip2.mkv"), {{"Connection", "Close"}});
    player.pause();
    ASSERT_TRUE(listener.waitFor([&] {
        return std::count_if(listener.states.begin(), listener.states.end(),
                             [](const auto& change) { return change.second == PlayerState::EOS; }) >= 2;
    }));
    const auto extra = server.requestsFor("/clip2.mkv");
    ASSERT_GE(extra.size(), 2u);
    for (const auto& request : extra)
        EXPECT_EQ(valuesOf(request, "Connection"), Values{"Close"}) << describe(request);
}

TEST_F(PlayerHttpHeaders, HeadersWithLineBreaksOrNulNeverArrive)
{
    const HttpHeaders headers{{"X-Split", "a\r\nX-Injected: yes"},
                              {"X-Line\nX-Injected", "yes"},
                              {"X-Nul", std::string("a\0b", 3)},
                              {"User-Agent", "Evil\r\nX-Injected: yes"},
                              {"X-Good", "kept"}};
    player.play(server.url("/clip3.mkv"), headers);
    player.pause();
    ASSERT_TRUE(listener.waitForState(PlayerState::EOS));
    const auto requests = server.requestsFor("/clip3.mkv");
    ASSERT_GE(requests.size(), 2u);
    for (const auto& request : requests) {
        EXPECT_FALSE(request.has("X-Injected"));
        EXPECT_FALSE(request.has("X-Split"));
        EXPECT_FALSE(request.has("X-Nul"));
        EXPECT_EQ(request.header("User-Agent").find("Evil"), std::string::npos);
        EXPECT_EQ(request.header("X-Good"), "kept");
    }
}

TEST_F(PlayerHttpHeaders, HlsPlaylistCarriesTheHeaders)
{
    player.play(server.url("/hls/playlist.m3u8"), {{"User-Agent", "LumifluxHls/1.0"}, {"X-Hls", "yes"}});
    player.pause();
    ASSERT_TRUE(listener.waitForState(PlayerState::EOS)) << "HLS stream did not play to the end";
    EXPECT_TRUE(listener.snapshot(listener.errors).empty());
    // The discoverer and the demuxer both read the playlist.
    EXPECT_GE(server.requestsFor("/hls/playlist.m3u8").size(), 2u);
    expectEveryRequestHas("/hls/playlist.m3u8", "User-Agent", "LumifluxHls/1.0");
    expectEveryRequestHas("/hls/playlist.m3u8", "X-Hls", "yes");
    // Every segment request carries the User-Agent. The playing pipeline's
    // demuxer downloads segments with a client of its own that takes over
    // only the playlist request's User-Agent, Referer and cookies: it has no
    // header property of any kind, so other headers cannot reach it. The
    // discoverer's demuxer fetches through HTTP source elements, which get
    // every header.
    for (const char* segment : {"/hls/segment00000.ts", "/hls/segment00001.ts"}) {
        EXPECT_FALSE(server.requestsFor(segment).empty()) << segment;
        expectEveryRequestHas(segment, "User-Agent", "LumifluxHls/1.0");
    }
    const auto first = server.requestsFor("/hls/segment00000.ts");
    EXPECT_TRUE(std::any_of(first.begin(), first.end(), [](const HttpRequest& r) {
        return r.header("X-Hls") == "yes";
    })) << "the discoverer's segment request lacks the application's header";
}

TEST_F(PlayerHttpHeaders, RequestsAfterSetHttpHeadersCarryTheNewHeaders)
{
    player.setUri(server.url("/clip0.mkv"), {{"X-Version", "1"}});
    player.pause();
    ASSERT_TRUE(listener.waitForState(PlayerState::Paused));
    ASSERT_GE(server.requestsFor("/clip0.mkv").size(), 1u);
    expectEveryRequestHas("/clip0.mkv", "X-Version", "1");

    server.clearRequests();
    player.setHttpHeaders({{"X-Version", "2"}, {"User-Agent", "LumifluxTest/3.0"}});
    // A seek makes the source ask the server again, with the headers it has now.
    player.seek(500ms);
    player.play();
    ASSERT_TRUE(listener.waitForState(PlayerState::EOS));
    ASSERT_TRUE(server.waitForRequests("/clip0.mkv", 1, 10000)) << "the seek made no new request";
    expectEveryRequestHas("/clip0.mkv", "X-Version", "2");
    expectEveryRequestHas("/clip0.mkv", "User-Agent", "LumifluxTest/3.0");
}

// Run once per value of LUMIFLUX_HTTP_LOG_LEVEL, each in its own process;
// LUMIFLUX_TEST_EXPECT_HTTP_LOG_LEVEL says what the scenario expects.
TEST(PlayerHttpLogLevel, LevelFromTheEnvironmentIsSetOrRefused)
{
    const char* configured = std::getenv("LUMIFLUX_HTTP_LOG_LEVEL");
    const char* expected = std::getenv("LUMIFLUX_TEST_EXPECT_HTTP_LOG_LEVEL");
    ASSERT_NE(configured, nullptr);
    ASSERT_NE(expected, nullptr);

    HttpTestServer server;
    serveNetworkMedia(server);
    RecordingListener listener;
    {
        Player player;
        player.setListener(&listener);
        player.play(server.url("/clip0.mkv"));
        player.pause();
        ASSERT_TRUE(listener.waitForState(PlayerState::EOS));
        player.setListener(nullptr);
    }
    const auto set = syslogRecordsContaining("setting http-log-level to ");
    const auto refused = syslogRecordsContaining("invalid http-log-level value ");
    if (std::string(expected) == "invalid") {
        EXPECT_TRUE(set.empty());
        // The discoverer's source and the pipeline's each refuse it.
        ASSERT_GE(refused.size(), 2u);
        for (const auto& record : refused)
            EXPECT_NE(record.text.find("invalid http-log-level value " + std::string(configured)), std::string::npos)
                << record.text;
    } else {
        EXPECT_TRUE(refused.empty());
        ASSERT_GE(set.size(), 2u);
        for (const auto& record : set)
            EXPECT_NE(record.text.find("setting http-log-level to " + std::string(expected)), std::string::npos)
                << record.text;
    }
}

} // namespace
