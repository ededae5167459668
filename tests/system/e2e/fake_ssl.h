// A TLS library for tests, built as two major versions of OpenSSL.
#pragma once

#include <sys/types.h>

#include <cstddef>

struct ssl_st;

// What a call leaves in errno.
inline constexpr int kSslErrno = 88;

extern "C" {
int SSL_do_handshake(ssl_st*);
int SSL_accept(ssl_st*);
int SSL_peek(ssl_st*, void*, int);
int SSL_read(ssl_st*, void*, int);
int SSL_write(ssl_st*, const void*, int);
int SSL_peek_ex(ssl_st*, void*, size_t, size_t*);
int SSL_read_ex(ssl_st*, void*, size_t, size_t*);
int SSL_read_early_data(ssl_st*, void*, size_t, size_t*);
int SSL_write_ex(ssl_st*, const void*, size_t, size_t*);
int SSL_write_early_data(ssl_st*, const void*, size_t, size_t*);
ssize_t SSL_sendfile(ssl_st*, int fd, off64_t offset, size_t size, int flags);

// `where`: the object reads and writes its descriptor 'o'penly or 'h'idden, or only 'm'emory.
ssl_st* fake_new(int fd, char where, bool server);
void fake_free(ssl_st*);
void fake_feed(ssl_st*, const void* data, size_t n);
// The object uses only memory from now on. Takes what it has written there.
size_t fake_take(ssl_st*, void* buffer, size_t size);
// The error queue, a letter for each error.
const char* fake_errors();
}
