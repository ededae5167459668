// The distribution's own Apache, with each of its process modules.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <sstream>
#include <thread>

#include "support/http_client.h"
#include "support/process.h"
#include "support/sandbox.h"

namespace tolvane::test {
namespace {

constexpr int kPort = 8080;
constexpr int kSecondPort = 8081;

// The number of processes is fixed: a process that Apache starts or ends in
// between would start without the configuration.
struct Module {
    const char* name;
    int processes;
    int connections;  // that they serve at the same time
    const char* settings;
};

// More threads in one process than clients: where all of them are busy, event
// closes idle connections, whether or not a request is already on its way.
constexpr char kThreads[] =
    "StartServers 3\nServerLimit 6\nThreadsPerChild 25\nMinSpareThreads 75\n"
    "MaxSpareThreads 150\nMaxClients 75\n";

void PrintTo(const Module& module, std::ostream* out) {
    *out << module.name;
}

const Module kModules[] = {
    {"prefork", 12, 12,
     "StartServers 12\nMinSpareServers 1\nMaxSpareServers 13\nServerLimit 12\nMaxClients 12\n"},
    {"worker", 3, 75, kThreads},
    {"event", 3, 75, kThreads},
};

std::string cgiModule(const Module& module) {
    return module.name == std::string("prefork") ? "cgi" : "cgid";
}

std::string configuration(const Module& module) {
    std::ostringstream text;
    text << "ServerRoot " << kServerRoot << "\nPidFile logs/httpd.pid\nErrorLog logs/error_log\n"
         << "Listen 127.0.0.1:" << kPort << "\nListen 127.0.0.1:" << kSecondPort << "\n";
    const std::string mpm = std::string("mpm_") + module.name;
    for (const std::string& name : {mpm, std::string("authz_core"), std::string("alias"),
                                    std::string("dir"), std::string("mime"), cgiModule(module)}) {
        text << "LoadModule " << name << "_module /usr/lib/apache2/modules/mod_" << name << ".so\n";
    }
    if (geteuid() == 0) text << "User www-data\nGroup www-data\n";
    text << module.settings
         << "TypesConfig /dev/null\nEnableSendfile On\nKeepAliveTimeout 60\n"
            "MaxKeepAliveRequests 0\nServerName a.test\nDocumentRoot "
         << kServerRoot << "/htdocs\nScriptAlias /cgi " << kServerRoot << "/conf/script\n"
         << (cgiModule(module) == "cgid" ? "ScriptSock /opt/server/logs/cgisock\n" : "")
         << "<VirtualHost *>\nServerName a.test\n"
         << "Redirect 302 /moved http://a.test/small.html\n</VirtualHost>\n"
         << "<VirtualHost *>\nServerName b.test\nRedirect 503 /busy\n</VirtualHost>\n";
    return text.str();
}

const std::vector<Site> kSites = {{"a.test", {"/small*", "/large*"}, {"www.a.test"}},
                                  {"b.test:80", {"*"}}};

std::vector<Exchange> mix() {
    return {{get("a.test", "/small.html"), 0, 0},
            {get("b.test", "/small.html"), 1, 0},
            {get("www.a.test", "/moved"), 0},
            {get("nowhere.test", "/small.html")},
            {get("a.test", "/small-but-missing"), 0, 0},
            {get("b.test", "/busy"), 1, 0},
            {get("a.test", "/large.bin"), 0, 1},
            {get("nowhere.test", "/missing")},
            {"POST /small.html HTTP/1.1\r\nHost: a.test\r\nContent-Length: 30000\r\n\r\n" +
                 std::string(30000, 'p'),
             0, 0},
            {"GET /small.html HTTP/1.1\r\nHost: a.test\r\n", 0, 0, true},
            {get("a.test", "/large.bin"), 0, 1},
            {get("b.test", "/large.bin"), 1, 0},
            {"GET /sma", -1, -1, true}};
}

class Apache : public testing::TestWithParam<Module> {
  protected:
    Process start() {
        resetSandbox();
        const std::string root = kServerRoot;
        writeFile(root + "/conf/httpd.conf", configuration(GetParam()));
        writeFile(root + "/logs/.tolvane_info", std::string(GetParam().name) + "\n");
        writeFile(root + "/conf/script", "#!/bin/sh\necho Status: 204\necho\n");
        std::filesystem::permissions(root + "/conf/script", std::filesystem::perms::all);
        writeFile(root + "/htdocs/small.html", std::string(100, 's'));
        writeFile(root + "/htdocs/large.bin", std::string(300000, 'l'));
        return Process({"/usr/sbin/apache2", "-f", root + "/conf/httpd.conf", "-DFOREGROUND"},
                       {"LD_PRELOAD=" TOLVANE_LIBRARY, "WEB_SERVER=apache",
                        "WEB_SERVER_ROOT=" + root, "NUM_SEMAPHORES=2"});
    }

    bool threaded() const { return std::string(GetParam().name) != "prefork"; }

    // Prefork's processes publish their last counts when the server stops, the
    // others publish all counts within two intervals.
    void expectSoon(const Segment& segment, const Counts& expected) const {
        if (threaded()) expectCounts(segment, expected.text(), std::chrono::seconds(3));
    }

    void serveLoad(const Segment& segment, Counts& expected) const {
        // Every process takes the configuration before a site is asked for.
        expected += warmUp(kPort, GetParam().connections, get("nowhere.test", "/small.html"),
                           threaded() ? 1 : 6);
        expectSoon(segment, expected);
        for (const int port : {kPort, kSecondPort}) {
            expected +=
                run(port, {.threads = 20, .connections = 100, .requests = 12, .mix = mix()});
        }
        // Workers pass these on to a daemon of the server, or fork.
        expected += run(
            kPort,
            {.threads = 2, .connections = 5, .requests = 2, .mix = {{get("a.test", "/cgi"), 0}}});
        expectSoon(segment, expected);
    }
};
INSTANTIATE_TEST_SUITE_P(Modules, Apache, testing::ValuesIn(kModules),
                         [](const auto& module) { return std::string(module.param.name); });

TEST_P(Apache, CountsEqualWhatTheClientsCounted) {
    Process server = start();
    Segment segment;
    ASSERT_EQ(segment.structures(), 2);
    segment.configure(kSites, 1);
    const auto started = [&] {
        // Threaded servers have a daemon that runs scripts, besides their workers.
        return static_cast<int>(server.children().size()) == GetParam().processes + threaded();
    };
    ASSERT_TRUE(eventually(std::chrono::seconds(10), started))
        << readFile("/opt/server/logs/error_log");
    Counts expected;
    serveLoad(segment, expected);
    if (threaded()) {
        const auto before = server.children();
        server.signal(SIGUSR1);
        EXPECT_TRUE(eventually(std::chrono::seconds(15), [&] {
            const auto now = server.children();
            return started() && std::ranges::find_first_of(now, before) == now.end();
        })) << "graceful restart";
        serveLoad(segment, expected);
    }
    EXPECT_GT(segment.responseTime(0, 1), 0.0);

    // A client has a response before the process that sent it gets to count it,
    // and Apache's processes end from within their signal handler.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    server.signal(SIGTERM);
    EXPECT_EQ(server.wait(std::chrono::seconds(15)), 0);
    EXPECT_GT(expected.total.requests, 10000u);
    EXPECT_GT(expected.total.droppedRequests, 1000u);
    EXPECT_EQ(segment.counts().text(), expected.text());
    EXPECT_EQ(segment.config().version, kVersionRemoved);
    EXPECT_EQ(leftovers(), "1 shm ");
    EXPECT_EQ(readFile("/opt/server/logs/error_log").find("exit signal"), std::string::npos);
}

}  // namespace
}  // namespace tolvane::test
