#include "system/e2e/script_ssl.h"

#include <dlfcn.h>
#include <sys/socket.h>

#include <cerrno>
#include <map>

struct ssl_st;

namespace {

struct Module {
    explicit Module(const std::string& library) {
        void* file =
            dlopen((SSL_MODULES "/ssl_module" + library + ".so").c_str(), RTLD_NOW | RTLD_LOCAL);
        makeNew = reinterpret_cast<decltype(makeNew)>(dlsym(file, "moduleNew"));
        call = reinterpret_cast<decltype(call)>(dlsym(file, "moduleCall"));
    }

    ssl_st* (*makeNew)(int, char, bool);
    long (*call)(const char*, ssl_st*, char*, std::size_t);
};

struct Object {
    const Module* module;
    ssl_st* ssl;
};
std::vector<Object> objects;

}  // namespace

long newSslObject(const Arguments& a) {
    static std::map<std::string, Module> modules;
    const Module& module = modules.try_emplace(a[0], a[0]).first->second;
    objects.push_back({&module, module.makeNew(std::stoi(a[1]), a[2][0], a[3] == "s")});
    return static_cast<long>(objects.size()) - 1;
}

long callSsl(const Arguments& a) {
    const Object& object = objects.at(std::stoul(a[1]));
    const bool sends = a[0].starts_with("write") || a[0] == "sendfile" || a[0] == "feed";
    std::string buffer = sends ? fromHex(a[2]) : std::string(std::stoul(a[2]), ' ');
    errno = 77;
    const long result = object.module->call(a[0].c_str(), object.ssl, buffer.data(), buffer.size());
    if (!sends && result > 0 && a[2] != "0")
        received = buffer.substr(0, static_cast<std::size_t>(result));
    return result;
}

long makePair(const Arguments&) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) return -1;
    received = std::to_string(fds[1]);
    return fds[0];
}
