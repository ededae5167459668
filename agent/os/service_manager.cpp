#include "os/service_manager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace tolvane::agent {

void tellServiceManager(std::string_view message) {
    const char* path = std::getenv("NOTIFY_SOCKET");
    sockaddr_un address{};
    if (path == nullptr) return;
    std::size_t length = std::strlen(path);
    if (length < 2 || length >= sizeof address.sun_path) return;
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path, length);
    // A leading '@' stands for the NUL of an abstract name.
    if (path[0] == '@') address.sun_path[0] = '\0';
    int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return;
    auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    ::sendto(fd, message.data(), message.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
             reinterpret_cast<const sockaddr*>(&address), size);
    ::close(fd);
}

}  // namespace tolvane::agent
