// Faulty servers: each fault gives the PlayerError that GStreamer's error
// maps to, never a crash or a hang, and the same player then plays a good
// URI. What each fault gives (GStreamer 1.22, libsoup 3) is written next to
// its case.

#include <chrono>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

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
        fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
        socklen_t length = sizeof address;
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
        port = ntohs(address.sin_port);
    }
    ~ClosedPort() { close(fd); }
    int fd = -1;
    int port = 0;
};

class PlayerFaults : public ::testing::Test {
protected:
    void SetUp() override
    {
        serveNetworkMedia(server);
        server.serveFile("/bad.mkv", networkMediaDir() + "/clip0.mkv", "video/x-matroska");
        server.serveDirectory("/hls404/", networkMediaDir() + "/hls");
        player.setListener(&listener);
    }
    void TearDown() override { player.setListener(nullptr); }

    // Plays `uri`, waits for the first error and returns it.
    RecordedError firstError(const std::string& uri)
    {
        player.play(uri);
        player.pause();
        EXPECT_TRUE(listener.waitForError()) << "no error for " << uri;
        auto errors = listener.snapshot(listener.errors);
        return errors.empty() ? RecordedError{PlayerError::Unknown, "<none>"} : errors.front();
    }

    void expectRecovers()
    {
        EXPECT_TRUE(playsToEnd(player, listener, server.url("/clip1.mkv"))) << "the player did not recover";
    }

    HttpTestServer server;
    RecordingListener listener;
    Player player;
};

TEST_F(PlayerFaults, NotFound)
{
    server.setFault("/bad.mkv", HttpFault::NotFound);
    const auto error = firstError(server.url("/bad.mkv"));
    // Resource error NOT_FOUND: "Not Found".
    EXPECT_EQ(error.error, PlayerError::NotFound) << toString(error.error) << ": " << error.message;
    EXPECT_NE(error.message.find("Not Found"), std::string::npos) << error.message;
    expectRecovers();
}

TEST_F(PlayerFaults, ServerError)
{
    server.setFault("/bad.mkv", HttpFault::ServerError);
    const auto error = firstError(server.url("/bad.mkv"));
    // Resource error READ: "Internal Server Error".
    EXPECT_EQ(error.error, PlayerError::ReadFailed) << toString(error.error) << ": " << error.message;
    EXPECT_NE(error.message.find("Internal Server Error"), std::string::npos) << error.message;
    expectRecovers();
}

TEST_F(PlayerFaults, ConnectionRefused)
{
    ClosedPort closed;
    const auto error = firstError("http://127.0.0.1:" + std::to_string(closed.port) + "/clip0.mkv");
    // The source's connection failure reaches the bus after the generic
    // stream error of its streaming loop: "Internal data stream error.".
    EXPECT_EQ(error.error, PlayerError::StreamFailed) << toString(error.error) << ": " << error.message;
    EXPECT_NE(error.message.find("Internal data stream error"), std::string::npos) << error.message;
    expectRecovers();
}

TEST_F(PlayerFaults, ResetHalfWayThroughTheBody)
{
    server.setFault("/bad.mkv", HttpFault::ResetMidBody);
    const auto error = firstError(server.url("/bad.mkv"));
    // The source resumes with a range request, which the faulty server does
    // not honour: resource error SEEK, "Server does not support seeking.".
    EXPECT_EQ(error.error, PlayerError::SeekFailed) << toString(error.error) << ": " << error.message;
    EXPECT_NE(error.message.find("does not support seeking"), std::string::npos) << error.message;
    expectRecovers();
}

TEST_F(PlayerFaults, RedirectLoop)
{
    server.setFault("/bad.mkv", HttpFault::Redirect, "/bad.mkv");
    const auto error = firstError(server.url("/bad.mkv"));
    // Resource error READ after too many redirects.
    EXPECT_EQ(error.error, PlayerError::ReadFailed) << toString(error.error) << ": " << error.message;
    EXPECT_FALSE(error.message.empty()) << error.message;
    expectRecovers();
}

TEST_F(PlayerFaults, PlaylistWhoseSegmentsAreMissing)
{
    server.setFault("/hls404/segment00000.ts", HttpFault::NotFound);
    server.setFault("/hls404/segment00001.ts", HttpFault::NotFound);
    const auto error = firstError(server.url("/hls404/playlist.m3u8"));
    // The demuxer gives up with resource error NOT_FOUND, "Couldn't download
    // fragments": the same code as a missing file.
    EXPECT_EQ(error.error, PlayerError::NotFound) << toString(error.error) << ": " << error.message;
    EXPECT_NE(error.message.find("Couldn't download fragments"), std::string::npos) << error.message;
    expectRecovers();
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
    EXPECT_TRUE(playsToEnd(player, listener, server.url("/clip1.mkv")));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
    EXPECT_TRUE(listener.snapshot(listener.errors).empty());
}

} // namespace
