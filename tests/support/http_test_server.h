#pragma once

// A real HTTP/1.1 server on 127.0.0.1, on a thread of its own. It serves
// files, records the headers of every request, and misbehaves per path on
// request: 404, 500, a reset half-way through the body, a stall, a redirect.

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace lumiflux_test {

struct HttpRequest {
    std::string path;
    std::vector<std::pair<std::string, std::string>> headers; // in order, as the client spelled them
    /** Every value of a header (case-insensitive name). */
    std::vector<std::string> values(const std::string& name) const;
};

enum class HttpFault { None, NotFound, ServerError, ResetMidBody, Stall, Redirect };

class HttpTestServer {
public:
    HttpTestServer();
    ~HttpTestServer();
    std::string url(const std::string& path) const;
    /** Serves a file's content (read now) at `path`. */
    void serveFile(const std::string& path, const std::string& file);
    /** Serves every regular file under `directory` at `prefix` + its relative path. */
    void serveDirectory(const std::string& prefix, const std::string& directory);
    /** Requests for paths that start with `prefix` misbehave; Redirect goes to `target`. */
    void setFault(const std::string& prefix, HttpFault fault, const std::string& target = "");
    void clearFaults();
    std::vector<HttpRequest> requestsFor(const std::string& path) const;
    void clearRequests();
    /** Waits until at least `count` requests for `path` arrived; false on timeout. */
    bool waitForRequests(const std::string& path, std::size_t count, int timeoutMs = 20000) const;
    struct Private;

private:
    std::unique_ptr<Private> d;
    std::uint16_t port = 0;
};

} // namespace lumiflux_test
