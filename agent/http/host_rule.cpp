#include "http/host_rule.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>

#include "os/text.h"

namespace tolvane::agent {

namespace {

bool isAddress(const std::string& host) {
    unsigned char bytes[sizeof(in6_addr)];
    return ::inet_pton(AF_INET, host.c_str(), bytes) == 1 ||
           ::inet_pton(AF_INET6, host.c_str(), bytes) == 1;
}

// Without port, brackets and the dot at the end, in lower case.
std::string nameIn(std::string_view host) {
    if (host.starts_with('[')) {
        std::size_t end = host.find(']');
        return std::string(host.substr(1, end == host.npos ? end : end - 1));
    }
    std::string name = lower(host.substr(0, host.find(':')));
    if (name.ends_with('.')) name.pop_back();
    return name;
}

bool isLoopback(const ListenAddress& address) {
    return address.host.starts_with("127.") || address.host == "::1";
}

}  // namespace

HostRule::HostRule(const ListenAddress& address, const std::vector<std::string>& allowed)
    : every_(!isLoopback(address) && allowed.empty()), names_{"localhost"} {
    for (const std::string& name : allowed) names_.push_back(nameIn(name));
}

bool HostRule::accepts(const std::optional<std::string>& host) const {
    if (every_ || !host) return true;
    std::string name = nameIn(*host);
    return isAddress(name) || std::find(names_.begin(), names_.end(), name) != names_.end();
}

}  // namespace tolvane::agent
