#pragma once

// A real HTTP/1.1 server on 127.0.0.1, on a thread of its own. It serves files, records the headers of every
// request, and misbehaves per path on request: 404, 500, a reset half-way through the body, a stall, a redirect.

#include <strings.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gio/gio.h>
#include <libsoup/soup.h>

namespace lumiflux_test {

struct HttpRequest {
    std::string path;
    std::vector<std::pair<std::string, std::string>> headers; // in order, as the client spelled them
    /** Every value of a header (case-insensitive name). */
    std::vector<std::string> values(const std::string& name) const
    {
        std::vector<std::string> found;
        for (const auto& [key, value] : headers)
            if (strcasecmp(key.c_str(), name.c_str()) == 0)
                found.push_back(value);
        return found;
    }
};

enum class HttpFault { None, NotFound, ServerError, ResetMidBody, Stall, Redirect };

class HttpTestServer {
public:
    HttpTestServer()
    {
        std::promise<std::uint16_t> started;
        thread = std::thread([this, &started] {
            g_main_context_push_thread_default(context);
            server = soup_server_new("server-header", "lumiflux-test-server", nullptr);
            soup_server_add_handler(
                server, nullptr,
                [](SoupServer*, SoupServerMessage* msg, const char* path, GHashTable*, gpointer self) {
                    static_cast<HttpTestServer*>(self)->respond(msg, path ? path : "");
                },
                this, nullptr);
            GError* error = nullptr;
            if (!soup_server_listen_local(server, 0, SOUP_SERVER_LISTEN_IPV4_ONLY, &error))
                g_error("test server: %s", error->message);
            GSList* uris = soup_server_get_uris(server);
            started.set_value(g_uri_get_port(static_cast<GUri*>(uris->data)));
            g_slist_free_full(uris, reinterpret_cast<GDestroyNotify>(g_uri_unref));
            g_main_loop_run(loop);
            soup_server_disconnect(server);
            g_object_unref(server);
            // Let the closed connections finish on this context before it goes.
            while (g_main_context_iteration(context, FALSE)) {
            }
            g_main_context_pop_thread_default(context);
        });
        port = started.get_future().get();
    }
    ~HttpTestServer()
    {
        g_main_context_invoke(
            context, [](gpointer l) { return g_main_loop_quit(static_cast<GMainLoop*>(l)), G_SOURCE_REMOVE; }, loop);
        thread.join();
        g_main_loop_unref(loop);
        g_main_context_unref(context);
    }
    std::string url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(port) + path; }
    void serveFile(const std::string& path, const std::string& file)
    {
        std::ifstream in(file, std::ios::binary);
        if (!in)
            throw std::runtime_error("cannot read " + file);
        std::ostringstream bytes;
        bytes << in.rdbuf();
        const std::string ext = std::filesystem::path(file).extension();
        const char* type = ext == ".m3u8"  ? "application/vnd.apple.mpegurl"
                           : ext == ".ts"  ? "video/mp2t"
                           : ext == ".mkv" ? "video/x-matroska"
                                           : "application/octet-stream";
        std::lock_guard<std::mutex> lock(mutex);
        resources[path] = {bytes.str(), type};
    }
    void serveDirectory(const std::string& prefix, const std::string& directory)
    {
        for (const auto& entry : std::filesystem::directory_iterator(directory))
            if (entry.is_regular_file())
                serveFile(prefix + entry.path().filename().string(), entry.path().string());
    }
    /** Requests for paths that start with `prefix` misbehave; Redirect goes to `target`. */
    void setFault(const std::string& prefix, HttpFault fault, const std::string& target = "")
    {
        std::lock_guard<std::mutex> lock(mutex);
        faults[prefix] = {fault, target};
    }
    void clearFaults()
    {
        std::lock_guard<std::mutex> lock(mutex);
        faults.clear();
    }
    void clearRequests()
    {
        std::lock_guard<std::mutex> lock(mutex);
        received.clear();
    }
    std::vector<HttpRequest> requestsFor(const std::string& path) const
    {
        std::lock_guard<std::mutex> lock(mutex);
        std::vector<HttpRequest> result;
        std::copy_if(received.begin(), received.end(), std::back_inserter(result),
                     [&](const HttpRequest& r) { return r.path == path; });
        return result;
    }
    /** Waits until at least `count` requests for `path` arrived; false on timeout. */
    bool waitForRequests(const std::string& path, std::size_t count, int timeoutMs = 20000) const
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
            return std::count_if(received.begin(), received.end(),
                                 [&](const HttpRequest& r) { return r.path == path; }) >= std::ptrdiff_t(count);
        });
    }

private:
    void respond(SoupServerMessage* msg, const std::string& path)
    {
        HttpRequest request{path, {}};
        soup_message_headers_foreach(
            soup_server_message_get_request_headers(msg),
            [](const char* name, const char* value, gpointer out) {
                static_cast<HttpRequest*>(out)->headers.emplace_back(name, value);
            },
            &request);
        std::pair<HttpFault, std::string> fault{HttpFault::None, ""};
        const std::pair<std::string, std::string>* resource = nullptr;
        {
            std::lock_guard<std::mutex> lock(mutex);
            received.push_back(request);
            changed.notify_all();
            for (const auto& [prefix, f] : faults)
                if (!prefix.empty() && path.compare(0, prefix.size(), prefix) == 0)
                    fault = f;
            auto it = resources.find(path); // never changed while requests come
            resource = it == resources.end() ? nullptr : &it->second;
        }
        if (fault.first == HttpFault::Redirect)
            return soup_server_message_set_redirect(msg, SOUP_STATUS_FOUND, fault.second.c_str());
        if (fault.first == HttpFault::Stall) // never answered; the server lets go of it when it stops
            return soup_server_message_pause(msg);
        if (fault.first == HttpFault::ServerError || !resource || fault.first == HttpFault::NotFound)
            return soup_server_message_set_status(
                msg, fault.first == HttpFault::ServerError ? SOUP_STATUS_INTERNAL_SERVER_ERROR : SOUP_STATUS_NOT_FOUND,
                nullptr);
        if (fault.first == HttpFault::ResetMidBody)
            return resetMidBody(msg, *resource);
        soup_server_message_set_status(msg, SOUP_STATUS_OK, nullptr);
        soup_server_message_set_response(msg, resource->second.c_str(), SOUP_MEMORY_COPY, resource->first.data(),
                                         resource->first.size());
        // libsoup answers Range requests from the complete body.
        soup_message_headers_replace(soup_server_message_get_response_headers(msg), "Accept-Ranges", "bytes");
    }

    // Promises the whole body, sends half of it, then resets the connection.
    static void resetMidBody(SoupServerMessage* msg, const std::pair<std::string, std::string>& resource)
    {
        GIOStream* stream = soup_server_message_steal_connection(msg);
        std::ostringstream text;
        text << "HTTP/1.1 200 OK\r\nContent-Type: " << resource.second
             << "\r\nContent-Length: " << resource.first.size() << "\r\nConnection: close\r\n\r\n"
             << resource.first.substr(0, resource.first.size() / 2);
        GOutputStream* out = g_io_stream_get_output_stream(stream);
        g_output_stream_write_all(out, text.str().data(), text.str().size(), nullptr, nullptr, nullptr);
        g_output_stream_flush(out, nullptr, nullptr);
        struct linger hard = {1, 0}; // a zero linger time turns the close into a reset
        GSocket* socket = g_socket_connection_get_socket(G_SOCKET_CONNECTION(stream));
        setsockopt(g_socket_get_fd(socket), SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
        g_io_stream_close(stream, nullptr, nullptr);
        g_object_unref(stream);
    }

    GMainContext* context = g_main_context_new();
    GMainLoop* loop = g_main_loop_new(context, FALSE);
    SoupServer* server = nullptr;
    std::thread thread;
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::map<std::string, std::pair<std::string, std::string>> resources; // path: bytes, type
    std::map<std::string, std::pair<HttpFault, std::string>> faults;
    std::vector<HttpRequest> received;
    std::uint16_t port = 0;
};

} // namespace lumiflux_test
