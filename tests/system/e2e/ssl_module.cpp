// A module of the script server that uses a TLS library, and is the only one to see it.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <string_view>

#include "system/e2e/fake_ssl.h"

namespace {

template <auto kCall>
long simple(ssl_st* s, char* buffer, size_t size) {
    return kCall(s, buffer, static_cast<int>(size));
}

template <auto kCall>
long extended(ssl_st* s, char* buffer, size_t size) {
    size_t n = 0;
    return kCall(s, buffer, size, &n) == 1 ? static_cast<long>(n) : -1;
}

template <auto kCall>
long bare(ssl_st* s, char*, size_t) {
    return kCall(s);
}

#ifdef WITH_SENDFILE
long sendFile(ssl_st* s, char* buffer, size_t size) {
    const int fd = open("/opt/server/htdocs/file", O_RDWR | O_CREAT | O_TRUNC, 0600);
    if (pwrite(fd, buffer, size, 3) < 0) return -2;
    const ssize_t n = SSL_sendfile(s, fd, 3, size, 0);
    const int error = errno;
    close(fd);
    errno = error;
    return n;
}
#endif

long feed(ssl_st* s, char* data, size_t n) {
    fake_feed(s, data, n);
    return 0;
}

long take(ssl_st* s, char* buffer, size_t size) {
    return static_cast<long>(fake_take(s, buffer, size));
}

long release(ssl_st* s, char*, size_t) {
    fake_free(s);
    return 0;
}

long queue(ssl_st*, char* buffer, size_t size) {
    return static_cast<long>(std::string_view(fake_errors()).copy(buffer, size));
}

const std::map<std::string_view, long (*)(ssl_st*, char*, size_t)> kCalls = {
    {"do_handshake", bare<SSL_do_handshake>},
    {"accept", bare<SSL_accept>},
    {"read", simple<SSL_read>},
    {"read_ex", extended<SSL_read_ex>},
    {"read_early_data", extended<SSL_read_early_data>},
    {"peek", simple<SSL_peek>},
    {"peek_ex", extended<SSL_peek_ex>},
    {"write", simple<SSL_write>},
    {"write_ex", extended<SSL_write_ex>},
    {"write_early_data", extended<SSL_write_early_data>},
#ifdef WITH_SENDFILE
    {"sendfile", sendFile},
#endif
    {"feed", feed},
    {"take", take},
    {"free", release},
    {"errors", queue},
};

}  // namespace

extern "C" __attribute__((visibility("default"))) ssl_st* moduleNew(int fd, char where,
                                                                    bool server) {
    return fake_new(fd, where, server);
}

extern "C" __attribute__((visibility("default"))) long moduleCall(const char* name, ssl_st* s,
                                                                  char* buffer, size_t size) {
    return kCalls.at(name)(s, buffer, size);
}
