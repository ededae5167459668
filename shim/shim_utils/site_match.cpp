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

std::size_t colonIn(Bytes host) {
    const void* colon = std::memchr(host.data, ':', host.length);
    return colon != nullptr ? static_cast<std::size_t>(static_cast<const char*>(colon) - host.data)
                            : host.length;
}

// A host without a port means the default one.
bool matchWithoutPort(Bytes host, const char* name, PreparedName prepared, Bytes standard) {
    return prepared.length == host.length + standard.length &&
           std::memcmp(name + host.length, standard.data, standard.length) == 0 &&
           equalLetters(host.data, name, host.length);
}

// The host's port part need only be a beginning of the name's.
bool matchWithPort(Bytes host, std::size_t colon, const char* name, PreparedName prepared,
                   Bytes standard) {
    if (prepared.colon != colon || !equalLetters(host.data, name, colon)) return false;
    bool own = prepared.colon < prepared.length;
    Bytes port = own ? Bytes{name + colon, prepared.length - colon} : standard;
    std::size_t length = host.length - colon;
    return length <= port.length && equalLetters(host.data + colon, port.data, length);
}

bool match(Bytes host, std::size_t colon, const char* name, PreparedName prepared, Bytes standard) {
    if (prepared.length == host.length && equalLetters(host.data, name, host.length)) return true;
    return colon == host.length ? matchWithoutPort(host, name, prepared, standard)
                                : matchWithPort(host, colon, name, prepared, standard);
}

}  // namespace

bool doesHostSiteMatch(Bytes host, const char* name, PreparedName prepared, ConnectionKind kind) {
    return match(host, colonIn(host), name, prepared, defaultPort(kind));
}

int getMatchWebSite(const Configuration& config, Bytes host, ConnectionKind kind) {
    if (host.data == nullptr || host.length == 0) return -1;
    std::size_t colon = colonIn(host);
    Bytes standard = defaultPort(kind);
    const ConfigInfo& info = config.info;
    for (int s = 0; s < info.numSites; ++s) {
        if (match(host, colon, info.siteName[s], config.siteNames[s], standard)) return s;
        for (int h = 0; h < info.numHosts[s]; ++h) {
            if (match(host, colon, info.hostName[s][h], config.hostNames[s][h], standard)) return s;
        }
    }
    return -1;
}

}  // namespace tolvane
