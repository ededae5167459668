// Servers with OpenSSL when HTTP messages are counted: what their clients saw over TLS is
// counted, with HTTP/1.1 and HTTP/2.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <list>
#include <sstream>
#include <stdexcept>

#include "support/http_client.h"
#include "support/process.h"
#include "support/sandbox.h"

namespace tolvane::test {
namespace {

using namespace std::chrono_literals;

constexpr int kPort = 8443;
constexpr std::size_t kSmall = 100;
constexpr std::size_t kLarge = 300000;
// The port of the first name is the default.
const std::vector<Site> kSites = {{"a.test:443", {"/small*", "/large*"}}, {"b.test:8443", {"*"}}};

struct Server {
    const char* name;
    const char* module;
    bool http2;
    std::vector<std::string> command;
    std::string file;  // its configuration
    std::string text;
};

constexpr char kApacheFile[] = "/opt/server/conf/httpd.conf";
// Other servers have no such file, so the test writes what the library reads of it.
constexpr char kListens[] =
    "Listen 127.0.0.1:8443\n<VirtualHost *:8443>\nSSLEngine on\n</VirtualHost>\n";

Server apache(const char* module, const std::string& modules, const std::string& settings) {
    std::string text = "ServerRoot /opt/server\nPidFile logs/httpd.pid\nErrorLog logs/error_log\n";
    for (const std::string& name :
         {"mpm_" + std::string(module), std::string("authz_core"), std::string("ssl")}) {
        text += "LoadModule " + name + "_module /usr/lib/apache2/modules/mod_" + name + ".so\n";
    }
    text += modules + settings +
            "ServerName a.test\nDocumentRoot /opt/server/htdocs\nUser www-data\nGroup www-data\n"
            "MaxKeepAliveRequests 0\nListen 127.0.0.1:8443\n<VirtualHost *:8443>\nSSLEngine on\n"
            "SSLCertificateFile /opt/pair.pem\n</VirtualHost>\n";
    return {module,           module,
            !modules.empty(), {"/usr/sbin/apache2", "-f", kApacheFile, "-DFOREGROUND"},
            kApacheFile,      text};
}

const Server kApacheEvent =
    apache("event",
           "LoadModule http2_module /usr/lib/apache2/modules/mod_http2.so\nProtocols h2 http/1.1\n",
           "StartServers 2\nThreadsPerChild 25\nMaxRequestWorkers 75\n");

const Server kNginx = {
    "nginx",
    "event",
    true,
    {"/usr/sbin/nginx", "-c", "/opt/server.conf", "-e", "/opt/server/logs/error_log"},
    "/opt/server.conf",
    "daemon off; worker_processes 2; pid /opt/nginx.pid;\nevents {}\n"
    "http { access_log off; client_body_temp_path /opt/t1; proxy_temp_path /opt/t2;\n"
    "fastcgi_temp_path /opt/t3; uwsgi_temp_path /opt/t4; scgi_temp_path /opt/t5;\n"
    "ssl_certificate /opt/pair.pem; ssl_certificate_key /opt/pair.pem; ssl_early_data on;\n"
    "ssl_protocols TLSv1.2 TLSv1.3;\n"
    "server { listen 127.0.0.1:8443 ssl http2; root /opt/server/htdocs; sendfile on; } }\n"};

const std::vector<Server> kServers = {
    kApacheEvent,
    apache("prefork", "", "StartServers 6\nMinSpareServers 1\nMaxSpareServers 6\n"),
    kNginx,
    {"haproxy",
     "worker",
     true,
     {"/usr/sbin/haproxy", "-db", "-q", "-f", "/opt/server.conf"},
     "/opt/server.conf",
     "global\n nbthread 2\n tune.bufsize 400000\n"
     "defaults\n mode http\n timeout connect 5s\n timeout client 20s\n timeout server 20s\n"
     "frontend f\n bind 127.0.0.1:8443 ssl crt /opt/pair.pem alpn h2,http/1.1\n"
     " http-request return status 404 if { path /missing }\n"
     " http-request return content-type a/b file /opt/server/htdocs/large.bin"
     " if { path /large.bin }\n"
     " http-request return content-type a/b file /opt/server/htdocs/small.html\n"},
    {"lighttpd",
     "event",
     true,
     {"/usr/sbin/lighttpd", "-D", "-f", "/opt/server.conf"},
     "/opt/server.conf",
     "server.modules = (\"mod_openssl\")\nserver.document-root = \"/opt/server/htdocs\"\n"
     "server.errorlog = \"/opt/server/logs/error_log\"\nserver.max-keep-alive-requests = 10000\n"
     "server.bind = \"127.0.0.1\"\nserver.port = 8443\nssl.engine = \"enable\"\n"
     "ssl.pemfile = \"/opt/pair.pem\"\n"},
    {"python",
     "worker",
     false,
     {"/usr/bin/python3", "/opt/server.py"},
     "/opt/server.py",
     "import http.server, os, ssl\nos.chdir('/opt/server/htdocs')\n"
     "class Handler(http.server.SimpleHTTPRequestHandler):\n"
     "    protocol_version = 'HTTP/1.1'\n    log_message = lambda *_: None\n"
     "server = http.server.ThreadingHTTPServer(('127.0.0.1', 8443), Handler)\n"
     "context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)\n"
     "context.load_cert_chain('/opt/pair.pem')\n"
     "server.socket = context.wrap_socket(server.socket, server_side=True,\n"
     "                                    do_handshake_on_connect=False)\n"
     "server.serve_forever()\n"},
};

// What a shell command prints.
std::string output(const std::string& command, bool succeeds = true) {
    Process process({"/bin/sh", "-c", "{ " + command + "\n} >/opt/output 2>&1"}, {});
    const auto status = process.wait(30s);
    const std::string printed = readFile("/opt/output");
    EXPECT_TRUE(status && (*status == 0 || !succeeds)) << command << "\n" << printed;
    return printed;
}

// curl with options and URLs, which prints for each transfer what `addTransfers` takes.
std::string curl(const std::string& arguments) {
    return "curl -sSk -m 20 --connect-to ::127.0.0.1:8443 -w '%{http_code} %{size_header} "
           "%{size_download} %{num_connects}\\n' " +
           arguments;
}

// Adds the transfers that curl printed. Heads of HTTP/2 have another size on the wire.
void addTransfers(const std::string& printed, int site, const std::vector<int>& categories,
                  bool heads, Counts& counts) {
    std::istringstream lines(printed);
    std::size_t head, body, connects, n = 0;
    for (int status; lines >> status >> head >> body >> connects; ++n) {
        counts.addRequest(site, categories[n % categories.size()], 0, heads ? head + body : body,
                          status);
        counts.total.connections += static_cast<unsigned>(connects);
        counts.site[site].connections += n == 0 || connects > 0;
    }
    EXPECT_TRUE(lines.eof() && n >= categories.size()) << printed;
}

// The connection counts in the totals only.
void addStranger(const std::string& text, Counts& counts) {
    const int fd = connectTo(kPort);
    if (!text.empty()) {
        sendAll(fd, text);
        shutdown(fd, SHUT_WR);
        char buffer[4096];
        while (recv(fd, buffer, sizeof buffer, 0) > 0) continue;
    }
    close(fd);
    ++counts.total.connections;
}

bool listens(Counts& counts) {
    try {
        addStranger("", counts);
        return true;
    } catch (const std::runtime_error&) {
        return false;
    }
}

class Measured {
  public:
    explicit Measured(const Server& server) : process_(start(server)) {
        if (server.file != kApacheFile) {
            writeFile("/opt/server/logs/httpd.pid", std::to_string(process_.pid()) + "\n");
        }
        segment.configure(kSites, 1);
        EXPECT_TRUE(eventually(10s, [this] { return listens(expected); }))
            << readFile("/opt/server/logs/error_log");
    }
    void signal(int number) const { process_.signal(number); }

    // `heads`: the bytes of each site are known.
    void expectCounted(bool heads = true) const {
        const std::string text = known(expected, heads);
        eventually(4s, [&] { return known(segment.counts(), heads) == text; });
        EXPECT_EQ(known(segment.counts(), heads), text);
        for (std::size_t site = 0; site < kSites.size() && !heads; ++site) {
            const CounterBlock& client = expected.site[site];
            const std::uint64_t sent = segment.counts().site[site].bytesSent;
            EXPECT_GE(sent, client.bytesSent + 9 * client.requests);
            EXPECT_LE(sent, client.bytesSent + client.bytesSent / 500 + 300 * client.requests);
        }
    }

  private:
    static Process start(const Server& server) {
        resetSandbox();
        writeFile("/opt/server/htdocs/small.html", std::string(kSmall, 's'));
        writeFile("/opt/server/htdocs/large.bin", std::string(kLarge, 'l'));
        writeFile("/opt/server/logs/.tolvane_info", std::string(server.module) + "\n");
        writeFile(kApacheFile, kListens);
        writeFile(server.file, server.text);
        output(
            "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes"
            " -subj /CN=a.test -keyout /opt/key.pem -out /opt/pair.pem\n"
            "cat /opt/key.pem >>/opt/pair.pem");
        return Process(server.command, {"LD_PRELOAD=" TOLVANE_LIBRARY, "WEB_SERVER=apache",
                                        "WEB_SERVER_ROOT=/opt/server", "SSL_FACTOR=ssl",
                                        "TOLVANE_COUNTING=messages"});
    }

    // What a client knows: not the bytes of TLS, nor how its requests were sent.
    static std::string known(Counts counts, bool heads) {
        counts.total.bytesReceived = counts.total.bytesSent = counts.total.openConnections = 0;
        for (CounterBlock& site : counts.site) {
            site.bytesReceived = site.openConnections = 0;
            if (!heads) site.bytesSent = 0;
        }
        for (auto& site : counts.category) {
            for (CategoryCounters& category : site) category.bytesSent *= heads;
        }
        return counts.text();
    }

    Process process_;

  public:
    Segment segment;
    Counts expected;
};

struct Case {
    const Server* server;
    bool http2;
};
void PrintTo(const Case& one, std::ostream* out) {
    *out << one.server->name << (one.http2 ? "Http2" : "Http1");
}

std::vector<Case> cases() {
    std::vector<Case> all;
    for (const Server& server : kServers) {
        all.push_back({&server, false});
        if (server.http2) all.push_back({&server, true});
    }
    return all;
}

class Https : public testing::TestWithParam<Case> {};
INSTANTIATE_TEST_SUITE_P(Servers, Https, testing::ValuesIn(cases()),
                         testing::PrintToStringParamName());

TEST_P(Https, CountsEqualWhatTheClientsSaw) {
    const auto& [server, http2] = GetParam();
    Measured measured(*server);
    Counts& expected = measured.expected;
    const std::string version = http2 ? "--http2 " : "--http1.1 ";
    const auto add = [&](const std::string& arguments, int site, std::vector<int> categories) {
        addTransfers(output(curl(version + arguments)), site, categories, !http2, expected);
    };
    for (const char* tls : {"--tlsv1.3", "--tls-max 1.2"}) {
        add(tls + std::string(" https://a.test/small.html -o /dev/null https://a.test/large.bin "
                              "-o /dev/null https://a.test/missing -o /dev/null"),
            0, {0, 1, -1});
    }
    add("-I https://b.test:8443/large.bin -o /dev/null", 1, {0});
    // curl 7.88 fails where a server answers before it has all of an HTTP/2 request.
    add(std::string(http2 ? "" : "-H Expect:100-continue -d some=body ") +
            "https://b.test:8443/small.html -o /dev/null",
        1, {0});
    const std::string load =
        output("h2load -n 400 -c 4 -m 20 " + std::string(http2 ? "" : "--h1 ") +
               "--connect-to 127.0.0.1:8443 https://a.test/small.html");
    EXPECT_NE(load.find("status codes: 400 2xx"), std::string::npos) << load;
    const std::string traffic = load.substr(load.find("\ntraffic: "));
    const std::size_t bytes = std::strtoul(traffic.c_str() + traffic.find('(') + 1, nullptr, 10);
    for (int i = 0; i < 400; ++i) {
        expected.addRequest(0, 0, 0, http2 ? kSmall : i == 0 ? bytes : 0, 200);
    }
    expected.total.connections += 4;
    expected.site[0].connections += 4;
    for (const char* text : {"GET /small.html HTTP/1.1\r\nHost: a.test\r\n\r\n", "\x16\x03\x01"}) {
        addStranger(text, expected);
    }
    EXPECT_EQ(expected.total.requests, 408U);
    measured.expectCounted(!http2);
}

TEST(HttpsEarlyData, IsCountedOnce) {
    Measured measured(kNginx);
    const std::string request =
        "GET /small.html HTTP/1.1\r\nHost: a.test\r\nConnection: close\r\n\r\n";
    writeFile("/opt/request", request);
    writeFile("/opt/part", request.substr(0, 30));
    writeFile("/opt/rest", request.substr(30));
    const std::string client = "openssl s_client -connect 127.0.0.1:8443 -tls1_3 -ign_eof ";
    output("(sleep 0.2; cat /opt/request) | " + client + "-sess_out /opt/session");
    for (const char* data : {"-early_data /opt/request </dev/null", "-early_data /opt/part"}) {
        const std::string printed = output(
            "(sleep 0.2; cat /opt/rest) | " + client + "-sess_in /opt/session " + data, false);
        EXPECT_NE(printed.find("Early data was accepted"), std::string::npos) << printed;
    }
    for (int i = 0; i < 3; ++i) {
        measured.expected.addRequest(0, 0, 0, kSmall, 200);
        ++measured.expected.total.connections;
        ++measured.expected.site[0].connections;
    }
    measured.expectCounted(false);
}

// Clients of HTTP/1.1 ask the first site, those of HTTP/2 the second.
TEST(HttpsReload, CountsEveryRequest) {
    Measured measured(kApacheEvent);
    const char* const urls[] = {"--http1.1 'https://a.test/small.html?[1-40]'",
                                "--http2 'https://b.test:8443/small.html?[1-40]'"};
    std::list<Process> clients;
    for (int i = 0; i < 4; ++i) {
        clients.emplace_back(
            std::vector<std::string>{"/bin/sh", "-c",
                                     "while [ ! -e /opt/stop ]; do " + curl(urls[i % 2]) +
                                         " -o /dev/null; done >/opt/books" + std::to_string(i) +
                                         " 2>/dev/null"},
            std::vector<std::string>{});
    }
    for (int i = 0; i < 3; ++i) {
        usleep(700000);
        measured.signal(SIGUSR1);
    }
    usleep(700000);
    writeFile("/opt/stop", "");
    for (Process& client : clients) EXPECT_EQ(client.wait(20s), 0);
    Counts& client = measured.expected;
    for (int i = 0; i < 4; ++i) {
        addTransfers(readFile("/opt/books" + std::to_string(i)), i % 2, {0}, false, client);
    }
    EXPECT_GT(client.total.requests, 400U);
    // Of HTTP/2, Apache also takes requests that it does not answer.
    const auto equal = [&] {
        const Counts counted = measured.segment.counts();
        const CounterBlock &first = counted.site[0], &second = counted.site[1];
        return first.requests == client.site[0].requests && first.droppedRequests == 0 &&
               first.connections == client.site[0].connections &&
               second.requests - second.droppedRequests ==
                   client.site[1].requests - client.site[1].droppedRequests;
    };
    EXPECT_TRUE(eventually(4s, equal))
        << measured.segment.counts().text() << "\ninstead of " << client.text();
}

}  // namespace
}  // namespace tolvane::test
