// A record is its kind ('h' of a handshake, 'd' of data), the length of its content in
// two bytes, and the content with its bits inverted.
#include "system/e2e/fake_ssl.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string>
#include <string_view>

struct ssl_st {
    int fd;
    char where;
    bool server;
    bool ready = false;
    std::string wire{};  // read, not decrypted yet
    std::string plain{};
    std::string written{};
    void* data[4] = {};
};

namespace {

std::string errors;
std::size_t mark;
int indexes;

void emit(ssl_st& s, char kind, std::string_view content) {
    std::string record = {kind, static_cast<char>(content.size() >> 8),
                          static_cast<char>(content.size())};
    for (const char c : content) record += static_cast<char>(~c);
    if (s.where == 'm') {
        s.written += record;
    } else if (write(s.fd, record.data(), record.size()) < 0) {
        errors += 'w';
    }
}

// Decrypts the next record, if it has arrived.
bool decrypt(ssl_st& s) {
    if (s.wire.size() < 3) return false;
    const std::size_t size =
        static_cast<std::uint8_t>(s.wire[1]) << 8 | static_cast<std::uint8_t>(s.wire[2]);
    if (s.wire.size() < 3 + size) return false;
    if (s.wire[0] == 'd') {
        for (std::size_t i = 0; i < size; ++i) s.plain += static_cast<char>(~s.wire[3 + i]);
    } else {
        if (s.server) emit(s, 'h', "hello");
        s.ready = true;
    }
    s.wire.erase(0, 3 + size);
    return true;
}

template <typename Done>
bool readUntil(ssl_st& s, Done done) {
    while (!done()) {
        if (decrypt(s)) continue;
        char part[4096];
        const ssize_t n = s.where == 'm' ? 0 : read(s.fd, part, sizeof part);
        if (n <= 0) {
            errors += 'r';
            return false;
        }
        s.wire.append(part, static_cast<std::size_t>(n));
    }
    return true;
}

int shakeHands(ssl_st& s) {
    if (!s.ready && !s.server) emit(s, 'h', "hello");
    const bool ready = readUntil(s, [&s] { return s.ready; });
    errno = kSslErrno;
    return ready ? 1 : -1;
}

// 0: failed.
std::size_t readSome(ssl_st& s, void* buffer, std::size_t size, bool takes) {
    std::size_t n = 0;
    if (shakeHands(s) == 1 && readUntil(s, [&s] { return !s.plain.empty(); })) {
        n = s.plain.copy(static_cast<char*>(buffer), size);
        if (takes) s.plain.erase(0, n);
    }
    errno = kSslErrno;
    return n;
}

std::size_t writeAll(ssl_st& s, const void* data, std::size_t n) {
    if (shakeHands(s) != 1) return 0;
    emit(s, 'd', {static_cast<const char*>(data), n});
    errno = kSslErrno;
    return n;
}

int orError(std::size_t n) {
    return n != 0 ? static_cast<int>(n) : -1;
}

// What the call leaves when it fails is not a number of bytes.
int stored(std::size_t n, std::size_t* result) {
    *result = n != 0 ? n : 1000000;
    return n != 0 ? 1 : 0;
}

}  // namespace

extern "C" {

int SSL_do_handshake(ssl_st* s) {
    return shakeHands(*s);
}
int SSL_accept(ssl_st* s) {
    return shakeHands(*s);
}
int SSL_peek(ssl_st* s, void* p, int n) {
    return orError(readSome(*s, p, static_cast<size_t>(n), false));
}
int SSL_read(ssl_st* s, void* p, int n) {
    return orError(readSome(*s, p, static_cast<size_t>(n), true));
}
int SSL_write(ssl_st* s, const void* p, int n) {
    return orError(writeAll(*s, p, static_cast<size_t>(n)));
}
int SSL_peek_ex(ssl_st* s, void* p, size_t n, size_t* r) {
    return stored(readSome(*s, p, n, false), r);
}
int SSL_read_ex(ssl_st* s, void* p, size_t n, size_t* r) {
    return stored(readSome(*s, p, n, true), r);
}
// These call others through the dynamic linker, as OpenSSL does.
int SSL_read_early_data(ssl_st* s, void* p, size_t n, size_t* r) {
    return SSL_read_ex(s, p, n, r);
}
int SSL_write_ex(ssl_st* s, const void* p, size_t n, size_t* r) {
    return stored(writeAll(*s, p, n), r);
}
int SSL_write_early_data(ssl_st* s, const void* p, size_t n, size_t* r) {
    return SSL_write_ex(s, p, n, r);
}

ssize_t SSL_sendfile(ssl_st* s, int fd, off64_t offset, size_t size, int flags) {
    char content[4096];
    const ssize_t n = pread64(fd, content, std::min(size, sizeof content), offset);
    if (n <= 0 || flags != 0) return -1;
    return static_cast<ssize_t>(writeAll(*s, content, static_cast<size_t>(n)));
}

// What the library under test calls changes errno, and leaves errors in the queue like
// a failed allocation.
int SSL_get_fd(const ssl_st* s) {
    errno = 1;
    if (s->where == 'o') return s->fd;
    errors += 'f';
    return -1;
}
int SSL_is_server(const ssl_st* s) {
    return s->server ? 1 : 0;
}
void* SSL_get_ex_data(const ssl_st* s, int index) {
    errno = 2;
    return s->data[index];
}
int SSL_set_ex_data(ssl_st* s, int index, void* data) {
    errno = 3;
    errors += 's';
    s->data[index] = data;
    return 1;
}
int CRYPTO_get_ex_new_index(int, long, void*, void*, void*, void*) {
    errors += 'n';
    return indexes++;
}
unsigned long OpenSSL_version_num() {
    return 0x10101000;  // the first with all these calls
}
int ERR_set_mark() {
    mark = errors.size();
    return 1;
}
int ERR_pop_to_mark() {
    errors.resize(mark);
    return 1;
}

ssl_st* fake_new(int fd, char where, bool server) {
    return new ssl_st{fd, where, server};
}
void fake_free(ssl_st* s) {
    delete s;
}
void fake_feed(ssl_st* s, const void* data, size_t n) {
    s->wire.append(static_cast<const char*>(data), n);
}
size_t fake_take(ssl_st* s, void* buffer, size_t size) {
    s->where = 'm';
    const size_t n = s->written.copy(static_cast<char*>(buffer), size);
    s->written.erase(0, n);
    return n;
}
const char* fake_errors() {
    return errors.c_str();
}
}
