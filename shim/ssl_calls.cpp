#include "ssl_calls.h"

#include <dlfcn.h>

#include <cstdint>
#include <cstring>

#include "shim_utils/platform/errno_guard.h"
#include "shim_utils/platform/log.h"

namespace tolvane {
namespace {

constexpr const char* fileOf(const char* version) {
    return std::strcmp(version, kSsl3) == 0 ? "libssl.so.3" : "libssl.so.1.1";
}

void* inFile(const char* file, const char* symbol) {
    void* library = dlopen(file, RTLD_NOLOAD | RTLD_LAZY);
    if (library == nullptr) return nullptr;
    void* call = dlsym(library, symbol);
    dlclose(library);  // only this function's own reference
    return call;
}

// Stores the function in `call`. False: there is none.
template <typename Pointer>
bool lookUpIn(const char* file, const char* symbol, Pointer& call) {
    void* found = inFile(file, symbol);
    if (found == nullptr) found = dlsym(RTLD_DEFAULT, symbol);
    call = reinterpret_cast<Pointer>(found);
    return found != nullptr;
}

}  // namespace

void* findSslCall(const char* symbol, const char* version) {
    ErrnoGuard guard;
    void* call = dlvsym(RTLD_NEXT, symbol, version);
    if (call == nullptr) call = inFile(fileOf(version), symbol);
    if (call == nullptr && version == kSsl3) call = dlsym(RTLD_NEXT, symbol);
    // A failed look-up sets the thread's error text, which the server may read.
    dlerror();
    return call;
}

bool SslObjects::available() {
    int state = state_.load(std::memory_order_acquire);
    if (state == kUnknown) state = lookUp();
    return state == kAvailable;
}

int SslObjects::lookUp() {
    ErrnoGuard guard;
    constexpr int kSslObjects = 0;  // the class of the data index
    int (*newIndex)(int, long, void*, void*, void*, void*) = nullptr;
    const char* file = fileOf(library_ == SslLibrary::k3 ? kSsl3 : kSsl110);
    bool found =
        lookUpIn(file, "SSL_get_ex_data", getData_) &&
        lookUpIn(file, "SSL_set_ex_data", setData_) && lookUpIn(file, "SSL_get_fd", getFd_) &&
        lookUpIn(file, "SSL_is_server", isServer_) && lookUpIn(file, "ERR_set_mark", setMark_) &&
        lookUpIn(file, "ERR_pop_to_mark", popToMark_) &&
        lookUpIn(file, "CRYPTO_get_ex_new_index", newIndex);
    dlerror();
    if (found) {
        setMark_();
        const int index = newIndex(kSslObjects, 0, nullptr, nullptr, nullptr, nullptr);
        popToMark_();
        // Another thread may have got an index meanwhile; this one stays unused.
        int none = -1;
        if (index >= 0) index_.compare_exchange_strong(none, index);
        found = index_.load() >= 0;
    }
    if (!found) {
        printErrorMsg(
            "The TLS library lacks a function: of SSL connections only bytes are counted");
    }
    const int state = found ? kAvailable : kMissing;
    state_.store(state, std::memory_order_release);
    return state;
}

int SslObjects::descriptorOf(const Ssl* ssl) const {
    void* data = getData_(ssl, index_.load(std::memory_order_relaxed));
    return static_cast<int>(reinterpret_cast<std::intptr_t>(data)) - 1;
}

void SslObjects::bind(Ssl* ssl, int fd) const {
    setData_(ssl, index_.load(std::memory_order_relaxed),
             reinterpret_cast<void*>(static_cast<std::intptr_t>(fd) + 1));
}

}  // namespace tolvane
