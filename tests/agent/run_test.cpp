// What `tolvane run` and `tolvane prepare` hand to a server. The server is a
// script that answers like an Apache and prints its arguments and environment.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "fake_server.h"
#include "support/sandbox.h"

namespace tolvane::agent::test {
namespace {

using tolvane::test::readFile;
using tolvane::test::writeFile;

constexpr char kRoot[] =
    "/opt/tolvane/agent/data/servers/opt-etc-main.conf@run-apache2-apache2.pid";

void installServer(const std::string& configuration) {
    std::filesystem::create_directories("/opt/etc");
    writeFile("/opt/etc/main.conf", configuration);
    writeFile("/opt/apachectl",
              "#!/bin/sh\n"
              "case \"$*\" in\n"
              "*-V*) echo 'Server version: Apache/2.4.62 (Unix)'; echo 'Architecture:   64-bit';;\n"
              "*bad*-t*) echo 'AH00526: Syntax error' >&2; exit 1;;\n"
              "*-t*) cat <<ANSWER\n"
              "Included configuration files:\n"
              "  (*) /opt/etc/main.conf\n"
              "ServerRoot: \"/opt/etc\"\n"
              "PidFile: \"/run/apache2/apache2.pid\"\n"
              "Loaded Modules:\n"
              " mpm_event_module (shared)\n"
              " ssl_module (shared)\n"
              "ANSWER\n"
              ";;\n"
              "*) echo \"arguments $*\"; env;;\n"
              "esac\n");
    chmod("/opt/apachectl", 0755);
}

bool hasLine(const std::string& text, const std::string& line) {
    return ("\n" + text).find("\n" + line + "\n") != std::string::npos;
}

TEST(Run, StartsTheServerWithEverythingItNeeds) {
    tolvane::test::resetSandbox();
    std::filesystem::remove_all("/opt/tolvane");
    installServer(
        "Listen [::]:80\nMaxRequestWorkers 99\n<VirtualHost *:443>\nSSLEngine on\n"
        "</VirtualHost>\n");
    setenv("LD_PRELOAD", "", 1);
    Outcome outcome = tolvane({"run", "--library", TOLVANE_LIBRARY, "--semaphores", "8", "--",
                               "/opt/apachectl", "-D", "X", "-k", "start"});
    ASSERT_EQ(outcome.code, 0) << outcome.errors;
    EXPECT_TRUE(hasLine(outcome.output, "arguments -D X -k start")) << outcome.output;
    for (const std::string& line :
         {std::string("WEB_SERVER=apache"), std::string("WEB_SERVER_ROOT=") + kRoot,
          std::string("SSL_FACTOR=startssl"), std::string("NUM_SEMAPHORES=8"),
          std::string("REQUEST_INTERVAL=5")}) {
        EXPECT_TRUE(hasLine(outcome.output, line)) << line << "\n" << outcome.output;
    }
    EXPECT_NE(outcome.output.find("LD_PRELOAD="), std::string::npos);
    std::string conf = readFile(std::string(kRoot) + "/conf/httpd.conf");
    EXPECT_EQ(conf.substr(conf.find('\n') + 1),
              "Listen *:80\nMaxClients 99\n<VirtualHost *:443>\nSSLEngine on\n</VirtualHost>\n");
    EXPECT_EQ(readFile(std::string(kRoot) + "/logs/.tolvane_info"), "event\n");
    EXPECT_EQ(std::filesystem::read_symlink(std::string(kRoot) + "/logs/httpd.pid"),
              "/run/apache2/apache2.pid");
    struct stat logs {};
    stat("/opt/tolvane/agent/logs", &logs);
    EXPECT_EQ(logs.st_mode & 07777, 01777U);
    struct stat log {};
    stat(kLogFile, &log);
    EXPECT_EQ(log.st_mode & 0777, 0666U);
}

TEST(Run, UsesARootThatNeedsNoTranslation) {
    std::filesystem::create_directories("/opt/etc/conf");
    installServer("");
    std::string script = readFile("/opt/apachectl");
    for (const std::pair<std::string, std::string>& change :
         {std::pair<std::string, std::string>{"/opt/etc/main.conf", "/opt/etc/conf/httpd.conf"},
          {"/run/apache2/apache2.pid", "/opt/etc/logs/httpd.pid"},
          {"mpm_event", "mpm_prefork"}}) {
        script.replace(script.find(change.first), change.first.size(), change.second);
    }
    writeFile("/opt/apachectl", script);
    writeFile("/opt/etc/conf/httpd.conf", "Listen 80\nMaxClients 20\n");
    Outcome outcome =
        tolvane({"run", "--library", TOLVANE_LIBRARY, "--", "/opt/apachectl", "start"});
    EXPECT_TRUE(hasLine(outcome.output, "WEB_SERVER_ROOT=/opt/etc"))
        << outcome.output << outcome.errors;
    EXPECT_TRUE(hasLine(outcome.output, "SSL_FACTOR=start"));
    EXPECT_FALSE(std::filesystem::exists("/opt/tolvane/agent/data/servers"));
    // One bracketed address, and it has to be translated.
    writeFile("/opt/etc/conf/httpd.conf", "Listen [::]:80\nMaxClients 20\n");
    outcome = tolvane({"run", "--library", TOLVANE_LIBRARY, "--", "/opt/apachectl", "start"});
    EXPECT_TRUE(hasLine(outcome.output,
                        "WEB_SERVER_ROOT=/opt/tolvane/agent/data/servers/"
                        "opt-etc-conf-httpd.conf@opt-etc-logs-httpd.pid"))
        << outcome.output;
}

TEST(Run, RefusesBadInputAndChangesNothing) {
    std::filesystem::remove_all("/opt/tolvane");
    installServer("Listen 80\n");
    std::filesystem::create_directories("/opt/own/conf");
    writeFile("/opt/own/conf/httpd.conf", "Listen 80\n");
    std::filesystem::create_directories("/opt/used/logs");
    writeFile("/opt/used/logs/httpd.pid", "1\n");
    writeFile("/opt/no-library", "text");
    const std::string library = TOLVANE_LIBRARY;
    const std::pair<std::vector<std::string>, const char*> cases[] = {
        {{"run", "--library", "/opt/no-library", "--", "/opt/apachectl"}, "is not a library"},
        {{"run", "--library", "/opt/absent", "--", "/opt/apachectl"}, "No such file"},
        {{"run", "--library", library, "--", "/bin/true"}, "does not have the name of an Apache"},
        {{"run", "--library", library, "--type", "netscape", "--", "/bin/true"},
         "--root is missing"},
        {{"run", "--library", library, "--root", "/opt/absent", "--", "/opt/apachectl"},
         "No such file"},
        {{"run", "--library", library, "--root", "/opt", "--", "/bin/true"},
         "/opt/conf/httpd.conf"},
        {{"run", "--library", library, "--", "/opt/apachectl", "-D", "bad"},
         "AH00526: Syntax error"},
        {{"run", "--type", "iis", "--", "/opt/apachectl"}, "--type"},
        {{"prepare", "--root", "/opt/own", "--", "/opt/apachectl"}, "was not written by tolvane"},
        {{"prepare", "--root", "/opt/used", "--", "/opt/apachectl"}, "was not created by tolvane"},
    };
    for (const auto& [arguments, expected] : cases) {
        Outcome outcome = tolvane(arguments);
        EXPECT_EQ(outcome.code, 2) << expected;
        EXPECT_NE(outcome.errors.find(expected), std::string::npos) << outcome.errors;
    }
    EXPECT_FALSE(std::filesystem::exists("/opt/tolvane"));
    EXPECT_EQ(readFile("/opt/own/conf/httpd.conf"), "Listen 80\n");
}

TEST(Run, ChecksValuesOfTheEnvironment) {
    installServer("Listen 443 https\n");
    struct Case {
        const char *name, *value, *expected;
        int code;
    };
    const Case cases[] = {
        {"WEB_SERVER", "foo", "neither apache nor netscape", 2},
        {"NUM_SEMAPHORES", "abc", "not a number from 1 to 1024", 2},
        {"REQUEST_INTERVAL", "-3", "not a number from 1 to 1000000", 2},
        {"SSL_FACTOR", "Start", "note: the server has SSL hosts", 0},
    };
    for (const Case& c : cases) {
        setenv(c.name, c.value, 1);
        Outcome outcome = tolvane({"run", "--library", TOLVANE_LIBRARY, "--", "/opt/apachectl"});
        EXPECT_EQ(outcome.code, c.code) << c.name;
        EXPECT_NE(outcome.errors.find(c.expected), std::string::npos) << outcome.errors;
        unsetenv(c.name);
    }
}

TEST(Run, RefreshesAPreparedRoot) {
    installServer("Listen 80\n");
    Outcome prepared = tolvane({"prepare", "--root", "/opt/root", "--", "/opt/apachectl"});
    ASSERT_EQ(prepared.code, 0) << prepared.errors;
    EXPECT_TRUE(hasLine(prepared.output, "WEB_SERVER_ROOT=/opt/root")) << prepared.output;
    writeFile("/opt/etc/main.conf", "Listen 81\n");
    tolvane({"run", "--library", TOLVANE_LIBRARY, "--root", "/opt/root", "--", "/opt/apachectl"});
    EXPECT_NE(readFile("/opt/root/conf/httpd.conf").find("Listen *:81\n"), std::string::npos);
}

}  // namespace
}  // namespace tolvane::agent::test
