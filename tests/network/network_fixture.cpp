#include "network_fixture.h"

#include <dirent.h>

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

int waitForThreadCount(int limit, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        int count = 0;
        if (DIR* dir = opendir("/proc/self/task")) {
            while (const dirent* entry = readdir(dir))
                count += entry->d_name[0] != '.';
            closedir(dir);
        }
        if (count <= limit || std::chrono::steady_clock::now() >= deadline)
            return count;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

} // namespace lumiflux_test
