// HTTP with libmicrohttpd: one thread serves all connections. Their number, their
// memory, their idle time and the time for request headers are limited.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "http/listen_address.h"

namespace tolvane::agent {

struct HttpRequest {
    std::string method;
    std::string path;                          // decoded, without arguments
    std::map<std::string, std::string> query;  // decoded
};

struct HttpResponse {
    int status = 200;
    std::string contentType;
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;
};

// Called for GET and HEAD only, in the server's thread, for one request at a time.
// An exception becomes a response with status 500.
using HttpHandler = std::function<HttpResponse(const HttpRequest&)>;

class HttpServer {
  public:
    // Starts serving. `allowedHosts` are accepted in Host headers, see HostRule. Throws
    // Error with the address.
    HttpServer(const ListenAddress& address, HttpHandler handler,
               const std::vector<std::string>& allowedHosts = {});
    // Ends all connections.
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    std::uint16_t port() const;  // the actual port, also if port 0 was requested

  private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace tolvane::agent
