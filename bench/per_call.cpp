// What the shim adds to each kind of call. It is preloaded, and the calls below
// it are empty, so only its own work shows. The baseline of every row calls the
// empty calls directly.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include "browser_requests.h"
#include "empty_calls.h"
#include "fullest_configuration.h"
#include "measured_rows.h"
#include "tolvane/segment_format.h"

using namespace tolvane;
using namespace tolvane::bench;

namespace {

constexpr int kPort = 8080;
constexpr int kTracked = kEmptyFrom;  // what the empty accept returns
constexpr int kUntracked = kEmptyFrom + 1;
constexpr char kUrl[] =
    "/catalogue/2026/autumn/index.html?page=4&sort=price&colour=blue&size=42&source=newsletter";
char byte[] = "x";
std::string response = "HTTP/1.1 200 OK\r\nServer: Apache\r\nContent-Length: 2\r\n\r\nok";

// One way to reach the calls: through the shim, or past it.
struct Calls {
    decltype(&::read) read;
    decltype(&::write) write;
    decltype(&::accept) accept;
    decltype(&::close) close;
};
Calls shim;
Calls empty;
Calls libc;

Calls callsOf(void* library) {
    auto find = [library](const char* name) {
        void* call = dlsym(library, name);
        if (call == nullptr) fail(std::string("no call ") + name);
        return call;
    };
    return {reinterpret_cast<decltype(&::read)>(find("read")),
            reinterpret_cast<decltype(&::write)>(find("write")),
            reinterpret_cast<decltype(&::accept)>(find("accept")),
            reinterpret_cast<decltype(&::close)>(find("close"))};
}

void* loaded(const char* library) {
    void* handle = dlopen(library, RTLD_NOLOAD | RTLD_LAZY);
    if (handle == nullptr) fail(std::string(library) + " is not loaded");
    return handle;
}

int listening;

int listenOnServerPort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(kPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) fail("bind");
    if (listen(fd, 1) != 0) fail("listen");
    return fd;
}

ConfigInfo& attachSegment() {
    std::ifstream handoff(kHandoffDirectory + std::string(kHandoffPrefix) +
                          std::to_string(getpid()));
    for (std::string line; std::getline(handoff, line);) {
        if (line.rfind("Shmid=", 0) != 0) continue;
        void* address = shmat(std::atoi(line.c_str() + 6), nullptr, 0);
        if (address != reinterpret_cast<void*>(-1)) return *static_cast<ConfigInfo*>(address);
    }
    fail("no segment: is the shim preloaded?");
}

// ------------------------------------------------------------ turns of rows

void readRequest(const Calls& calls, std::string& request) {
    // The empty read leaves the buffer as it is: the text is there already.
    calls.read(kTracked, request.data(), request.size());
}
void acceptOne() {
    shim.accept(listening, nullptr, nullptr);
}
// Lets the next read start a request, and the next write a response.
void writeNothing() {
    shim.write(kTracked, byte, 0);
}

std::string plainRequest;
std::string lateHostRequest;
std::string matchedRequest;
std::string longRequest;
std::string keepAliveRequest;

void startRequest() {
    acceptOne();
    readRequest(shim, plainRequest);
}
void startResponse() {
    startRequest();
    shim.write(kTracked, response.data(), response.size());
}
void startMatchedResponse() {
    acceptOne();
    readRequest(shim, matchedRequest);
    shim.write(kTracked, response.data(), response.size());
}

// A response whose body ends with the connection.
void startLongResponse() {
    startRequest();
    static constexpr char kHead[] = "HTTP/1.1 200 OK\r\nServer: Apache\r\n\r\n";
    shim.write(kTracked, kHead, sizeof kHead - 1);
}

template <const Calls& calls, int fd>
void readByte() {
    calls.read(fd, byte, 1);
}
template <const Calls& calls>
void writeByte() {
    calls.write(kTracked, byte, 1);
}
template <const Calls& calls, std::string& request>
void requestStart() {
    writeNothing();
    readRequest(calls, request);
}
template <const Calls& calls>
void responseStart() {
    readByte<shim, kTracked>();
    writeNothing();
    calls.write(kTracked, response.data(), response.size());
}
// A request and its response on a connection that stays open.
template <const Calls& calls, std::string& request>
void exchange() {
    readRequest(calls, request);
    calls.write(kTracked, response.data(), response.size());
}

// A stream of an HTTP/2 connection: the request of a browser, most of whose fields are in
// the header table, and a response of a kilobyte.
std::string frame(char type, char flags, const std::string& content) {
    const auto length = content.size();
    return std::string{0, static_cast<char>(length >> 8), static_cast<char>(length), type, flags} +
           std::string(4, '\0') + content;
}
std::string streamRequest;
std::string streamResponse;
std::uint32_t stream;

void nextStream(std::string& frames, std::size_t frameAt) {
    for (std::size_t i = 0; i < 4; ++i) {
        frames[frameAt + 5 + i] = static_cast<char>(stream >> (24 - 8 * i));
    }
}
// The first request adds its fields to the table.
void openHttp2() {
    constexpr char kHeaders = 1;
    constexpr char kData = 0;
    constexpr char kWhole = 5;  // ends the stream and the header block
    const auto field = [](const std::string& name, const std::string& value) {
        return "\x40" + std::string{static_cast<char>(name.size())} + name +
               static_cast<char>(value.size()) + value;
    };
    std::string block = "\x82\x87" + field(":authority", kLastHost);
    std::string again = std::string("\x82\x87") + "\xc4";
    for (int i = 0; i < 6; ++i) {
        block += field("x-field-" + std::to_string(i), "what a browser says of itself");
        again += static_cast<char>('\xbe' + i);
    }
    const std::string url = kUrl;
    again += std::string("\x04") + static_cast<char>(url.size()) + url;
    std::string opening = "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + frame(4, 0, "");
    const std::size_t first = opening.size();
    opening += frame(kHeaders, kWhole, block + "\x84");
    std::string settings = frame(4, 0, "");
    streamRequest = frame(kHeaders, kWhole, again);
    const std::string responseHead = frame(kHeaders, 4, std::string("\x88") + "\x5c\x04" + "1000");
    streamResponse = responseHead + frame(kData, 1, std::string(1000, 'x'));
    acceptOne();
    stream = 1;
    nextStream(opening, first);
    readRequest(shim, opening);
    shim.write(kTracked, settings.data(), settings.size());
}
template <const Calls& calls>
void exchangeOnStream() {
    static const std::size_t dataAt = streamResponse.size() - 1000 - 9;
    stream += 2;
    nextStream(streamRequest, 0);
    nextStream(streamResponse, 0);
    nextStream(streamResponse, dataAt);
    readRequest(calls, streamRequest);
    calls.write(kTracked, streamResponse.data(), streamResponse.size());
}
template <const Calls& calls>
void acceptAndClose() {
    calls.accept(listening, nullptr, nullptr);
    calls.close(kTracked);
}

void addTransfers(const std::string& where) {
    addCost({"read that starts nothing" + where, startRequest, readByte<shim, kTracked>,
             readByte<empty, kTracked>});
    addCost(
        {"write that starts nothing" + where, startResponse, writeByte<shim>, writeByte<empty>});
}

template <std::string& request>
void addRequestStart(const std::string& name) {
    addCost({"request start, " + name, acceptOne, requestStart<shim, request>,
             requestStart<empty, request>});
}

template <std::string& request>
void addExchange(const std::string& name) {
    addCost({"request and response, " + name, acceptOne, exchange<shim, request>,
             exchange<empty, request>});
}

// ---------------------------------------------------------- bare system calls

int localPair[2];
int tcpPair[2];

template <int* pair>
void writeAndRead() {
    if (libc.write(pair[0], byte, 1) != 1 || libc.read(pair[1], byte, 1) != 1) fail("bare call");
}

void connectTcpPair() {
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    int listener = socket(AF_INET, SOCK_STREAM, 0);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    tcpPair[0] = socket(AF_INET, SOCK_STREAM, 0);
    int on = 1;
    setsockopt(tcpPair[0], IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    auto realAccept = reinterpret_cast<decltype(&::accept)>(dlsym(loaded("libc.so.6"), "accept"));
    if (bind(listener, generic, length) != 0 || ::listen(listener, 1) != 0 ||
        getsockname(listener, generic, &length) != 0 || connect(tcpPair[0], generic, length) != 0 ||
        (tcpPair[1] = realAccept(listener, nullptr, nullptr)) < 0) {
        fail("no connection to ourselves: is the loopback interface up?");
    }
}

void addBareCalls(bool shown) {
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, localPair) != 0) fail("socketpair");
    connectTcpPair();
    addBareCall({"bare call, local socket", writeAndRead<localPair>, shown});
    addBareCall({"bare call, TCP", writeAndRead<tcpPair>, shown});
}

// -------------------------------------------------------------- configurations

void makeRequests() {
    const auto request = [](HostLine place, const std::string& url) {
        return browserRequest(Browser::kChrome, place, kLastHost, url);
    };
    plainRequest = request(HostLine::kFirst, kUrl);
    lateHostRequest = request(HostLine::kLast, kUrl);
    matchedRequest = request(HostLine::kFirst, kMatchingUrl);
    longRequest = request(HostLine::kFirst, hostileUrl(8000));
    keepAliveRequest = browserRequest(Browser::kFirefox, HostLine::kFirst, kLastHost, kUrl);
}

// A type 0 process takes a configuration at its next publication, a threaded
// one at its first connection.
void configure(void (*fill)(ConfigInfo&), bool threads) {
    ConfigInfo& config = attachSegment();
    fill(config);
    config.version = 1;
    acceptOne();
    if (threads) {
        // The monitor's first cycle passes meanwhile; the next is a minute away.
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        return;
    }
    for (int i = std::atoi(std::getenv("REQUEST_INTERVAL")); i > 0; --i) writeByte<shim>();
}

void addUnconfigured() {
    addCost({"untracked descriptor, read", acceptOne, readByte<shim, kUntracked>,
             readByte<empty, kUntracked>});
    addTransfers("");
    addRequestStart<plainRequest>("no configuration");
    addCost({"response start", acceptOne, responseStart<shim>, responseStart<empty>});
    addCost({"accept and close", acceptOne, acceptAndClose<shim>, acceptAndClose<empty>});
}

// What both ways of counting do, in the same rows.
void addExchanges(const std::string& counting) {
    addExchange<keepAliveRequest>("browser's keep-alive" + counting);
    addExchange<matchedRequest>("URL matches one category" + counting);
}

void addMessages() {
    addExchanges(", by messages");
    addExchange<lateHostRequest>("Host line last, by messages");
    addCost({"HTTP/2 request and response, by messages", openHttp2, exchangeOnStream<shim>,
             exchangeOnStream<empty>});
    addCost({"write within a response, by messages", startLongResponse, writeByte<shim>,
             writeByte<empty>});
    addCost(
        {"accept and close, by messages", acceptOne, acceptAndClose<shim>, acceptAndClose<empty>});
}

void addFullest() {
    addExchanges("");
    addTransfers(", fullest configuration");
    addRequestStart<plainRequest>("fullest configuration, URL matches nothing");
    addRequestStart<lateHostRequest>("fullest configuration, Host line last");
    addRequestStart<matchedRequest>("fullest configuration, URL matches one category");
    addRequestStart<longRequest>("fullest configuration, hostile URL of 8,000 bytes");
    addCost({"write that starts nothing, one category matched", startMatchedResponse,
             writeByte<shim>, writeByte<empty>});
}

void addThreads() {
    addTransfers(", threaded server");
    addCost({"accept and close, threaded server", acceptOne, acceptAndClose<shim>,
             acceptAndClose<empty>});
}

}  // namespace

// per_call none|small|fullest|messages|threads [--instructions]
int main(int argc, char** argv) {
    if (argc < 2) fail("usage: per_call none|small|fullest|messages|threads [--instructions]");
    const std::string group = argv[1];
    empty = callsOf(loaded("libempty_calls.so"));
    libc = callsOf(loaded("libc.so.6"));
    shim = callsOf(RTLD_DEFAULT);
    makeRequests();
    listening = listenOnServerPort();
    addBareCalls(group == "none");
    if (group == "none") addUnconfigured();
    if (group == "small") {
        configure(smallConfiguration, false);
        addRequestStart<plainRequest>("one site and category");
    }
    if (group == "fullest") {
        configure(fullestConfiguration, false);
        addFullest();
    }
    if (group == "messages") {
        configure(fullestConfiguration, false);
        addMessages();
    }
    if (group == "threads") {
        configure(fullestConfiguration, true);
        addThreads();
    }
    return runRows(sizeof(void*) == 8 ? "Per call, 64-bit" : "Per call, 32-bit", argc - 1,
                   argv + 1);
}
