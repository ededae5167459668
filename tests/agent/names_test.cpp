// URL patterns and host names as an operator writes them.
#include <gtest/gtest.h>

#include "configuration/host_name.h"
#include "configuration/url_pattern.h"
#include "os/error.h"

namespace tolvane::agent {
namespace {

using Pieces = std::vector<std::string>;

TEST(UrlPattern, BecomesPiecesAndWildcards) {
    struct Case {
        const char* text;
        UrlPattern expected;
    };
    const std::string longest(47, 'x');
    const Case cases[] = {
        {"/index.html", {{"/index.html"}, false, false}},
        {"/shop*.jsp", {{"/shop", ".jsp"}, false, false}},
        {"/shop*", {{"/shop"}, false, true}},
        {"*.gif", {{".gif"}, true, false}},
        {"*cart*", {{"cart"}, true, true}},
        {"*", {Pieces{}, true, true}},
        {"***", {Pieces{}, true, true}},
        {"/a**b", {{"/a", "b"}, false, false}},
        {"**/a**", {{"/a"}, true, true}},
        {"/a*b*c*d*e*f", {{"/a", "b", "c", "d", "e", "f"}, false, false}},
        {"/q?x=1&y=[2]", {{"/q?x=1&y=[2]"}, false, false}},
        {R"(/a\*b*)", {{"/a*b"}, false, true}},
        {R"(\*.x)", {{"*.x"}, false, false}},
        {R"(/a\\*)", {{"/a\\"}, false, true}},
    };
    for (const Case& c : cases) EXPECT_EQ(parseUrlPattern(c.text), c.expected) << c.text;
    EXPECT_EQ(parseUrlPattern("/*" + longest).pieces.back(), longest);
}

TEST(UrlPattern, FaultsAreReportedWithARemedy) {
    const std::pair<std::string, const char*> cases[] = {
        {"", "'*' matches every URL"},
        {"shop*", "write '/shop*', or '*shop*'"},
        {"?x=1", "write '/?x=1'"},
        {"http://shop.example/cart*", "write '/cart*'"},
        {"HTTPS://shop.example", "write '/*'"},
        {"/a b", "%20"},
        {"/a\tb", "%20"},
        {"/caf\xC3\xA9", "%C3"},
        {"/page#top", "do not send '#'"},
        {"/a*b*c*d*e*f*g", "7 pieces of text between its '*'; at most 6"},
        {"/" + std::string(47, 'x'), "has 48 bytes; at most 47"},
        {"/a\\", "backslash"},
        {"/a\\n", "backslash"},
    };
    for (const auto& [text, expected] : cases) {
        try {
            parseUrlPattern(text);
            ADD_FAILURE() << text << " was accepted";
        } catch (const Error& error) {
            EXPECT_NE(std::string(error.what()).find(expected), std::string::npos)
                << text << ": " << error.what();
        }
    }
}

TEST(HostName, AcceptsWhatClientsCanSend) {
    for (const std::string name :
         {"a", "shop.example", "SHOP.example:8080", "10.0.0.1:80", "a_b-c.example.", "[::1]",
          "[2001:db8::1]:443", "xn--caf-dma.example"}) {
        EXPECT_NO_THROW(checkHostName(name)) << name;
    }
    EXPECT_NO_THROW(checkHostName(std::string(127, 'x')));
}

TEST(HostName, FaultsAreReportedWithARemedy) {
    const std::pair<std::string, const char*> cases[] = {
        {"", "empty name"},
        {"*.example", "no wildcards"},
        {"http://shop.example/x", "only the host name: 'shop.example'"},
        {"shop.example/x", "'/' is not allowed"},
        {"shop example", "' ' is not allowed"},
        {"shop.example:", "not a port"},
        {"shop.example:http", "not a port"},
        {"shop.example:65536", "1 to 65535"},
        {"shop.example:080", "not a port"},
        {":80", "before the ':' is missing"},
        {"[::1", "IPv6"},
        {"[::1]x", "IPv6"},
        {"[shop]", "IPv6"},
        {"caf\xC3\xA9.example", "xn--"},
        {std::string(128, 'x'), "128 bytes; at most 127"},
    };
    for (const auto& [name, expected] : cases) {
        try {
            checkHostName(name);
            ADD_FAILURE() << name << " was accepted";
        } catch (const Error& error) {
            EXPECT_NE(std::string(error.what()).find(expected), std::string::npos)
                << name << ": " << error.what();
        }
    }
}

}  // namespace
}  // namespace tolvane::agent
