#pragma once

// What the player's network tests share: the served media, a player with a
// listener that records what it reports, and the thread count of this process.

#include <chrono>
#include <string>

#include "../player/recording_listener.h"
#include "http_test_server.h"

namespace lumiflux_test {

/** The directory the network media fixture writes into. */
std::string networkMediaDir();
/** Serves clip0..3.mkv at /clipN.mkv and the HLS stream under /hls/. */
void serveNetworkMedia(HttpTestServer& server);
/**
 * Waits until the process has at most `limit` threads (GStreamer's pooled
 * streaming threads wind down shortly after their pipeline); returns the
 * last count seen. Threads are counted in /proc/self/task.
 */
int waitForThreadCount(int limit, std::chrono::milliseconds timeout = std::chrono::seconds(10));
inline int threadCount()
{
    return waitForThreadCount(1 << 20, {});
}

} // namespace lumiflux_test
