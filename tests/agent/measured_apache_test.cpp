// The tool with the distribution's Apache, from its start to its end.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "fake_server.h"
#include "support/http_client.h"
#include "support/process.h"
#include "support/sandbox.h"

namespace tolvane::agent::test {
namespace {

using namespace std::chrono_literals;
using tolvane::test::writeFile;

constexpr int kPort = 8080;

// As a distribution lays it out: nothing lies where the shim looks.
void layOutServer(const std::string& module) {
    std::filesystem::create_directories("/opt/etc/sites");
    std::string conf = "ServerName a\nPidFile /opt/etc/server.pid\nErrorLog /opt/etc/error.log\n";
    for (const std::string& name : {"mpm_" + module, std::string("authz_core")}) {
        conf += "LoadModule " + name + "_module /usr/lib/apache2/modules/mod_" + name + ".so\n";
    }
    if (geteuid() == 0) conf += "User www-data\nGroup www-data\n";
    conf += module == "prefork"
                ? "StartServers 1\nMinSpareServers 1\nMaxSpareServers 1\nMaxRequestWorkers 11\n"
                : "StartServers 1\nThreadsPerChild 25\nMaxRequestWorkers 25\n";
    writeFile("/opt/etc/main.conf", conf + "IncludeOptional /opt/etc/sites/*.conf\n");
    writeFile("/opt/etc/sites/a.conf", "Listen 127.0.0.1:8080\nDocumentRoot /opt/server/htdocs\n");
    writeFile("/opt/server/htdocs/page.html", "page");
    writeFile("/opt/sites.toml",
              "interval = 1\n[[site]]\nname = \"a.test\"\n[[site.category]]\nlabel = \"pages\"\n"
              "urls = [\"/page*\"]\n");
}

class MeasuredApache : public testing::TestWithParam<const char*> {};

TEST_P(MeasuredApache, StartsCountsAndStopsCleanly) {
    if (access("/usr/sbin/apache2", X_OK) != 0) GTEST_SKIP() << "no apache2";
    layOutServer(GetParam());
    tolvane::test::Process server(
        {TOLVANE_PROGRAM, "run", "--library", TOLVANE_LIBRARY, "--request-interval", "1", "--",
         "/usr/sbin/apache2", "-d", "/opt/etc", "-f", "main.conf", "-D", "FOREGROUND"},
        {});
    ASSERT_TRUE(tolvane::test::eventually(20s, [] { return tolvane({"list"}).code == 0; }));
    ASSERT_EQ(tolvane({"configure", "/opt/sites.toml"}).code, 0);
    tolvane::test::Counts sent;
    auto shown = [] { return nlohmann::json::parse(tolvane({"show", "--json"}).output).at(0); };
    // The first requests may come before their process has the configuration.
    auto counted = [&] {
        tolvane::test::HttpConnection connection(kPort, sent);
        connection.exchange({tolvane::test::get("a.test", "/page.html")});
        return shown()["sites"][0]["requests"] > 0;
    };
    ASSERT_TRUE(tolvane::test::eventually(20s, counted));
    std::this_thread::sleep_for(2500ms);
    auto before = shown();
    {
        tolvane::test::HttpConnection connection(kPort, sent);
        for (int i = 0; i < 20; ++i)
            connection.exchange({tolvane::test::get("a.test", "/page.html")});
        for (int i = 0; i < 5; ++i) connection.exchange({tolvane::test::get("a.test", "/missing")});
    }
    auto added = [&](const char* what) {
        return shown()["sites"][0][what].get<int>() - before["sites"][0][what].get<int>();
    };
    EXPECT_TRUE(tolvane::test::eventually(10s, [&] { return added("requests") == 25; })) << shown();
    EXPECT_EQ(added("errors"), 5);
    EXPECT_EQ(shown()["sites"][0]["categories"][0]["label"], "pages");
    Outcome doctor = tolvane({"doctor"});
    EXPECT_EQ(doctor.code, 0) << doctor.output;
    server.signal(SIGTERM);
    ASSERT_TRUE(server.wait(20s));
    EXPECT_EQ(tolvane({"list"}).code, 1);
    EXPECT_EQ(tolvane::test::systemVObjects("shm") + tolvane::test::systemVObjects("sem"), 0);
}

// A server that detaches counts its first request for a site, and a wrong file prevents
// the start.
TEST_P(MeasuredApache, IsConfiguredAsItStarts) {
    if (access("/usr/sbin/apache2", X_OK) != 0) GTEST_SKIP() << "no apache2";
    layOutServer(GetParam());
    auto start = [](const std::string& file) {
        return tolvane({"run", "--config", file, "--library", TOLVANE_LIBRARY, "--",
                        "/usr/sbin/apache2", "-d", "/opt/etc", "-f", "main.conf", "-k", "start"});
    };
    writeFile("/opt/wrong.toml", "interval = 0\n");
    Outcome refused = start("/opt/wrong.toml");
    EXPECT_EQ(refused.code, 2);
    EXPECT_EQ(refused.errors.find("tolvane: /opt/wrong.toml:1:12: interval is 0"), 0U);
    EXPECT_EQ(tolvane({"list"}).code, 1);

    Outcome started = start("/opt/sites.toml");
    EXPECT_EQ(started.code, 0);
    EXPECT_NE(started.errors.find("configuration 1 written: 1 site"), std::string::npos)
        << started.errors;
    EXPECT_NE(started.errors.find("In force within 2 s"), std::string::npos) << started.errors;
    tolvane::test::Counts sent;
    {
        tolvane::test::HttpConnection connection(kPort, sent);
        connection.exchange({tolvane::test::get("a.test", "/page.html")});
    }
    auto requests = [] {
        auto json = nlohmann::json::parse(tolvane({"show", "--json"}).output);
        return json.at(0)["sites"][0]["requests"] == 1;
    };
    EXPECT_TRUE(tolvane::test::eventually(10s, requests)) << tolvane({"show"}).output;
    kill(std::stoi(tolvane::test::readFile("/opt/etc/server.pid")), SIGTERM);
    EXPECT_TRUE(
        tolvane::test::eventually(20s, [] { return tolvane::test::systemVObjects("shm") == 0; }));
}

// As on Debian, where the control script sets variables and creates directories.
TEST(MeasuredApacheStart, HintsAtTheControlScript) {
    if (access("/usr/sbin/apache2", X_OK) != 0) GTEST_SKIP() << "no apache2";
    for (const char* line :
         {"Mutex file:/opt/absent default\n", "User ${APACHE_RUN_USER}\n", "Lisen 80\n"}) {
        layOutServer("prefork");
        writeFile("/opt/etc/sites/b.conf", line);
        Outcome outcome = tolvane({"run", "--library", TOLVANE_LIBRARY, "--", "/usr/sbin/apache2",
                                   "-d", "/opt/etc", "-f", "main.conf", "-k", "start"});
        bool hinted = outcome.errors.find("tolvane run -- apachectl start") != std::string::npos;
        EXPECT_EQ(hinted, line[0] != 'L') << outcome.errors;
        EXPECT_EQ(outcome.code, 2);
    }
}

// Started by hand, without the file that names the module.
TEST_P(MeasuredApache, WithUnexpectedThreadsIsReported) {
    if (access("/usr/sbin/apache2", X_OK) != 0) GTEST_SKIP() << "no apache2";
    const bool threaded = std::string(GetParam()) != "prefork";
    layOutServer(GetParam());
    writeFile("/opt/server/conf/httpd.conf", "Listen 127.0.0.1:8080\nMaxClients 11\n");
    std::filesystem::create_directories("/opt/server/logs");
    std::filesystem::create_symlink("/opt/etc/server.pid", "/opt/server/logs/httpd.pid");
    tolvane::test::Process server(
        {"/usr/sbin/apache2", "-d", "/opt/etc", "-f", "main.conf", "-D", "FOREGROUND"},
        {std::string("LD_PRELOAD=") + TOLVANE_LIBRARY, "WEB_SERVER=apache",
         "WEB_SERVER_ROOT=/opt/server"});
    auto has = [](const std::string& command, const std::string& text) {
        return tolvane({command}).output.find(text) != std::string::npos;
    };
    ASSERT_TRUE(tolvane::test::eventually(
        20s, [&] { return tolvane({"list"}).code == 0 && !server.children().empty(); }));
    const std::string fault = "it has threads but was taken for one connection per process";
    const std::string file = "/opt/server/logs/.tolvane_info";
    EXPECT_EQ(has("doctor", fault + " -> echo " + GetParam() + " > " + file), threaded);
    EXPECT_EQ(has("show", "Note: " + fault), threaded);

    // Any local user can write such a line, so it counts only for a threaded server.
    const std::string worker = std::to_string(server.children().back());
    const std::string line =
        "  This server has threads but was taken for one connection per process: process " +
        worker + " measures nothing more\n";
    writeFile(kLogFile, "01/01/2001 00:00:00" + line);
    EXPECT_FALSE(has("doctor", worker + " has stopped measuring"));
    writeFile(kLogFile, "01/01/2099 00:00:00" + line);
    EXPECT_EQ(has("doctor", "process " + worker + " has stopped measuring"), threaded);

    std::this_thread::sleep_for(1100ms);
    writeFile(file, std::string(GetParam()) + "\n");
    EXPECT_EQ(has("doctor", " -> restart it: " + file + " was written after its start"), threaded);
}

// By the way of counting and by OpenSSL, which the server loads with mod_ssl.
TEST(MeasuredApacheHttps, IsReportedWhereItIsNotRead) {
    if (access("/usr/sbin/apache2", X_OK) != 0) GTEST_SKIP() << "no apache2";
    const std::string module =
        "LoadModule ssl_module /usr/lib/apache2/modules/mod_ssl.so\nSSLSessionCache none\n";
    const struct {
        const char *counting, *factor, *ssl;
        bool loads;
        const char* expected;
    } kCases[] = {
        {"calls", "startssl", "  sslengine On\n", true, "read: socket calls are counted; of"},
        {"messages", "startssl", "SSLEngine on\n", false, "read: the server does not load"},
        {"messages", "startssl", "SSLEngine on\n", true, nullptr},
        {"messages", "start", "SSLEngine on\n", false, nullptr},
        {"messages", "startssl", "SSLEngine off\n#SSLEngine on\n", false, nullptr},
    };
    for (const auto& one : kCases) {
        tolvane::test::resetSandbox();
        layOutServer("event");
        if (one.loads) writeFile("/opt/etc/sites/ssl.conf", module);
        writeFile("/opt/server/conf/httpd.conf", "Listen 127.0.0.1:8080\n<VirtualHost *:8443>\n" +
                                                     std::string(one.ssl) + "</VirtualHost>\n");
        writeFile("/opt/server/logs/.tolvane_info", "event\n");
        std::filesystem::create_symlink("/opt/etc/server.pid", "/opt/server/logs/httpd.pid");
        tolvane::test::Process server(
            {"/usr/sbin/apache2", "-d", "/opt/etc", "-f", "main.conf", "-D", "FOREGROUND"},
            {std::string("LD_PRELOAD=") + TOLVANE_LIBRARY, "WEB_SERVER=apache",
             "WEB_SERVER_ROOT=/opt/server", std::string("SSL_FACTOR=") + one.factor,
             std::string("TOLVANE_COUNTING=") + one.counting});
        ASSERT_TRUE(tolvane::test::eventually(
            20s, [&] { return tolvane({"list"}).code == 0 && !server.children().empty(); }));
        const std::string doctor = tolvane({"doctor"}).output;
        const std::string expected = one.expected != nullptr ? one.expected : "HTTPS is not read";
        EXPECT_EQ(doctor.find(expected) != std::string::npos, one.expected != nullptr) << doctor;
    }
}

// A response that is not copied: its bytes are discarded in the kernel.
class Download {
  public:
    explicit Download(const std::string& path) : fd_(tolvane::test::connectTo(kPort)) {
        tolvane::test::sendAll(
            fd_, "GET " + path + " HTTP/1.1\r\nHost: a.test\r\nConnection: close\r\n\r\n");
    }
    ~Download() { close(fd_); }
    Download(const Download&) = delete;
    Download& operator=(const Download&) = delete;

    // Receives so many bytes, or what there is. Returns the sum.
    std::uint64_t receive(std::uint64_t limit) {
        while (received_ < limit) {
            const ssize_t n = recv(fd_, nullptr, std::size_t{1} << 24, MSG_TRUNC);
            if (n <= 0) break;
            received_ += static_cast<std::uint64_t>(n);
        }
        return received_;
    }

  private:
    int fd_;
    std::uint64_t received_ = 0;
};

// The bytes sent by the server, by its site, and in the category.
using SentBytes = std::array<std::uint64_t, 3>;

SentBytes collected(int port) {
    const int fd = tolvane::test::connectTo(port);
    tolvane::test::sendAll(
        fd, "GET /api/servers HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n");
    std::string text;
    char buffer[4096];
    for (ssize_t n; (n = recv(fd, buffer, sizeof buffer, 0)) > 0;) {
        text.append(buffer, static_cast<std::size_t>(n));
    }
    close(fd);
    const auto server = nlohmann::json::parse(text.substr(text.find("\r\n\r\n")))["servers"].at(0);
    if (server["sites"].empty()) return {};
    const auto& site = server["sites"].at(0);
    return {server["total"]["sent_bytes"], site["sent_bytes"],
            site["categories"].at(0)["sent_bytes"]};
}

class LargeResponse : public MeasuredApache {};
INSTANTIATE_TEST_SUITE_P(Modules, LargeResponse, testing::Values("prefork", "event"),
                         [](const auto& module) { return std::string(module.param); });

TEST_P(LargeResponse, IsCollectedWhileItRunsAndBeyond4GiB) {
    constexpr std::uint64_t kGiB = std::uint64_t{1} << 30;
    constexpr int kCollectorPort = 9931;
    layOutServer(GetParam());
    writeFile("/opt/server/htdocs/page.iso", "");
    std::filesystem::resize_file("/opt/server/htdocs/page.iso", 5 * kGiB);
    writeFile("/opt/etc/sites/b.conf", "EnableSendfile On\n");
    tolvane::test::Process server(
        {TOLVANE_PROGRAM, "run", "--library", TOLVANE_LIBRARY, "--", "/usr/sbin/apache2", "-d",
         "/opt/etc", "-f", "main.conf", "-D", "FOREGROUND"},
        {});
    ASSERT_TRUE(tolvane::test::eventually(20s, [] { return tolvane({"list"}).code == 0; }));
    std::string sites = tolvane::test::readFile("/opt/sites.toml");
    writeFile("/opt/sites.toml", sites.replace(sites.find("= 1"), 3, "= 60"));
    ASSERT_EQ(tolvane({"configure", "/opt/sites.toml"}).code, 0);
    tolvane::test::Process collector({TOLVANE_PROGRAM, "serve", "--interval", "2", "--state",
                                      std::string("/opt/state-") + GetParam()},
                                     {});
    ASSERT_TRUE(tolvane::test::eventually(10s, [] {
        return tolvane::test::readFile("/proc/net/tcp").find(":26CB 00000000:0000 0A") !=
               std::string::npos;
    }));

    Download download("/page.iso");
    ASSERT_GE(download.receive(3 * kGiB), 3 * kGiB);
    EXPECT_TRUE(tolvane::test::eventually(6s, [] { return collected(kCollectorPort)[0] > kGiB; }));
    const std::uint64_t whole = download.receive(UINT64_MAX);
    EXPECT_GT(whole, 5 * kGiB);
    std::this_thread::sleep_for(300ms);
    server.signal(SIGTERM);
    EXPECT_TRUE(server.wait(20s));
    const SentBytes expected = {whole, whole, whole};
    EXPECT_TRUE(
        tolvane::test::eventually(5s, [&] { return collected(kCollectorPort) == expected; }))
        << testing::PrintToString(collected(kCollectorPort)) << " instead of " << whole;
    collector.signal(SIGTERM);
    EXPECT_EQ(collector.wait(10s), 0);
}

INSTANTIATE_TEST_SUITE_P(Modules, MeasuredApache, testing::Values("prefork", "worker", "event"),
                         [](const auto& module) { return std::string(module.param); });

}  // namespace
}  // namespace tolvane::agent::test
