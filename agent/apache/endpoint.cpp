#include "apache/endpoint.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>

#include "os/text.h"

namespace tolvane::agent {

namespace {

constexpr const char* kEveryAddress = "*";

// A socket bound to "::" counts as bound to all addresses, a socket bound to a mapped
// IPv4 address as bound to that address. Any other IPv6 address only matches the
// wildcard.
std::optional<std::string> translateIpv6(std::string text) {
    text = text.substr(0, text.find('%'));
    in6_addr address{};
    if (::inet_pton(AF_INET6, text.c_str(), &address) != 1) return std::nullopt;
    if (!IN6_IS_ADDR_V4MAPPED(&address)) return kEveryAddress;
    char dotted[INET_ADDRSTRLEN];
    return ::inet_ntop(AF_INET, address.s6_addr + 12, dotted, sizeof dotted);
}

std::optional<Endpoint> withPort(Endpoint endpoint, const std::string& port) {
    if (port == "*") return endpoint;
    auto number = parseInt32(port);
    if (!number || *number < 1 || *number > 65535) return std::nullopt;
    endpoint.port = *number;
    return endpoint;
}

}  // namespace

std::optional<Endpoint> parseEndpoint(const std::string& text, bool bareNumberIsPort) {
    if (text.empty()) return std::nullopt;
    if (text[0] == '[') {
        std::size_t close = text.find(']');
        if (close == std::string::npos) return std::nullopt;
        auto address = translateIpv6(text.substr(1, close - 1));
        if (!address) return std::nullopt;
        if (close + 1 == text.size()) return Endpoint{*address, std::nullopt};
        if (text[close + 1] != ':') return std::nullopt;
        return withPort({*address, std::nullopt}, text.substr(close + 2));
    }
    if (bareNumberIsPort && text.find_first_not_of("0123456789") == std::string::npos) {
        return withPort({kEveryAddress, std::nullopt}, text);
    }
    std::size_t colon = text.find(':');
    if (colon == 0) return std::nullopt;
    if (colon == std::string::npos) return Endpoint{text, std::nullopt};
    return withPort({text.substr(0, colon), std::nullopt}, text.substr(colon + 1));
}

}  // namespace tolvane::agent
