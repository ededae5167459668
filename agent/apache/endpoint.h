// The addresses of Listen and <VirtualHost>.
#pragma once

#include <optional>
#include <string>

namespace tolvane::agent {

struct Endpoint {
    std::string address;      // "*", "_default_", an IPv4 address or a name
    std::optional<int> port;  // empty: any port

    bool operator==(const Endpoint&) const = default;
};

// Parses "10.0.0.1:80", "[::]:80", "80" or "*". The address has the form that the
// shim matches. Empty if the text is not an address or a port.
std::optional<Endpoint> parseEndpoint(const std::string& text, bool bareNumberIsPort);

}  // namespace tolvane::agent
