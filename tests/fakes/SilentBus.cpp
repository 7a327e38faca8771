#include "fakes/SilentBus.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace Vexlor::Testing {

namespace {

[[noreturn]] void Fail(const char* what) {
    throw std::runtime_error(std::string("SilentBus: ") + what + ": " + std::strerror(errno));
}

}  // namespace

SilentBus::SilentBus(Name name, Listener listener) {
    listenFd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listenFd < 0) {
        Fail("socket");
    }
    sockaddr_un where{};
    where.sun_family = AF_UNIX;
    socklen_t length = 0;
    if (name == Name::Path) {
        char pattern[] = "/tmp/vexlor-silent-bus-XXXXXX";
        if (::mkdtemp(pattern) == nullptr) {
            Fail("mkdtemp");
        }
        directory = pattern;
        const std::string path = directory + "/bus";
        std::memcpy(where.sun_path, path.c_str(), path.size() + 1);
        length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + 1);
        address = "unix:path=" + path;
    } else {
        // Unique per object and process; the leading NUL byte makes the name abstract.
        char abstractName[64];
        std::snprintf(abstractName, sizeof abstractName, "vexlor-silent-bus-%d-%p",
                      static_cast<int>(::getpid()), static_cast<void*>(this));
        const std::size_t size = std::strlen(abstractName);
        std::memcpy(where.sun_path + 1, abstractName, size);
        length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + size);
        address = std::string("unix:abstract=") + abstractName;
    }
    if (::bind(listenFd, reinterpret_cast<const sockaddr*>(&where), length) != 0) {
        Fail("bind");
    }
    if (::listen(listenFd, listener == Listener::Accepting ? 16 : 0) != 0) {
        Fail("listen");
    }
    if (listener == Listener::Accepting) {
        // Each connection stays open and unread until the end: a peer that is there and silent.
        thread = std::thread([this] {
            for (int client; (client = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
                clients.push_back(client);
                ++accepted;
            }
        });
    }
}

SilentBus::~SilentBus() {
    ::shutdown(listenFd, SHUT_RDWR);  // ends the wait in accept
    if (thread.joinable()) {
        thread.join();
    }
    for (const int client : clients) {
        ::close(client);
    }
    ::close(listenFd);
    if (!directory.empty()) {
        ::unlink((directory + "/bus").c_str());
        ::rmdir(directory.c_str());
    }
}

}  // namespace Vexlor::Testing
