// Preloaded behind the library under test. At every Nth call that begins or
// ends a connection, the server makes a child by vfork, which closes what it
// inherited, as a module does that runs another program. N: CAMPAIGN_VFORK_EVERY.
#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>

namespace {

std::atomic<unsigned> calls{0};

[[noreturn]] void closeEverything(unsigned kind) {
    for (int fd = 3; kind % 3 != 2 && fd < 200; ++fd) {
        if (kind % 3 == 0) close(fd);
        if (kind % 3 == 1) dup2(0, fd);
    }
    if (kind % 3 == 2) close_range(3, 200, 0);
    _exit(0);
}

[[gnu::noinline]] void runProgram(unsigned kind) {
    const pid_t child = vfork();
    if (child == 0) closeEverything(kind);
    waitpid(child, nullptr, 0);
}

void perhapsRunProgram() {
    static const char* const every = std::getenv("CAMPAIGN_VFORK_EVERY");
    if (!every) return;
    const unsigned call = ++calls;
    if (call % static_cast<unsigned>(std::atoi(every)) == 0) runProgram(call);
}

template <class Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" int shutdown(int fd, int how) noexcept {
    static const auto real = next<int(int, int)>("shutdown");
    perhapsRunProgram();
    return real(fd, how);
}

extern "C" int setsockopt(int fd, int level, int name, const void* value, socklen_t size) noexcept {
    static const auto real = next<int(int, int, int, const void*, socklen_t)>("setsockopt");
    perhapsRunProgram();
    return real(fd, level, name, value, size);
}
