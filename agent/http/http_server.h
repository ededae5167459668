// HTTP over libmicrohttpd: one thread serves all connections; their number,
// their memory and the time that they may stay silent are bounded.
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

// Is called for GET and HEAD only, by the server's thread, one request at a
// time. An exception becomes a response with status 500.
using HttpHandler = std::function<HttpResponse(const HttpRequest&)>;

class HttpServer {
  public:
    // Serves from now on. Throws Error that names the address when it cannot.
    HttpServer(const ListenAddress& address, HttpHandler handler);
    // Ends all connections.
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    std::uint16_t port() const;  // the real one, when any free one was asked for

  private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace tolvane::agent
