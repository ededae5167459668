// HTTP clients that count what a measured server should count: every byte, every
// response, every request without a response.
#pragma once

#include <string>
#include <vector>

#include "http_client/connection.h"
#include "http_client/response_reader.h"
#include "support/segment.h"

namespace tolvane::test {

std::string get(const std::string& host, const std::string& url);
using http_client::connectTo;
using http_client::sendAll;

// One request of a load, and where the configuration should put it.
struct Exchange {
    std::string text;
    int site = -1;
    int category = -1;
    // The client falls silent after it, without having sent all of it.
    bool cutOff = false;
};

class HttpConnection {
  public:
    HttpConnection(int port, Counts& counts);
    ~HttpConnection();
    HttpConnection(const HttpConnection&) = delete;
    HttpConnection& operator=(const HttpConnection&) = delete;

    // Sends the request, in two parts when `split` is not 0, and reads the
    // response. Returns its status, 0 when the server closed without one.
    int exchange(const Exchange& request);
    void begin(const Exchange& request, std::size_t split);
    int finish();
    bool ended() const { return ended_; }  // the server takes no further request

  private:
    http_client::ResponseReader read();

    int fd_;
    Counts& counts_;
    Exchange current_;
    std::size_t sent_ = 0;
    bool seenSite_ = false;
    bool ended_ = false;
};

struct Load {
    int threads;
    int connections;  // per thread
    int requests;     // per connection, unless the server ends it before
    std::vector<Exchange> mix;
};

// Runs the load to its end; every connection is closed then.
Counts run(int port, const Load& load);

// Keeps that many connections in the middle of a request at the same time, so
// that every process of the server has at least one, then ends all of them
// with that many of the request each, which belongs to no site.
Counts warmUp(int port, int connections, const std::string& request, int requests);

}  // namespace tolvane::test
