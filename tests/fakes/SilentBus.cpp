#include "fakes/SilentBus.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace Vexlor::Testing {

SilentBus::SilentBus() {
    // Unique per object and process; the leading NUL byte makes the name abstract.
    char name[64];
    const auto size = static_cast<std::size_t>(
        std::snprintf(name, sizeof name, "vexlor-silent-bus-%d-%p", static_cast<int>(::getpid()),
                      static_cast<void*>(this)));
    address = std::string("unix:abstract=") + name;
    sockaddr_un where{};
    where.sun_family = AF_UNIX;
    std::memcpy(where.sun_path + 1, name, size);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + size);
    listenFd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listenFd < 0 || ::bind(listenFd, reinterpret_cast<const sockaddr*>(&where), length) != 0 ||
        ::listen(listenFd, 16) != 0) {
        throw std::runtime_error(std::string("SilentBus: ") + std::strerror(errno));
    }
    // Each connection stays open and unread until the end: a peer that is there and silent.
    thread = std::thread([this] {
        for (int client; (client = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
            clients.push_back(client);
            ++accepted;
        }
    });
}

SilentBus::~SilentBus() {
    ::shutdown(listenFd, SHUT_RDWR);  // ends the wait in accept
    thread.join();
    for (const int client : clients) {
        ::close(client);
    }
    ::close(listenFd);
}

}  // namespace Vexlor::Testing
