#include "shim_utils/matching/site_match.h"

#include <cstring>

namespace tolvane {
namespace {

// Compares like strncasecmp: a NUL at the same position in both texts ends the
// comparison.
bool equalLetters(const char* a, const char* b, std::size_t length) {
    if (std::memcmp(a, b, length) == 0) return true;
    for (std::size_t i = 0; i < length; ++i) {
        if (lowerCase(a[i]) != lowerCase(b[i])) return false;
        if (a[i] == '\0') return true;
    }
    return true;
}

Bytes defaultPort(ConnectionKind kind) {
    return kind == kPlainRequest ? Bytes{":80", 3} : Bytes{":443", 4};
}

// A Host value, parsed once for all names that it is compared with.
struct HostValue {
    Bytes text;
    std::size_t colon;  // position of its first colon, its length if it has none
    std::uint32_t hash;
    Bytes standardPort;
};

// A host without a port has the default port.
bool matchWithoutPort(const HostValue& host, const char* name, const SiteNames::Name& prepared) {
    Bytes port = host.standardPort;
    std::size_t length = host.text.length;
    return prepared.length == length + port.length &&
           std::memcmp(name + length, port.data, port.length) == 0 &&
           equalLetters(host.text.data, name, length);
}

// The host's port may be a prefix of the name's port.
bool matchWithPort(const HostValue& host, const char* name, const SiteNames::Name& prepared) {
    std::size_t colon = host.colon;
    if (prepared.colon != colon || !equalLetters(host.text.data, name, colon)) return false;
    bool own = prepared.colon < prepared.length;
    Bytes port = own ? Bytes{name + colon, prepared.length - colon} : host.standardPort;
    std::size_t length = host.text.length - colon;
    return length <= port.length && equalLetters(host.text.data + colon, port.data, length);
}

// Whether the Host value and the configured name mean the same site.
bool doesHostSiteMatch(const HostValue& host, const char* name, const SiteNames::Name& prepared) {
    if (prepared.hash != host.hash) return false;
    Bytes text = host.text;
    if (prepared.length == text.length && equalLetters(text.data, name, text.length)) return true;
    return host.colon == text.length ? matchWithoutPort(host, name, prepared)
                                     : matchWithPort(host, name, prepared);
}

}  // namespace

int getMatchWebSite(const Configuration& config, Bytes text, ConnectionKind kind) {
    if (text.data == nullptr || text.length == 0) return -1;
    std::size_t colon = positionOf(':', text.data, text.length);
    if (colon >= kNameSize) return -1;  // longer than any name
    HostValue host = {text, colon, nameHash(text.data, colon), defaultPort(kind)};
    const SiteNames& names = config.names;
    for (int n = names.first[SiteNames::bucket(host.hash)] - 1; n >= 0;
         n = names.names[n].next - 1) {
        if (doesHostSiteMatch(host, nameText(config.info, n), names.names[n])) {
            return n / SiteNames::kNamesPerSite;
        }
    }
    return -1;
}

}  // namespace tolvane
