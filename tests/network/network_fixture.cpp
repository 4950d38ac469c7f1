#include "network_fixture.h"

#include <dirent.h>

#include <cstdlib>
#include <thread>

#include "test_paths.h"

namespace lumiflux_test {

std::string networkMediaDir()
{
    return buildDir() + "/network-media";
}

void serveNetworkMedia(HttpTestServer& server)
{
    for (int i = 0; i < 4; ++i) {
        const std::string name = "clip" + std::to_string(i) + ".mkv";
        server.serveFile("/" + name, networkMediaDir() + "/" + name, "video/x-matroska");
    }
    server.serveDirectory("/hls/", networkMediaDir() + "/hls");
}

int threadCount()
{
    int count = 0;
    if (DIR* dir = opendir("/proc/self/task")) {
        while (const dirent* entry = readdir(dir))
            if (entry->d_name[0] != '.')
                ++count;
        closedir(dir);
    }
    return count;
}

int waitForThreadCount(int limit, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    int count = threadCount();
    while (count > limit && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        count = threadCount();
    }
    return count;
}

bool playsToEnd(Player& player, RecordingListener& listener, const std::string& uri)
{
    {
        std::lock_guard<std::mutex> lock(listener.mutex);
        listener.states.clear();
    }
    player.play(uri);
    player.pause();
    return listener.waitFor([&] {
        bool playing = false;
        for (const auto& change : listener.states) {
            if (change.second == PlayerState::Playing)
                playing = true;
            if (playing && change.second == PlayerState::EOS)
                return true;
        }
        return false;
    });
}

} // namespace lumiflux_test
