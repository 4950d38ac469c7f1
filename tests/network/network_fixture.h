#pragma once

// What the player's network tests share: the served media, a listener that
// records what the player reports, and the thread count of this process.

#include <chrono>
#include <string>

#include <lumiflux/player.h>

#include "../player/recording_listener.h"
#include "http_test_server.h"

namespace lumiflux_test {

/** The directory the network media fixture writes into. */
std::string networkMediaDir();
/** Serves clip0..3.mkv at /clipN.mkv and the HLS stream under /hls/. */
void serveNetworkMedia(HttpTestServer& server);
/** Threads of this process, from /proc/self/task. */
int threadCount();
/**
 * Waits until the process has at most `limit` threads (GStreamer's pooled
 * streaming threads wind down shortly after their pipeline); returns the
 * last count seen.
 */
int waitForThreadCount(int limit, std::chrono::milliseconds timeout = std::chrono::seconds(10));

/** Plays `uri` to the end on `player` and reports whether it got there. */
bool playsToEnd(Player& player, RecordingListener& listener, const std::string& uri);

} // namespace lumiflux_test
