// The translation of an Apache configuration to the one that the shim reads.
#include "apache/apache_config.h"

#include <gtest/gtest.h>

#include "apache/server_root.h"
#include "os/error.h"

namespace tolvane::agent {
namespace {

ServerFacts factsOf(const std::string& module, IncludedFile main = {"/main", 0, {}}) {
    ServerFacts facts;
    facts.version = "2.4.62";
    facts.serverRoot = "/srv";
    facts.mainFile = std::move(main);
    facts.modules = {"core_module", "http_module", "ssl_module", "mpm_" + module + "_module"};
    facts.defines = {{"SSL", ""}, {"PORT", "8443"}};
    return facts;
}

using Files = std::map<std::string, std::string>;

MeasuredConfig measure(const ServerFacts& facts, const Files& files) {
    auto read = [&](const std::string& path) -> std::optional<std::string> {
        auto found = files.find(path);
        return found == files.end() ? std::nullopt : std::optional(found->second);
    };
    auto variable = [](const std::string& name) -> std::optional<std::string> {
        return name == "HOST" ? std::optional<std::string>("10.1.2.3") : std::nullopt;
    };
    return readMeasuredConfig(facts, read, variable);
}

// What the shim reads, without the line that names the source.
std::string rewritten(const std::string& text, const std::string& module = "prefork") {
    std::string conf = renderHttpdConf(measure(factsOf(module), {{"/main", text}}), "/main");
    return conf.substr(conf.find('\n') + 1);
}

TEST(ApacheConfig, IsRewritten) {
    const std::string limit = "MaxClients 20\n";
    const std::string max = "MaxRequestWorkers 20\n";
    auto ssl = [](const std::string& address) {
        return "<VirtualHost " + address + ">\nSSLEngine on\n</VirtualHost>\n";
    };
    struct Case {
        std::string text;
        std::string expected;
    };
    const Case cases[] = {
        {"Listen 80\n" + max, "Listen *:80\n" + limit},
        {"  listen\t80  \n#Listen 81\n" + max, "Listen *:80\n" + limit},
        {"Listen 10.0.0.1:80\nListen *:81\n" + max, "Listen 10.0.0.1:80\nListen *:81\n" + limit},
        {"Listen [::]:80\n" + max, "Listen *:80\n" + limit},
        {"Listen [::ffff:10.0.0.1]:80\n" + max, "Listen 10.0.0.1:80\n" + limit},
        {"Listen [2001:db8::1]:80\n" + max, "Listen *:80\n" + limit},
        {"Listen [fe80::1%eth0]:80\n" + max, "Listen *:80\n" + limit},
        {"Listen 80\nListen 80\n" + max, "Listen *:80\n" + limit},
        {"Listen \"80\"\n" + max, "Listen *:80\n" + limit},
        {"Listen \\\n  80\n" + max, "Listen *:80\n" + limit},
        {"Listen ${PORT}\nListen ${HOST}:80\n" + max,
         "Listen *:8443\nListen 10.1.2.3:80\n" + limit},
        {"Listen 80\r\nMaxClients 20\r\n", "Listen *:80\n" + limit},
        {"Listen 80\n", "Listen *:80\nMaxClients 256\n"},
        {"Listen 80\nMaxClients 9\nMaxRequestWorkers 20\n", "Listen *:80\n" + limit},
        {"Listen 80\n<IfModule mpm_prefork_module>\n" + max +
             "</IfModule>\n<IfModule mpm_event_module>\nMaxRequestWorkers 400\n</IfModule>\n",
         "Listen *:80\n" + limit},
        {"Listen 80\n<IfModule prefork.c>\n" + max +
             "</IfModule>\n<IfModule !prefork.c>\nMaxRequestWorkers 400\n</IfModule>\n",
         "Listen *:80\n" + limit},
        {"<IfModule mod_ssl.c>\nListen 443\n</IfModule>\n<IfModule mod_gnutls.c>\nListen 444\n"
         "</IfModule>\n" +
             max,
         "Listen *:443\n" + limit},
        {"<IfDefine SSL>\n<IfDefine !SSL>\nListen 1\n</IfDefine>\nListen 2\n</IfDefine>\n"
         "<IfDefine NONE>\nListen 3\n</IfDefine>\n" +
             max,
         "Listen *:2\n" + limit},
        {"<IfVersion >= 2.4>\nListen 1\n</IfVersion>\n<IfVersion < 2.4.10>\nListen "
         "2\n</IfVersion>\n"
         "<IfVersion 2.4.62>\nListen 3\n</IfVersion>\n" +
             max,
         "Listen *:1\nListen *:3\n" + limit},
        {"Listen 443\n<VirtualHost _default_:443>\nSSLEngine on\n</VirtualHost>\n" + max,
         "Listen *:443\n" + limit + ssl("_default_:443")},
        {"Listen 443\n<VirtualHost 10.0.0.1:443 [::]:443>\nSSLEngine On\n</VirtualHost>\n" + max,
         "Listen *:443\n" + limit + ssl("10.0.0.1:443") + ssl("*:443")},
        {"Listen 443\n<VirtualHost *:443>\nSSLEngine on\n</VirtualHost>\n"
         "<VirtualHost *:443>\nSSLEngine on\n</VirtualHost>\n" +
             max,
         "Listen *:443\n" + limit + ssl("*:443")},
        {"Listen 443\n<VirtualHost 10.0.0.1>\nSSLEngine on\n</VirtualHost>\n" + max,
         "Listen *:443\n" + limit + ssl("10.0.0.1")},
        {"Listen 443\n<VirtualHost *:443>\n<IfModule absent_module>\nSSLEngine on\n</IfModule>\n"
         "</VirtualHost>\n" +
             max,
         "Listen *:443\n" + limit},
        {"Listen 80\n<VirtualHost *:80>\nSSLEngine off\n</VirtualHost>\nSSLEngine on\nListen "
         "443\n" +
             max,
         "Listen *:80\nListen *:443\n" + limit + ssl("*:443")},
        {"SSLEngine on\nListen 443\n<VirtualHost *:443>\nServerName x\n</VirtualHost>\n" + max,
         "Listen *:443\n" + limit + ssl("*:443")},
        {"Listen 8443 https\nListen 80 http\n" + max,
         "Listen *:8443\nListen *:80\n" + limit + ssl("*:8443")},
        {"<Macro Host $p>\nListen $p\n</Macro>\nListen 80\n" + max, "Listen *:80\n" + limit},
    };
    for (const Case& c : cases) EXPECT_EQ(rewritten(c.text), c.expected) << c.text;
    EXPECT_EQ(rewritten("Listen 80\n", "event"), "Listen *:80\nMaxClients 400\n");
}

TEST(ApacheConfig, FollowsIncludesInTheOrderOfTheServer) {
    IncludedFile main{"/main", 0, {{"/ports", 2, {}}, {"/hosts", 3, {{"/inner", 2, {}}}}}};
    Files files = {{"/main", "MaxClients 9\nInclude ports\nInclude hosts\nMaxRequestWorkers 12\n"},
                   {"/ports", "Listen 80\n"},
                   {"/hosts", "<VirtualHost *:443>\nInclude inner\n</VirtualHost>\nListen 443\n"},
                   {"/inner", "SSLEngine on\n"}};
    MeasuredConfig config = measure(factsOf("worker", main), files);
    EXPECT_EQ(config.listen, (std::vector<Endpoint>{{"*", 80}, {"*", 443}}));
    EXPECT_EQ(config.sslHosts, (std::vector<Endpoint>{{"*", 443}}));
    EXPECT_EQ(config.processLimit, 12);
    EXPECT_EQ(config.module, "worker");
}

TEST(ApacheConfig, TakesDirectivesFromTheCommandLine) {
    ServerFacts facts = factsOf("prefork");
    facts.before = {"Listen 81"};
    facts.after = {"MaxRequestWorkers 11"};
    MeasuredConfig config = measure(facts, {{"/main", "MaxClients 5\n"}});
    EXPECT_EQ(config.listen, (std::vector<Endpoint>{{"*", 81}}));
    EXPECT_EQ(config.processLimit, 11);
}

TEST(ApacheConfig, RefusesWhatCannotBeMeasured) {
    EXPECT_THROW(rewritten("ServerName x\n"), Error);
    EXPECT_THROW(measure(factsOf("prefork"), {}), Error);
    ServerFacts facts = factsOf("prefork");
    facts.modules = {"core_module"};
    EXPECT_THROW(measure(facts, {{"/main", "Listen 80\n"}}), Error);
}

TEST(ApacheConfig, NotesWhatIsNotMeasured) {
    std::string many;
    for (int port = 1; port <= 11; ++port) many += "Listen " + std::to_string(port) + "\n";
    const std::pair<std::string, const char*> cases[] = {
        {many, "11 listening addresses; only the first 10"},
        {"Listen 80\nListen nonsense\n", "Listen nonsense cannot be parsed"},
        {"Listen 80\n<VirtualHost [2001:db8::1]>\nSSLEngine on\n</VirtualHost>\n", "has no port"},
        {"Listen 80\nUse Host 8443\nUse Host 8444\n", "macros are not expanded"},
    };
    for (const auto& [text, expected] : cases) {
        MeasuredConfig config = measure(factsOf("prefork"), {{"/main", text}});
        ASSERT_EQ(config.notes.size(), 1U) << text;
        EXPECT_NE(config.notes[0].find(expected), std::string::npos) << config.notes[0];
    }
}

TEST(ServerRoot, EveryServerHasItsOwn) {
    const std::pair<const char*, const char*> servers[] = {
        {"/a/b-c.conf", "/p"}, {"/a-b/c.conf", "/p"}, {"/a/-b.conf", "/p"}, {"/a-/b.conf", "/p"},
        {"/a/b-c.conf", "/q"}, {"/a", "/b@c"},        {"/a@b", "/c"},       {"/a+2Db", "/p"},
        {"/a-b", "/p"},        {"/a b", "/p"}};
    std::set<std::string> roots;
    for (const auto& [mainFile, pidFile] : servers) {
        ServerFacts facts;
        facts.mainFile.path = mainFile;
        facts.pidFile = pidFile;
        EXPECT_TRUE(roots.insert(defaultRoot(facts)).second) << mainFile << " " << pidFile;
    }
}

TEST(Endpoint, HostilePortsAndAddressesAreRefused) {
    for (const char* text :
         {"", ":", ":80", "a:", "a:x", "a:0", "a:65536", "a:-1", "[", "[::", "[::]80",
          "[::]:", "[zz]:80", "99999", "0", "a:99999999999999999999"}) {
        EXPECT_FALSE(parseEndpoint(text, true)) << text;
    }
}

}  // namespace
}  // namespace tolvane::agent
