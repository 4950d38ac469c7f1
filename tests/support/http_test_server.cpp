#include "http_test_server.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <sstream>
#include <stdexcept>
#include <strings.h>
#include <sys/socket.h>
#include <thread>

#include <gio/gio.h>
#include <libsoup/soup.h>

namespace lumiflux_test {

namespace fs = std::filesystem;

std::string HttpRequest::header(const std::string& name) const
{
    for (const auto& [key, value] : headers)
        if (strcasecmp(key.c_str(), name.c_str()) == 0)
            return value;
    return {};
}

bool HttpRequest::has(const std::string& name) const
{
    return std::any_of(headers.begin(), headers.end(),
                       [&](const auto& h) { return strcasecmp(h.first.c_str(), name.c_str()) == 0; });
}

struct Resource {
    std::string bytes;
    std::string contentType;
};

struct Fault {
    HttpFault kind = HttpFault::None;
    std::string target;
};

struct HttpTestServer::Private {
    GMainContext* context = nullptr;
    GMainLoop* loop = nullptr;
    SoupServer* server = nullptr;
    std::thread thread;

    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::map<std::string, Resource> resources;
    std::map<std::string, Fault> faults;
    std::vector<HttpRequest> received;
    std::vector<SoupServerMessage*> stalled;

    Fault faultFor(const std::string& path) const
    {
        auto exact = faults.find(path);
        if (exact != faults.end())
            return exact->second;
        for (const auto& [prefix, fault] : faults)
            if (!prefix.empty() && prefix.back() == '/' && path.compare(0, prefix.size(), prefix) == 0)
                return fault;
        return {};
    }

    static void handle(SoupServer*, SoupServerMessage* msg, const char* path, GHashTable*, gpointer data)
    {
        static_cast<Private*>(data)->respond(msg, path);
    }

    void respond(SoupServerMessage* msg, const char* rawPath)
    {
        const std::string path = rawPath != nullptr ? rawPath : "";
        HttpRequest request;
        request.method = soup_server_message_get_method(msg);
        request.path = path;
        soup_message_headers_foreach(
            soup_server_message_get_request_headers(msg),
            [](const char* name, const char* value, gpointer out) {
                static_cast<HttpRequest*>(out)->headers.emplace_back(name, value);
            },
            &request);

        Fault fault;
        Resource resource;
        bool found = false;
        {
            std::lock_guard<std::mutex> lock(mutex);
            received.push_back(request);
            fault = faultFor(path);
            auto it = resources.find(path);
            if (it != resources.end()) {
                resource = it->second;
                found = true;
            }
            changed.notify_all();
        }

        switch (fault.kind) {
        case HttpFault::NotFound:
            soup_server_message_set_status(msg, SOUP_STATUS_NOT_FOUND, nullptr);
            return;
        case HttpFault::ServerError:
            soup_server_message_set_status(msg, SOUP_STATUS_INTERNAL_SERVER_ERROR, nullptr);
            return;
        case HttpFault::Redirect:
            soup_server_message_set_redirect(msg, SOUP_STATUS_FOUND, fault.target.c_str());
            return;
        case HttpFault::Stall: {
            soup_server_message_pause(msg);
            std::lock_guard<std::mutex> lock(mutex);
            stalled.push_back(static_cast<SoupServerMessage*>(g_object_ref(msg)));
            return;
        }
        case HttpFault::ResetMidBody:
            if (found) {
                resetMidBody(msg, resource);
                return;
            }
            break;
        case HttpFault::None:
            break;
        }

        if (!found) {
            soup_server_message_set_status(msg, SOUP_STATUS_NOT_FOUND, nullptr);
            return;
        }
        if (request.method != "GET" && request.method != "HEAD") {
            soup_server_message_set_status(msg, SOUP_STATUS_NOT_IMPLEMENTED, nullptr);
            return;
        }
        soup_server_message_set_status(msg, SOUP_STATUS_OK, nullptr);
        soup_server_message_set_response(msg, resource.contentType.c_str(), SOUP_MEMORY_COPY, resource.bytes.data(),
                                         resource.bytes.size());
        // The server answers Range requests from the complete body itself.
        soup_message_headers_replace(soup_server_message_get_response_headers(msg), "Accept-Ranges", "bytes");
    }

    // Promises the whole body, sends half of it, then resets the connection.
    static void resetMidBody(SoupServerMessage* msg, const Resource& resource)
    {
        GIOStream* stream = soup_server_message_steal_connection(msg);
        if (stream == nullptr)
            return;
        std::ostringstream head;
        head << "HTTP/1.1 200 OK\r\nContent-Type: " << resource.contentType
             << "\r\nContent-Length: " << resource.bytes.size() << "\r\nConnection: close\r\n\r\n";
        const std::string text = head.str() + resource.bytes.substr(0, resource.bytes.size() / 2);
        GOutputStream* out = g_io_stream_get_output_stream(stream);
        g_output_stream_write_all(out, text.data(), text.size(), nullptr, nullptr, nullptr);
        g_output_stream_flush(out, nullptr, nullptr);
        if (G_IS_SOCKET_CONNECTION(stream)) {
            GSocket* socket = g_socket_connection_get_socket(G_SOCKET_CONNECTION(stream));
            // A zero linger time turns the close into a reset.
            struct linger hard = {1, 0};
            setsockopt(g_socket_get_fd(socket), SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
        }
        g_io_stream_close(stream, nullptr, nullptr);
        g_object_unref(stream);
    }
};

HttpTestServer::HttpTestServer() : d(std::make_unique<Private>())
{
    d->context = g_main_context_new();
    d->loop = g_main_loop_new(d->context, FALSE);
    std::promise<std::uint16_t> started;
    auto ready = started.get_future();
    d->thread = std::thread([this, &started] {
        g_main_context_push_thread_default(d->context);
        d->server = soup_server_new("server-header", "lumiflux-test-server", nullptr);
        soup_server_add_handler(d->server, nullptr, &Private::handle, d.get(), nullptr);
        GError* error = nullptr;
        if (!soup_server_listen_local(d->server, 0, SOUP_SERVER_LISTEN_IPV4_ONLY, &error)) {
            started.set_exception(std::make_exception_ptr(std::runtime_error(error->message)));
            g_error_free(error);
            g_main_context_pop_thread_default(d->context);
            return;
        }
        GSList* uris = soup_server_get_uris(d->server);
        const std::uint16_t port = uris != nullptr ? g_uri_get_port(static_cast<GUri*>(uris->data)) : 0;
        g_slist_free_full(uris, reinterpret_cast<GDestroyNotify>(g_uri_unref));
        started.set_value(port);
        g_main_loop_run(d->loop);
        {
            std::lock_guard<std::mutex> lock(d->mutex);
            for (SoupServerMessage* msg : d->stalled)
                g_object_unref(msg);
            d->stalled.clear();
        }
        soup_server_disconnect(d->server);
        g_object_unref(d->server);
        d->server = nullptr;
        // Let the closed connections finish on this context before it goes.
        while (g_main_context_iteration(d->context, FALSE)) {
        }
        g_main_context_pop_thread_default(d->context);
    });
    try {
        listenPort = ready.get();
    } catch (...) {
        d->thread.join();
        g_main_loop_unref(d->loop);
        g_main_context_unref(d->context);
        throw;
    }
}

HttpTestServer::~HttpTestServer()
{
    g_main_context_invoke(
        d->context,
        [](gpointer loop) -> gboolean {
            g_main_loop_quit(static_cast<GMainLoop*>(loop));
            return G_SOURCE_REMOVE;
        },
        d->loop);
    d->thread.join();
    g_main_loop_unref(d->loop);
    g_main_context_unref(d->context);
}

std::string HttpTestServer::url(const std::string& path) const
{
    return "http://127.0.0.1:" + std::to_string(listenPort) + path;
}

void HttpTestServer::serveBytes(const std::string& path, std::string bytes, const std::string& contentType)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->resources[path] = Resource{std::move(bytes), contentType};
}

namespace {
std::string readFile(const std::string& file)
{
    std::ifstream in(file, std::ios::binary);
    if (!in)
        throw std::runtime_error("cannot read " + file);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

std::string guessType(const std::string& file)
{
    const std::string ext = fs::path(file).extension().string();
    if (ext == ".m3u8")
        return "application/vnd.apple.mpegurl";
    if (ext == ".ts")
        return "video/mp2t";
    if (ext == ".mkv")
        return "video/x-matroska";
    if (ext == ".mp4")
        return "video/mp4";
    if (ext == ".webm")
        return "video/webm";
    return "application/octet-stream";
}
} // namespace

void HttpTestServer::serveFile(const std::string& path, const std::string& file, const std::string& contentType)
{
    serveBytes(path, readFile(file), contentType.empty() ? guessType(file) : contentType);
}

void HttpTestServer::serveDirectory(const std::string& prefix, const std::string& directory)
{
    for (const auto& entry : fs::recursive_directory_iterator(directory))
        if (entry.is_regular_file())
            serveFile(prefix + fs::relative(entry.path(), directory).string(), entry.path().string());
}

void HttpTestServer::setFault(const std::string& path, HttpFault fault, const std::string& redirectTarget)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->faults[path] = Fault{fault, redirectTarget};
}

void HttpTestServer::clearFaults()
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->faults.clear();
}

std::vector<HttpRequest> HttpTestServer::requests() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->received;
}

std::vector<HttpRequest> HttpTestServer::requestsFor(const std::string& path) const
{
    std::vector<HttpRequest> result;
    for (auto& r : requests())
        if (r.path == path)
            result.push_back(r);
    return result;
}

void HttpTestServer::clearRequests()
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->received.clear();
}

bool HttpTestServer::waitForRequests(const std::string& path, std::size_t count, int timeoutMs) const
{
    std::unique_lock<std::mutex> lock(d->mutex);
    return d->changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
        return static_cast<std::size_t>(std::count_if(d->received.begin(), d->received.end(),
                                                      [&](const HttpRequest& r) { return r.path == path; })) >= count;
    });
}

std::size_t HttpTestServer::stalledCount() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->stalled.size();
}

} // namespace lumiflux_test
