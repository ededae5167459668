#include "apache_server.h"

#include <unistd.h>

#include <filesystem>
#include <sstream>

#include "support/sandbox.h"

namespace tolvane::test {
namespace {

// More threads in one process than clients: where all of them are busy, event
// closes idle connections, whether or not a request is already on its way.
constexpr char kThreads[] =
    "StartServers 3\nServerLimit 6\nThreadsPerChild 25\nMinSpareThreads 75\n"
    "MaxSpareThreads 150\nMaxClients 75\n";

}  // namespace

void PrintTo(const Module& module, std::ostream* out) {
    *out << module.name;
}

// The number of processes is fixed: a process that Apache starts or ends in
// between would start without the configuration.
const Module kModules[3] = {
    {"prefork", 12, 12,
     "StartServers 12\nMinSpareServers 1\nMaxSpareServers 13\nServerLimit 12\nMaxClients 12\n"},
    {"worker", 3, 75, kThreads},
    {"event", 3, 75, kThreads},
};

namespace {

std::string cgiModule(const Module& module) {
    return module.name == std::string("prefork") ? "cgi" : "cgid";
}

std::string configuration(const Module& module, const std::string& more) {
    std::ostringstream text;
    text << "ServerRoot " << kServerRoot << "\nPidFile logs/httpd.pid\nErrorLog logs/error_log\n"
         << "Listen 127.0.0.1:" << kApachePort << "\nListen 127.0.0.1:" << kSecondApachePort
         << "\n";
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
         << (cgiModule(module) == "cgid" ? "ScriptSock /opt/server/logs/cgisock\n" : "") << more
         << "<VirtualHost *>\nServerName a.test\n"
         << "Redirect 302 /moved http://a.test/small.html\n</VirtualHost>\n"
         << "<VirtualHost *>\nServerName b.test\nRedirect 503 /busy\n</VirtualHost>\n";
    return text.str();
}

}  // namespace

const std::vector<Site> kApacheSites = {{"a.test", {"/small*", "/large*"}, {"www.a.test"}},
                                        {"b.test:80", {"*"}}};

Process ApacheTest::start(const std::vector<std::string>& environment, const std::string& more) {
    resetSandbox();
    const std::string root = kServerRoot;
    writeFile(root + "/conf/httpd.conf", configuration(GetParam(), more));
    writeFile(root + "/logs/.tolvane_info", std::string(GetParam().name) + "\n");
    writeFile(root + "/conf/script", "#!/bin/sh\necho Status: 204\necho\n");
    std::filesystem::permissions(root + "/conf/script", std::filesystem::perms::all);
    writeFile(root + "/htdocs/small.html", std::string(100, 's'));
    writeFile(root + "/htdocs/large.bin", std::string(300000, 'l'));
    std::vector<std::string> all = {"LD_PRELOAD=" TOLVANE_LIBRARY, "WEB_SERVER=apache",
                                    "WEB_SERVER_ROOT=" + root, "NUM_SEMAPHORES=2"};
    all.insert(all.end(), environment.begin(), environment.end());
    return Process({"/usr/sbin/apache2", "-f", root + "/conf/httpd.conf", "-DFOREGROUND"}, all);
}

bool ApacheTest::started(const Process& server) {
    // Threaded servers have a daemon that runs scripts, besides their workers.
    return static_cast<int>(server.children().size()) == GetParam().processes + threaded();
}

}  // namespace tolvane::test
