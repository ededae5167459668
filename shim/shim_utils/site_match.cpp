#include "site_match.h"

#include <cstring>

namespace tolvane {
namespace {

// Compares like the C library's bounded comparison without case: a NUL in
// both texts ends it early.
bool equalLetters(const char* a, const char* b, std::size_t length) {
    for (std::size_t i = 0; i < length; ++i) {
        if (lowerCase(a[i]) != lowerCase(b[i])) return false;
        if (a[i] == '\0') return true;
    }
    return true;
}

Bytes defaultPort(ConnectionKind kind) {
    return kind == kPlainRequest ? Bytes{":80", 3} : Bytes{":443", 4};
}

// A Host value taken apart once for all names that it is compared with.
struct HostValue {
    Bytes text;
    std::size_t colon;  // position of its first colon, its length when it has none
    std::uint32_t hash;
    Bytes standardPort;
};

HostValue takeApart(Bytes host, ConnectionKind kind) {
    std::size_t colon = positionOf(':', host.data, host.length);
    return {host, colon, nameHash(host.data, colon), defaultPort(kind)};
}

// A host without a port means the default one.
bool matchWithoutPort(const HostValue& host, const char* name, PreparedName prepared) {
    Bytes port = host.standardPort;
    std::size_t length = host.text.length;
    return prepared.length == length + port.length &&
           std::memcmp(name + length, port.data, port.length) == 0 &&
           equalLetters(host.text.data, name, length);
}

// The host's port part need only be a beginning of the name's.
bool matchWithPort(const HostValue& host, const char* name, PreparedName prepared) {
    std::size_t colon = host.colon;
    if (prepared.colon != colon || !equalLetters(host.text.data, name, colon)) return false;
    bool own = prepared.colon < prepared.length;
    Bytes port = own ? Bytes{name + colon, prepared.length - colon} : host.standardPort;
    std::size_t length = host.text.length - colon;
    return length <= port.length && equalLetters(host.text.data + colon, port.data, length);
}

// Whether the Host value and the configured name mean the same site.
bool doesHostSiteMatch(const HostValue& host, const char* name, PreparedName prepared) {
    if (prepared.hash != host.hash || prepared.length == 0) return false;
    Bytes text = host.text;
    if (prepared.length == text.length && equalLetters(text.data, name, text.length)) return true;
    return host.colon == text.length ? matchWithoutPort(host, name, prepared)
                                     : matchWithPort(host, name, prepared);
}

}  // namespace

int getMatchWebSite(const Configuration& config, Bytes text, ConnectionKind kind) {
    if (text.data == nullptr || text.length == 0) return -1;
    HostValue host = takeApart(text, kind);
    const ConfigInfo& info = config.info;
    for (int s = 0; s < info.numSites; ++s) {
        if (doesHostSiteMatch(host, info.siteName[s], config.siteNames[s])) return s;
        for (int h = 0; h < info.numHosts[s]; ++h) {
            if (doesHostSiteMatch(host, info.hostName[s][h], config.hostNames[s][h])) return s;
        }
    }
    return -1;
}

}  // namespace tolvane
