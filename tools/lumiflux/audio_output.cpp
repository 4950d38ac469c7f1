#include "audio_output.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gst/gst.h>

namespace lumiflux_tool {
namespace {

bool acceptsConnection(const std::string& path)
{
    sockaddr_un address{};
    if (path.empty() || path.size() >= sizeof(address.sun_path))
        return false;
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    const bool connected = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    close(fd);
    return connected;
}

// PULSE_SERVER is a list of servers: "unix:PATH", a bare path, or a network
// address (taken as reachable: it cannot be told without the protocol).
bool soundServerReachable()
{
    if (const char* servers = std::getenv("PULSE_SERVER")) {
        std::istringstream list(servers);
        for (std::string server; list >> server;) {
            if (server.front() == '{') // "{machine-id}address"
                server = server.substr(server.find('}') == std::string::npos ? server.size() : server.find('}') + 1);
            if (server.rfind("unix:", 0) == 0)
                server = server.substr(5);
            if (server.empty())
                continue;
            if (server.front() != '/' || acceptsConnection(server))
                return true;
        }
        return false;
    }
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    const std::string user = runtime ? runtime : "/run/user/" + std::to_string(getuid());
    return acceptsConnection(user + "/pulse/native") || acceptsConnection("/run/pulse/native") ||
           acceptsConnection("/var/run/pulse/native");
}

bool soundCardPresent()
{
    std::ifstream cards("/proc/asound/cards");
    std::string first;
    return cards && std::getline(cards, first) && first.find("no soundcards") == std::string::npos;
}

// Ranked below the automatic sink's threshold, no audio sink is tried; the
// automatic sink then plays to its silent fallback.
void withdrawAudioSinks()
{
    GList* factories = gst_element_factory_list_get_elements(
        GST_ELEMENT_FACTORY_TYPE_SINK | GST_ELEMENT_FACTORY_TYPE_MEDIA_AUDIO, GST_RANK_NONE);
    for (GList* item = factories; item; item = item->next)
        gst_plugin_feature_set_rank(GST_PLUGIN_FEATURE(item->data), GST_RANK_NONE);
    gst_plugin_feature_list_free(factories);
}

} // namespace

bool prepareAudioOutput()
{
    if (soundServerReachable() || soundCardPresent())
        return true;
    if (!gst_is_initialized())
        gst_init(nullptr, nullptr);
    withdrawAudioSinks();
    return false;
}

} // namespace lumiflux_tool
