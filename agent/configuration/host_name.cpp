#include "configuration/host_name.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>

#include "os/error.h"
#include "os/text.h"
#include "tolvane/segment_format.h"

namespace tolvane::agent {

namespace {

void checkPort(std::string_view name, std::size_t colon) {
    auto port = parseInt32(name.substr(colon + 1));
    if (port && *port >= 1 && *port <= 65535 && name[colon + 1] != '0') return;
    fail(ErrorKind::kInvalidInput,
         "'{}' is not a port; write a number from 1 to 65535 after the ':'",
         printable(name.substr(colon + 1)));
}

void checkCharacter(char c) {
    auto byte = static_cast<unsigned char>(c);
    if (c == '*' || c == '?') {
        fail(ErrorKind::kInvalidInput,
             "host names have no wildcards; list up to {} further names under 'hosts'",
             kMaxExtraHosts);
    }
    if (byte >= 0x80) {
        fail(ErrorKind::kInvalidInput,
             "clients send international names in ASCII; write the 'xn--' form");
    }
    if (std::isalnum(byte) == 0 && c != '.' && c != '-' && c != '_') {
        fail(ErrorKind::kInvalidInput,
             "'{}' is not allowed in a host name; write a name such as 'shop.example' or "
             "'shop.example:8080'",
             printable(std::string_view(&c, 1)));
    }
}

// "[2001:db8::1]" with or without a port.
void checkBracketed(std::string_view name) {
    std::size_t end = name.find(']');
    bool closed = end != std::string_view::npos;
    std::string_view address = name.substr(1, closed ? end - 1 : 0);
    bool hex = !address.empty() && std::all_of(address.begin(), address.end(), [](char c) {
        return std::isxdigit(static_cast<unsigned char>(c)) != 0 || c == ':' || c == '.';
    });
    if (!closed || !hex || (end + 1 < name.size() && name[end + 1] != ':')) {
        fail(ErrorKind::kInvalidInput,
             "an IPv6 address is written '[2001:db8::1]' or '[2001:db8::1]:8080'");
    }
    if (end + 1 < name.size()) checkPort(name, end + 1);
}

}  // namespace

void checkHostName(std::string_view name) {
    if (name.empty()) {
        fail(ErrorKind::kInvalidInput,
             "an empty name matches no request; write a name such as 'shop.example'");
    }
    if (name.size() >= kNameSize) {
        fail(ErrorKind::kInvalidInput, "the name has {} bytes; at most {} are allowed", name.size(),
             kNameSize - 1);
    }
    if (std::size_t scheme = name.find("://"); scheme != std::string_view::npos) {
        std::string_view rest = name.substr(scheme + 3);
        fail(ErrorKind::kInvalidInput, "write only the host name: '{}'",
             printable(rest.substr(0, rest.find('/'))));
    }
    if (name[0] == '[') {
        checkBracketed(name);
        return;
    }
    std::size_t colon = std::min(name.find(':'), name.size());
    std::for_each(name.begin(), name.begin() + static_cast<std::ptrdiff_t>(colon), checkCharacter);
    if (colon == 0) fail(ErrorKind::kInvalidInput, "the host name before the ':' is missing");
    if (colon < name.size()) checkPort(name, colon);
}

}  // namespace tolvane::agent
