#include "http/http_server.h"

#include <microhttpd.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <exception>
#include <optional>
#include <stdexcept>

#include "http/host_rule.h"
#include "http/slow_clients.h"
#include "os/error.h"
#include "os/text.h"

namespace tolvane::agent {

namespace {

constexpr unsigned kMaxConnections = 64;
constexpr unsigned kIdleLimit = 10;  // seconds
constexpr auto kHeaderLimit = std::chrono::seconds(10);
// A connection that is being ended still occupies a place.
constexpr unsigned kPlaces = 2 * kMaxConnections;
constexpr int kMisdirected = 421;
constexpr std::size_t kConnectionMemory = 32U << 10;

// Responses stay in memory until their clients have read them. Above this limit
// the server sends no further responses, so clients that do not read cannot use up the
// memory.
constexpr std::size_t kMaxWaiting = 64U << 20;

constexpr std::pair<const char*, const char*> kSecurityHeaders[] = {
    {"Content-Security-Policy",
     "default-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'; "
     "object-src 'none'"},
    {"X-Content-Type-Options", "nosniff"},
    {"Referrer-Policy", "no-referrer"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
};

struct WaitingBody {
    WaitingBody(std::string body, std::size_t& sum) : text(std::move(body)), waiting(sum) {
        waiting += text.size();
    }
    ~WaitingBody() { waiting -= text.size(); }
    WaitingBody(const WaitingBody&) = delete;
    WaitingBody& operator=(const WaitingBody&) = delete;

    std::string text;
    std::size_t& waiting;
};

void freeBody(void* body) {
    delete static_cast<WaitingBody*>(body);
}

MHD_Result addArgument(void* query, MHD_ValueKind, const char* key, std::size_t keySize,
                       const char* value, std::size_t valueSize) {
    auto& arguments = *static_cast<std::map<std::string, std::string>*>(query);
    std::string text = value != nullptr ? std::string(value, valueSize) : std::string();
    arguments.emplace(std::string(key, keySize), std::move(text));
    return MHD_YES;
}

bool announcesBody(MHD_Connection* connection) {
    for (const char* header : {MHD_HTTP_HEADER_CONTENT_LENGTH, MHD_HTTP_HEADER_TRANSFER_ENCODING}) {
        if (::MHD_lookup_connection_value(connection, MHD_HEADER_KIND, header) != nullptr) {
            return true;
        }
    }
    return false;
}

int socketOf(MHD_Connection* connection) {
    return ::MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
}

std::optional<std::string> hostOf(MHD_Connection* connection) {
    const char* host =
        ::MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_HOST);
    return host == nullptr ? std::nullopt : std::optional<std::string>(host);
}

HttpResponse plainText(int status, std::string text) {
    return {status, "text/plain; charset=utf-8", std::move(text) + "\n", {}};
}

// The thread of the server must not receive signals.
class SignalsBlocked {
  public:
    SignalsBlocked() {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

  private:
    sigset_t before_;
};

}  // namespace

class HttpServer::Impl {
  public:
    Impl(const ListenAddress& address, HttpHandler handler,
         const std::vector<std::string>& allowedHosts);
    ~Impl() { ::MHD_stop_daemon(daemon_); }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    std::uint16_t port() const { return port_; }

  private:
    static void onConnection(void* self, MHD_Connection* connection, void** state,
                             MHD_ConnectionNotificationCode event);
    static void onCompleted(void* self, MHD_Connection* connection, void** state,
                            MHD_RequestTerminationCode);
    static MHD_Result onRequest(void* self, MHD_Connection* connection, const char* url,
                                const char* method, const char* version, const char* upload,
                                std::size_t* uploadSize, void** requestState);
    HttpResponse respond(MHD_Connection* connection, const char* url, const char* method) const;
    MHD_Result send(MHD_Connection* connection, HttpResponse response);

    HttpHandler handler_;
    HostRule hosts_;
    std::optional<SlowClients> slowClients_;
    std::uint16_t port_ = 0;
    std::size_t waiting_ = 0;
    MHD_Daemon* daemon_ = nullptr;
};

HttpServer::Impl::Impl(const ListenAddress& address, HttpHandler handler,
                       const std::vector<std::string>& allowedHosts)
    : handler_(std::move(handler)), hosts_(address, allowedHosts) {
    int listening = listenOn(address);
    port_ = portOf(listening);
    SignalsBlocked blocked;
    slowClients_.emplace(kMaxConnections, kHeaderLimit);
    daemon_ = ::MHD_start_daemon(
        MHD_USE_EPOLL_INTERNAL_THREAD | MHD_USE_ITC, 0, nullptr, nullptr, &Impl::onRequest, this,
        MHD_OPTION_LISTEN_SOCKET, listening, MHD_OPTION_CONNECTION_LIMIT, kPlaces,
        MHD_OPTION_CONNECTION_TIMEOUT, kIdleLimit, MHD_OPTION_CONNECTION_MEMORY_LIMIT,
        kConnectionMemory, MHD_OPTION_STRICT_FOR_CLIENT, 1, MHD_OPTION_NOTIFY_CONNECTION,
        &Impl::onConnection, this, MHD_OPTION_NOTIFY_COMPLETED, &Impl::onCompleted, this,
        MHD_OPTION_END);
    if (daemon_ == nullptr) {
        ::close(listening);
        fail(ErrorKind::kFailed,
             "the pages cannot be served on {}: no thread or no descriptor is left",
             toString(address));
    }
}

void HttpServer::Impl::onConnection(void* self, MHD_Connection* connection, void**,
                                    MHD_ConnectionNotificationCode event) {
    SlowClients& clients = *static_cast<Impl*>(self)->slowClients_;
    if (event == MHD_CONNECTION_NOTIFY_STARTED) {
        clients.opened(socketOf(connection));
    } else {
        clients.closed(socketOf(connection));
    }
}

void HttpServer::Impl::onCompleted(void* self, MHD_Connection* connection, void**,
                                   MHD_RequestTerminationCode) {
    static_cast<Impl*>(self)->slowClients_->responseSent(socketOf(connection));
}

MHD_Result HttpServer::Impl::onRequest(void* self, MHD_Connection* connection, const char* url,
                                       const char* method, const char*, const char*, std::size_t*,
                                       void** requestState) {
    auto& server = *static_cast<Impl*>(self);
    // The first call takes place after the headers. A response in that call ends the
    // connection, which is correct when a body would follow.
    bool isFirst = *requestState == nullptr;
    *requestState = self;
    if (isFirst) server.slowClients_->headersComplete(socketOf(connection));
    if (isFirst && !announcesBody(connection)) return MHD_YES;
    try {
        return server.send(connection, server.respond(connection, url, method));
    } catch (const std::exception&) {
        return MHD_NO;  // out of memory: the connection ends
    }
}

HttpResponse HttpServer::Impl::respond(MHD_Connection* connection, const char* url,
                                       const char* method) const {
    HttpRequest request{method, url, {}};
    if (request.method != "GET" && request.method != "HEAD") {
        HttpResponse refusal = plainText(MHD_HTTP_METHOD_NOT_ALLOWED, "only GET and HEAD");
        refusal.headers.emplace_back("Allow", "GET, HEAD");
        return refusal;
    }
    auto host = hostOf(connection);
    if (!hosts_.accepts(host)) {
        return plainText(kMisdirected, "the collector does not answer for host '" +
                                           printable(*host) +
                                           "'; 'tolvane serve --allow-host NAME' adds a name");
    }
    ::MHD_get_connection_values_n(connection, MHD_GET_ARGUMENT_KIND, addArgument, &request.query);
    try {
        return handler_(request);
    } catch (const std::exception& error) {
        return plainText(MHD_HTTP_INTERNAL_SERVER_ERROR, error.what());
    }
}

MHD_Result HttpServer::Impl::send(MHD_Connection* connection, HttpResponse response) {
    if (waiting_ > 0 && waiting_ + response.body.size() > kMaxWaiting) {
        response = plainText(MHD_HTTP_SERVICE_UNAVAILABLE, "too many responses are being read");
    }
    auto body = std::make_unique<WaitingBody>(std::move(response.body), waiting_);
    MHD_Response* message = ::MHD_create_response_from_buffer_with_free_callback_cls(
        body->text.size(), body->text.data(), freeBody, body.get());
    if (message == nullptr) return MHD_NO;
    static_cast<void>(body.release());
    for (const auto& [name, value] : kSecurityHeaders) {
        ::MHD_add_response_header(message, name, value);
    }
    ::MHD_add_response_header(message, MHD_HTTP_HEADER_CONTENT_TYPE, response.contentType.c_str());
    for (const auto& [name, value] : response.headers) {
        ::MHD_add_response_header(message, name.c_str(), value.c_str());
    }
    MHD_Result result =
        ::MHD_queue_response(connection, static_cast<unsigned>(response.status), message);
    ::MHD_destroy_response(message);
    return result;
}

HttpServer::HttpServer(const ListenAddress& address, HttpHandler handler,
                       const std::vector<std::string>& allowedHosts)
    : impl_(std::make_unique<Impl>(address, std::move(handler), allowedHosts)) {}

HttpServer::~HttpServer() = default;

std::uint16_t HttpServer::port() const {
    return impl_->port();
}

}  // namespace tolvane::agent
