// What the server's environment and configuration files say about it.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "measured_process.h"
#include "shim_utils/discovery/port_table.h"
#include "shim_utils/discovery/server_discovery.h"
#include "support/sandbox.h"

namespace tolvane::test {
namespace {

const std::string kRoot = kServerRoot;

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) text += (text.empty() ? "" : "|") + line;
    return text;
}

// "name:port" of every entry; with "=address" where the address is not the name's.
std::string portsText(const PortTable& table) {
    std::string text;
    for (int i = 0; i < table.numHttpPort; ++i) {
        const std::string name = table.ipAddressName[i];
        const std::string address = inet_ntoa({table.ipAddress[i]});
        const bool fits =
            address == (inet_addr(name.c_str()) == kAnyAddress ? "255.255.255.255" : name);
        text += (i == 0 ? "" : " ") + name + ":" + std::to_string(table.httpPort[i]);
        if (!fits) text += "=" + address;
    }
    return text;
}

void setVariable(const char* name, const char* value) {
    value == nullptr ? unsetenv(name) : setenv(name, value, 1);
}

void setServer(const char* server, const char* root = kServerRoot) {
    setVariable("WEB_SERVER", server);
    setVariable("WEB_SERVER_ROOT", root);
}

void setFile(const std::string& path, const char* text) {
    std::filesystem::remove(path);
    if (text != nullptr) writeFile(path, text);
}

TEST(Discovery, ReadsANetscapeConfiguration) {
    const char ssl[] = "This is a SSL NETSCAPE server";
    const struct {
        const char* magnus;
        const char* plain;
        const char* ssl;
        std::string log{};
    } cases[] = {
        {"Port 81\n", "*:81", ""},
        {"Security on\nPort 443\nAddress 10.1.2.3\n", "", "10.1.2.3:443", ssl},
        {"SECURITY On\nSecurity off\n  pORT\t443\n", "", "*:443", ssl},
        {"Security onn\nPort 80\nPort 81x\nAddress 1.1.1.1\nAddress a.test b\n", "a.test:81", ""},
        {"Port none\n", "*:0", ""},
        {"#Port 80\n # Port 81\nPort80 1\n", "", "", "Could not find port no for Netscape Server"},
        {nullptr, "", "", "Config  file " + kRoot + "/config/magnus.conf cannot be opened "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.magnus == nullptr ? "no file" : c.magnus);
        setFile(kRoot + "/config/magnus.conf", c.magnus);
        setServer("NetScape");
        inChild([&c] {
            LogTail log;
            getWebServerInfo();
            EXPECT_EQ(webServerType, kNetscape);
            EXPECT_EQ(portsText(plainPorts), c.plain);
            EXPECT_EQ(portsText(sslPorts), c.ssl);
            EXPECT_EQ(joined(log.next()), c.log);
        });
    }
}

TEST(Discovery, RunsOncePerProcessEvenIfItFails) {
    const struct {
        const char* server;
        const char* root;
        const char* rootDir;
        const char* message;
    } cases[] = {
        {nullptr, "/x", "", "Error: Environment variable WEB_SERVER not defined"},
        {"apache", nullptr, "", "Error: Environment variable WEB_SERVER_ROOT not defined"},
        {"APACHE", "/x", "/x/", "Could not open Apache config file!"},
        {"iis", "/x/", "/x/", "Could not open Apache config file!"},
        {"Apache", "", "/", "Could not open Apache config file!"},
    };
    for (const auto& c : cases) {
        setServer(c.server, c.root);
        inChild([&c] {
            LogTail log;
            getWebServerInfo();
            EXPECT_TRUE(joined(log.next()).ends_with(c.message));
            EXPECT_STREQ(rootDir, c.rootDir);
            setServer("netscape");
            getWebServerInfo();
            EXPECT_TRUE(log.next().empty());
            EXPECT_EQ(webServerType, kApacheProcesses);
        });
    }
}

constexpr char kSections[] =
    "Listen 80\n<IfDefine SSL>\nListen 443\n<IfDefine X>\nListen 2\n</IfDefine>\n"
    "<VirtualHost _default_:443>\nSSLEngine on\n</VirtualHost>\n</IfDefine >\nListen 4\n";

const struct {
    const char* sslFactor;
    const char* conf;
    const char* plain;
    const char* ssl = "";
} kApacheFiles[] = {
    {nullptr, "listen 10.0.0.5:81\nLISTEN *:80 https\nListen 8\n", "10.0.0.5:81 *:80 *:8"},
    {nullptr, "Listen 80\nListen 80\nListen 0.0.0.0:80\nListen *:80\n", "*:80 0.0.0.0:80"},
    {nullptr, "Listen 1\nListen 2\nListen 1\nListen 3\nListen 2", "*:1 *:2 *:3"},
    {nullptr, "Listen a.test:8x\nListen\n#Listen 90\nListened 91\n", "a.test:8 *:0"},
    {nullptr, "Port 79\nPort 80\nBindAddress 10.0.0.5\n", "10.0.0.5:80"},
    {nullptr, "Port 80\nBindAddress *\n", "*:80"},
    {nullptr, "Port 80\nBindAddress 0.0.0.0\n", "*:80"},
    {nullptr, "Port 80\nBindAddress 10.0.0.5\nListen 81\n", "*:81"},
    {nullptr, "Port 0\n", ""},
    {nullptr, kSections, "*:80 *:4"},
    {"START", kSections, "*:80 *:4"},
    {"", kSections, "*:80 *:2 *:4", "_default_:443"},
    {"startssl", kSections, "*:80 *:2 *:4", "_default_:443"},
    {nullptr, "<IfDefine !SSL>\nListen 1\n</IfDefine>\n<IfDefine SSL\nListen 2\n", "*:1 *:2"},
    {nullptr, "<ifdefine ssl>\nListen 1\n</IFDEFINE>\nListen 2\n<IfDefine SSL>\nListen 3\n", "*:2"},
    {nullptr, "<VirtualHost *:1>\nSSLEngine on\nListen 2\n</VirtualHost>\n", "*:2"},
    {"", "<VirtualHost 10.0.0.7:443 10.0.0.8:1>\nsslengine ON\n</virtualhost>\n", "",
     "10.0.0.7:443"},
    {"", "<VirtualHost 10.0.0.7>\nSSLEngine on\n</VirtualHost >\nListen 1\n", "*:1", "10.0.0.7:-1"},
    {"", "<VirtualHost *:*>\nSSLEngine on\nListen 1\n", "", "*:-1"},
    {"", "<VirtualHost *>\nSSLEngine off\nSSLEngine\nSSLEngine onn\n</VirtualHost>\n", ""},
    {"", "SSLEngine on\n<VirtualHost a.test:x>\nSSLEngine on\nSSLEngine on\n", "", "a.test:0"},
    {"", "Listen 443\nListen 10.0.0.7:443\n<VirtualHost 10.0.0.7:443>\nSSLEngine on\n", "*:443",
     "10.0.0.7:443"},
};

TEST(Discovery, ReadsTheAddressesOfAnApacheConfiguration) {
    setServer("apache");
    for (const auto& c : kApacheFiles) {
        SCOPED_TRACE(testing::Message() << (c.sslFactor ? c.sslFactor : "unset") << ": " << c.conf);
        setFile(kRoot + "/conf/httpd.conf", c.conf);
        setVariable("SSL_FACTOR", c.sslFactor);
        inChild([&c] {
            getWebServerInfo();
            EXPECT_EQ(portsText(plainPorts), c.plain);
            EXPECT_EQ(portsText(sslPorts), c.ssl);
        });
    }
}

std::string lines(const std::string& before, int first, int last, const std::string& after) {
    std::string text;
    for (int i = first; i <= last; ++i) text += before + std::to_string(i) + after;
    return text;
}

// Ten distinct addresses fit; duplicates use no entry. A log line names each
// further address and its effect. A long name is cut.
TEST(Discovery, FillsATableToItsEnd) {
    const std::string host = "x" + std::string(60, '0');
    const std::string ten = lines("10.0.0.1:", 1, 10, " ");
    const std::string plain = ten.substr(0, ten.size() - 1);
    const std::string sslHost = "<VirtualHost *:443>\nSSLEngine on\n</VirtualHost>\n";
    const std::string other =
        "No room for another listening address: 10.0.0.9:4711 is not measured";
    const struct {
        std::string conf, plain, ssl, log;
    } cases[] = {
        {"Listen " + host + ":80\n" + lines("Listen 10.0.0.1:", 1, 9, "\n") +
             "Listen 10.0.0.9:4711",
         host.substr(0, 49) + ":80 " + plain.substr(0, plain.rfind(' ')), "", other},
        {lines("Listen 10.0.0.1:", 1, 10, "\n") + "Listen 4\nListen 10.0.0.1:3", plain, "",
         "No room for another listening address: *:4 is measured through another entry"},
        {lines("Listen 80\n# ", 1, 20, "\n") + "Listen 81", "*:80 *:81", "", ""},
        {lines(sslHost + "#", 1, 20, "\n") + "Listen 443\nListen 80", "*:80", "*:443", ""},
        // Addresses that turn out to be SSL only take no entry of the plain table.
        {lines("Listen 10.0.0.1:", 1, 12, "\n") +
             lines("<VirtualHost 10.0.0.1:", 1, 11, ">\nSSLEngine on\n</VirtualHost>\n"),
         "10.0.0.1:12", plain, "No room for another SSL address: 10.0.0.1:11 is not measured"},
        // An SSL address without an entry is not measured through a plain wildcard.
        {lines("Listen 10.0.0.2:", 1, 9, "\n") + "Listen 80\nListen 10.0.0.7:80\n" +
             lines("<VirtualHost 10.0.0.1:", 1, 10, ">\nSSLEngine on\n</VirtualHost>\n") +
             "<VirtualHost 10.0.0.7>\nSSLEngine on\n</VirtualHost>\n",
         lines("10.0.0.2:", 1, 9, " ") + "*:80", plain,
         "No room for another listening address: 10.0.0.7:80 is not measured"},
    };
    setServer("apache");
    setVariable("SSL_FACTOR", "");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.conf);
        setFile(kRoot + "/conf/httpd.conf", c.conf.c_str());
        inChild([&c] {
            LogTail log;
            getWebServerInfo();
            EXPECT_EQ(portsText(plainPorts), c.plain);
            EXPECT_EQ(portsText(sslPorts), c.ssl);
            const std::string last = log.next().back();
            EXPECT_EQ(last.starts_with("No room") ? last : "", c.log);
            EXPECT_EQ(isSslWithoutEntry({11, inet_addr("10.0.0.1")}),
                      c.log.find("SSL") != std::string::npos);
        });
    }
}

constexpr char kClients[] =
    "<IfModule prefork.c>\nMaxClients 150\n</IfModule>\n<IfModule worker.c>\nmaxclients 250\n";
constexpr char kServers[] =
    "NumServers 9\n<IfModule perchild.c>\nNumServers 5\nNumServers 6\n</IfModule>\n";

TEST(Discovery, LearnsModuleLimitsAndSettings) {
    const std::string info = kRoot + "/logs/.tolvane_info";
    const std::string old = "This is apache server version 1.3.x(or apache2.0 with prefork module";
    const std::string section = "This is apache server version 2.x|Type of module installed  ..|";
    const struct {
        const char* info;
        const char* conf;
        const char* semaphores;
        const char* interval;
        std::string learned;  // type, processes, semaphores, interval
        std::string log;
    } cases[] = {
        {nullptr, "", "4", "7", "0 1 4 7", "The file " + info + " cannot be read |" + old},
        {"", "", nullptr, nullptr, "0 1 -1 5",
         " cannot find NUM_SEMAPHORES env-varible|cannot find REQUEST_INTERVAL env-var|" + old},
        {"PREFORK\n", kClients, " -3x", "x", "0 250 -3 0", "The apache module is PREFORK:7|" + old},
        {"# x\n  worker 2\n", kClients, "1", "1", "3 250 1 1",
         "The apache module is #:1|The apache module is worker:6|" + section +
             "<IfModule worker.c>|"},
        {"\n", "MaxClients x\n", "1", "1", "3 0 1 1",
         "The apache module is :0|This is apache server version 2.x"},
        {"perchild", kServers, "1", "1", "3 5 1 1",
         "The apache module is perchild:8|" + section + "<IfModule perchild.c>|"},
        {"worker", kServers, "1", "1", "3 1 1 1",
         "The apache module is worker:6|This is apache server version 2.x"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.info == nullptr ? "no info" : c.info);
        setFile(info, c.info);
        setFile(kRoot + "/conf/httpd.conf", c.conf);
        setServer("apache");
        setVariable("NUM_SEMAPHORES", c.semaphores);
        setVariable("REQUEST_INTERVAL", c.interval);
        inChild([&c] {
            LogTail log;
            maxNumProcess = 1;
            requestInterval = 5;
            getWebServerInfo();
            std::ostringstream learned;
            learned << webServerType << " " << maxNumProcess << " " << numSemaphores << " "
                    << requestInterval;
            EXPECT_EQ(learned.str(), c.learned);
            EXPECT_EQ(joined(log.next()), c.log);
        });
    }
}

}  // namespace
}  // namespace tolvane::test
