// The application's HTTP headers reach our test server on every request the
// player makes for a medium: the discoverer's, the progressive download, an
// HLS playlist and its segments, and those made after setHttpHeaders; and the
// HTTP log level taken from the environment. Which header becomes a property,
// an extra header or is refused is proven element by element, with its log
// lines, in tests/player/http_headers_test.cpp; here what the wire carries.

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <string>

#include <glib.h>
#include <gtest/gtest.h>

#include "network_fixture.h"
#include "syslog_capture.h"

using namespace std::chrono_literals;
using namespace lumiflux_test;

namespace {

using Values = std::vector<std::string>;

// Every value a request carried under `name` (case-insensitive), in order.
Values valuesOf(const HttpRequest& request, const std::string& name)
{
    Values values;
    for (const auto& [key, value] : request.headers)
        if (g_ascii_strcasecmp(key.c_str(), name.c_str()) == 0)
            values.push_back(value);
    return values;
}

bool carries(const HttpRequest& request, const std::string& name, const std::string& value)
{
    const auto values = valuesOf(request, name);
    return std::find(values.begin(), values.end(), value) != values.end();
}

std::string describe(const HttpRequest& request)
{
    std::string text;
    for (const auto& [key, value] : request.headers)
        text += key + ": " + value + "\n";
    return text;
}

class PlayerHttpHeaders : public ::testing::Test, protected ListenedPlayer {
protected:
    void SetUp() override { serveNetworkMedia(server); }

    // Every request for `path` carries `name` with exactly `value`.
    void expectEveryRequestHas(const std::string& path, const std::string& name, const std::string& value)
    {
        const auto requests = server.requestsFor(path);
        ASSERT_FALSE(requests.empty()) << path;
        for (const auto& request : requests)
            EXPECT_EQ(request.header(name), value) << path << " " << name;
    }

    HttpTestServer server;
};

TEST_F(PlayerHttpHeaders, DiscovererRequestCarriesTheHeadersAndReportsTheDuration)
{
    // Without a pause or play the pipeline stays in NULL: the only request is
    // the discoverer's.
    player.setUri(server.url("/clip0.mkv"), {{"User-Agent", "LumifluxTest/1.0"}, {"X-Session", "discover"}});
    ASSERT_TRUE(server.waitForRequests("/clip0.mkv", 1, 20000));
    ASSERT_TRUE(listener.waitFor([&] { return !listener.durations.empty(); }));
    expectEveryRequestHas("/clip0.mkv", "User-Agent", "LumifluxTest/1.0");
    expectEveryRequestHas("/clip0.mkv", "X-Session", "discover");
    EXPECT_EQ(player.getState(), PlayerState::Empty);
    EXPECT_GT(listener.snapshot(listener.durations).front(), 900ms);
}

TEST_F(PlayerHttpHeaders, HeaderRulesOnEveryRequestOfAProgressiveDownload)
{
    const struct {
        const char* what;
        const char* path;
        HttpHeaders headers;
        std::function<void(const HttpRequest&)> check;
    } cases[] = {
        // Not turned into properties: sent as they are, beside what the HTTP
        // source sends of its own.
        {"a later header of the same name wins; gzip and \"Close\" are plain headers",
         "/clip1.mkv",
         {{"User-Agent", "LumifluxTest/2.0"},
          {"X-Token", "first"},
          {"X-Token", "second"},
          {"Accept-Encoding", "gzip"},
          {"Connection", "Close"}},
         [](const HttpRequest& r) {
             EXPECT_EQ(r.header("User-Agent"), "LumifluxTest/2.0");
             EXPECT_EQ(valuesOf(r, "X-Token"), Values{"second"});
             EXPECT_TRUE(carries(r, "Accept-Encoding", "gzip"));
             // Not the special "close": sent as an extra header, in place of the client's own.
             EXPECT_EQ(valuesOf(r, "Connection"), Values{"Close"});
         }},
        // Keep-alive off: the HTTP client itself says "close", once.
        // Compression off: only identity is accepted, and the header is not
        // sent a second time as an extra header.
        {"\"close\" turns keep-alive off, \"identity\" compression",
         "/clip0.mkv",
         {{"Connection", "close"}, {"Accept-Encoding", "identity"}},
         [](const HttpRequest& r) {
             EXPECT_EQ(valuesOf(r, "Connection"), Values{"close"});
             EXPECT_EQ(valuesOf(r, "Accept-Encoding"), Values{"identity"});
         }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_TRUE(playsToEnd(server.url(c.path), c.headers));
        // The discoverer's request and the pipeline's.
        const auto requests = server.requestsFor(c.path);
        EXPECT_GE(requests.size(), 2u);
        for (const auto& request : requests) {
            SCOPED_TRACE(describe(request));
            c.check(request);
        }
    }
    EXPECT_TRUE(listener.snapshot(listener.errors).empty());
}

TEST_F(PlayerHttpHeaders, HlsPlaylistCarriesTheHeaders)
{
    ASSERT_TRUE(playsToEnd(server.url("/hls/playlist.m3u8"), {{"User-Agent", "LumifluxHls/1.0"}, {"X-Hls", "yes"}}));
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
    for (const char* segment : {"/hls/segment00000.ts", "/hls/segment00001.ts"})
        expectEveryRequestHas(segment, "User-Agent", "LumifluxHls/1.0");
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
    ASSERT_TRUE(configured && expected);
    const bool invalid = std::string(expected) == "invalid";

    HttpTestServer server;
    serveNetworkMedia(server);
    ASSERT_TRUE(ListenedPlayer().playsToEnd(server.url("/clip0.mkv")));
    const std::string set = "setting http-log-level to ", refused = "invalid http-log-level value ";
    EXPECT_TRUE(syslogRecordsContaining(invalid ? set : refused).empty());
    // The discoverer's source and the pipeline's each set or refuse it.
    const auto records = syslogRecordsContaining(invalid ? refused : set);
    ASSERT_GE(records.size(), 2u);
    const std::string line = invalid ? refused + configured : set + expected;
    for (const auto& record : records)
        EXPECT_NE(record.text.find(line), std::string::npos) << record.text;
}

} // namespace
