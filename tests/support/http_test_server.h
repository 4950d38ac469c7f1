#pragma once

// A real HTTP/1.1 server on 127.0.0.1 for tests, running on a thread of its
// own. It serves files and byte strings, records the headers of every request
// it receives, and can be told to misbehave per path: answer 404 or 500,
// reset the connection half-way through the body, stall without answering,
// or redirect (to another path, or to itself for a loop).

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace lumiflux_test {

struct HttpRequest {
    std::string method;
    std::string path;
    /** Every header as received, in order (names as the client spelled them). */
    std::vector<std::pair<std::string, std::string>> headers;

    /** The value of a header (case-insensitive name); "" when absent. */
    std::string header(const std::string& name) const;
    /** Whether the request carried a header of that name (case-insensitive). */
    bool has(const std::string& name) const;
};

enum class HttpFault {
    None,
    NotFound,     ///< 404
    ServerError,  ///< 500
    ResetMidBody, ///< headers with the full length, half the body, then a TCP reset
    Stall,        ///< the request is accepted and never answered
    Redirect,     ///< 302 to the given target
};

class HttpTestServer {
public:
    HttpTestServer();
    ~HttpTestServer();
    HttpTestServer(const HttpTestServer&) = delete;
    HttpTestServer& operator=(const HttpTestServer&) = delete;

    /** http://127.0.0.1:<port><path> */
    std::string url(const std::string& path) const;
    std::uint16_t port() const { return listenPort; }

    /** Serves `bytes` at `path`. */
    void serveBytes(const std::string& path, std::string bytes, const std::string& contentType);
    /** Serves the content of a file at `path` (read now). */
    void serveFile(const std::string& path, const std::string& file, const std::string& contentType = "");
    /** Serves every regular file under `directory` at `prefix` + its relative path. */
    void serveDirectory(const std::string& prefix, const std::string& directory);

    /** Makes requests for `path` (exact), or for every path under it when it ends in '/', misbehave. */
    void setFault(const std::string& path, HttpFault fault, const std::string& redirectTarget = "");
    void clearFaults();

    std::vector<HttpRequest> requests() const;
    std::vector<HttpRequest> requestsFor(const std::string& path) const;
    void clearRequests();
    /** Waits until at least `count` requests for `path` arrived; false on timeout. */
    bool waitForRequests(const std::string& path, std::size_t count, int timeoutMs) const;
    /** Requests currently held by a Stall fault. */
    std::size_t stalledCount() const;

    struct Private;

private:
    std::unique_ptr<Private> d;
    std::uint16_t listenPort = 0;
};

} // namespace lumiflux_test
