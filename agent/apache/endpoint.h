// The addresses of Listen and <VirtualHost>.
#pragma once

#include <optional>
#include <string>

namespace tolvane::agent {

struct Endpoint {
    std::string address;      // "*", "_default_", an IPv4 address or a name
    std::optional<int> port;  // none: any port

    bool operator==(const Endpoint&) const = default;
};

// "10.0.0.1:80", "[::]:80", "80", "*": address and port, with the address as
// the shim matches it. Nothing when the text is neither.
std::optional<Endpoint> parseEndpoint(const std::string& text, bool bareNumberIsPort);

}  // namespace tolvane::agent
