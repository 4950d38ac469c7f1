// Faulty servers: each fault gives the PlayerError that GStreamer's error
// maps to, never a crash or a hang, and the same player then plays a good
// URI. What each fault gives (GStreamer 1.22, libsoup 3) is written next to
// its case.

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "network_fixture.h"

using namespace std::chrono_literals;
using namespace lumiflux_test;

namespace {

// A port on 127.0.0.1 that nothing listens on: bound, never listened to.
class ClosedPort {
public:
    ClosedPort()
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
        socklen_t length = sizeof address;
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
        port = ntohs(address.sin_port);
    }
    ~ClosedPort() { close(fd); }
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    int port = 0;
};

class PlayerFaults : public ::testing::Test, protected ListenedPlayer {
protected:
    void SetUp() override
    {
        serveNetworkMedia(server);
        server.serveFile("/bad.mkv", networkMediaDir() + "/clip0.mkv", "video/x-matroska");
        server.serveDirectory("/hls404/", networkMediaDir() + "/hls");
    }
    HttpTestServer server;
};

TEST_F(PlayerFaults, EachFaultGivesItsErrorAndThePlayerRecovers)
{
    ClosedPort closed;
    const std::string refused = "http://127.0.0.1:" + std::to_string(closed.port) + "/clip0.mkv";
    const struct {
        const char* what;
        std::vector<const char*> faulty; // paths given `fault`
        HttpFault fault;
        std::string uri;
        PlayerError expected;
        const char* message; // part of the error's text
    } cases[] = {
        // Resource error NOT_FOUND.
        {"404", {"/bad.mkv"}, HttpFault::NotFound, server.url("/bad.mkv"), PlayerError::NotFound, "Not Found"},
        // Resource error READ.
        {"500",
         {"/bad.mkv"},
         HttpFault::ServerError,
         server.url("/bad.mkv"),
         PlayerError::ReadFailed,
         "Internal Server Error"},
        // The source's connection failure reaches the bus after the generic
        // stream error of its streaming loop.
        {"connection refused",
         {},
         HttpFault::NotFound,
         refused,
         PlayerError::StreamFailed,
         "Internal data stream error."},
        // The source resumes with a range request, which the faulty server
        // does not honour: resource error SEEK.
        {"reset half-way through the body",
         {"/bad.mkv"},
         HttpFault::ResetMidBody,
         server.url("/bad.mkv"),
         PlayerError::SeekFailed,
         "Server does not support seeking."},
        // Resource error READ after too many redirects (to itself).
        {"redirect loop", {"/bad.mkv"}, HttpFault::Redirect, server.url("/bad.mkv"), PlayerError::ReadFailed, ""},
        // The demuxer gives up with resource error NOT_FOUND: the same code as
        // a missing file.
        {"playlist whose segments are missing",
         {"/hls404/segment00000.ts", "/hls404/segment00001.ts"},
         HttpFault::NotFound,
         server.url("/hls404/playlist.m3u8"),
         PlayerError::NotFound,
         "Couldn't download fragments"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        {
            std::lock_guard<std::mutex> lock(listener.mutex);
            listener.errors.clear();
        }
        for (const char* path : c.faulty)
            server.setFault(path, c.fault, path);
        player.play(c.uri);
        player.pause();
        ASSERT_TRUE(listener.waitForError());
        const auto error = listener.snapshot(listener.errors).front();
        EXPECT_EQ(error.error, c.expected) << toString(error.error) << ": " << error.message;
        EXPECT_FALSE(error.message.empty());
        EXPECT_NE(error.message.find(c.message), std::string::npos) << error.message;
        server.clearFaults();
        EXPECT_TRUE(playsToEnd(server.url("/clip1.mkv"))) << "the player did not recover";
    }
}

TEST_F(PlayerFaults, StalledServerIsLeftPromptlyByStop)
{
    server.setFault("/bad.mkv", HttpFault::Stall);
    player.play(server.url("/bad.mkv"));
    player.pause();
    // The discoverer's request and the pipeline's both hang.
    ASSERT_TRUE(server.waitForRequests("/bad.mkv", 2, 20000));
    player.stop();
    // stop() only queues; the next medium plays once the stop has let go of
    // the stalled source, long before any HTTP timeout.
    const auto start = std::chrono::steady_clock::now();
    server.clearFaults();
    EXPECT_TRUE(playsToEnd(server.url("/clip1.mkv")));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
    EXPECT_TRUE(listener.snapshot(listener.errors).empty());
}

} // namespace
