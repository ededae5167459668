#include "ssl_calls.h"

#include <dlfcn.h>
#include <link.h>
#include <sched.h>

#include "shim_utils/platform/errno_guard.h"
#include "shim_utils/platform/log.h"

namespace tolvane {
namespace {

constexpr int kMostLibraries = 8;
// Written under the lock.
SslObjects libraries[kMostLibraries];
int libraryCount = 0;
std::atomic<bool> locked{false};

// The loaded object that has an address.
struct LoadedObject {
    std::uintptr_t address;
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
    const char* name = nullptr;  // empty: the program itself
};

int findObject(dl_phdr_info* info, std::size_t, void* data) {
    auto& object = *static_cast<LoadedObject*>(data);
    std::uintptr_t begin = UINTPTR_MAX;
    std::uintptr_t end = 0;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const auto& segment = info->dlpi_phdr[i];
        if (segment.p_type != PT_LOAD) continue;
        const std::uintptr_t from = info->dlpi_addr + segment.p_vaddr;
        if (from < begin) begin = from;
        if (from + segment.p_memsz > end) end = from + segment.p_memsz;
    }
    if (object.address < begin || object.address >= end) return 0;
    object.begin = begin;
    object.end = end;
    object.name = info->dlpi_name;
    return 1;
}

const void* baseOf(const void* address) {
    Dl_info info = {};
    return dladdr(address, &info) != 0 ? info.dli_fbase : nullptr;
}

// In the order in which the dynamic linker searches without the shim: what all objects
// see, then what the caller's object alone sees.
void* lookUpSymbol(const char* symbol, const char* version, const char* object) {
    void* function = dlvsym(RTLD_NEXT, symbol, version);
    if (function == nullptr && object != nullptr && *object != '\0') {
        void* handle = dlopen(object, RTLD_NOLOAD | RTLD_LAZY);
        if (handle != nullptr) {
            function = dlvsym(handle, symbol, version);
            if (function == nullptr) function = dlsym(handle, symbol);
            dlclose(handle);  // only this function's own reference
        }
    }
    if (function == nullptr) function = dlsym(RTLD_NEXT, symbol);
    dlerror();  // the server may read the thread's error text, which a failed search sets
    return function;
}

// The library that has the function, null if its objects cannot be bound.
const SslObjects* libraryOf(const void* function) {
    const void* base = baseOf(function);
    for (int i = 0; i < libraryCount; ++i) {
        if (libraries[i].base() == base) return &libraries[i];
    }
    if (libraryCount == kMostLibraries || !libraries[libraryCount].lookUp(function)) return nullptr;
    return &libraries[libraryCount++];
}

// A thread may hold the lock for the time of a few searches. A child that was forked
// meanwhile finds it held for ever, and then does without.
bool lock() {
    constexpr int kTries = 1000;
    for (int i = 0; i < kTries; ++i) {
        if (!locked.exchange(true, std::memory_order_acquire)) return true;
        sched_yield();
    }
    return false;
}

template <typename Pointer>
bool lookUpIn(void* library, const char* symbol, Pointer& function) {
    function = reinterpret_cast<Pointer>(dlsym(library, symbol));
    return function != nullptr;
}

// OpenSSL 1.1 and 3 have the functions in the same form. LibreSSL and earlier versions
// number the classes of application data differently.
bool hasKnownObjects(unsigned long version) {
    constexpr unsigned long kOpenSsl11 = 0x10100000;
    constexpr unsigned long kLibreSsl = 0x20000000;
    return version >= kOpenSsl11 && version != kLibreSsl;
}

}  // namespace

SslTarget SslSymbol::resolve(std::uintptr_t caller) {
    ErrnoGuard guard;
    LoadedObject object = {caller};
    dl_iterate_phdr(findObject, &object);
    SslTarget target = {lookUpSymbol(symbol_, version_, object.name)};
    if (target.function == nullptr || object.end == 0 || !lock()) return target;
    const int count = count_.load(std::memory_order_relaxed);
    if (count != kMostCallers) {
        target.library = libraryOf(target.function);
        callers_[count] = {object.begin, object.end, target};
        count_.store(count + 1, std::memory_order_release);
    }
    locked.store(false, std::memory_order_release);
    return target;
}

bool SslObjects::lookUp(const void* address) {
    Dl_info info = {};
    if (dladdr(address, &info) == 0) return false;
    // It stays loaded: its functions are called as long as the process runs.
    void* library = dlopen(info.dli_fname, RTLD_NOLOAD | RTLD_NODELETE | RTLD_LAZY);
    if (library == nullptr) return false;
    unsigned long (*versionNumber)() = nullptr;
    int (*newIndex)(int, long, void*, void*, void*, void*) = nullptr;
    const bool found =
        lookUpIn(library, "OpenSSL_version_num", versionNumber) &&
        hasKnownObjects(versionNumber()) && lookUpIn(library, "SSL_get_ex_data", getData_) &&
        lookUpIn(library, "SSL_set_ex_data", setData_) && lookUpIn(library, "SSL_get_fd", getFd_) &&
        lookUpIn(library, "SSL_is_server", isServer_) &&
        lookUpIn(library, "ERR_set_mark", setMark_) &&
        lookUpIn(library, "ERR_pop_to_mark", popToMark_) &&
        lookUpIn(library, "CRYPTO_get_ex_new_index", newIndex);
    dlerror();
    dlclose(library);
    if (found) {
        constexpr int kSslObjects = 0;  // the class of application data
        const ErrorsKept errors(*this);
        index_ = newIndex(kSslObjects, 0, nullptr, nullptr, nullptr, nullptr);
    }
    if (index_ < 0) {
        printErrorMsg(
            "A TLS library is not OpenSSL 1.1 or 3: of its SSL connections only bytes are counted");
        return false;
    }
    base_ = info.dli_fbase;
    return true;
}

int SslObjects::descriptorOf(const Ssl* ssl) const {
    return static_cast<int>(reinterpret_cast<std::intptr_t>(getData_(ssl, index_))) - 1;
}

void SslObjects::bind(Ssl* ssl, int fd) const {
    setData_(ssl, index_, reinterpret_cast<void*>(static_cast<std::intptr_t>(fd) + 1));
}

}  // namespace tolvane
