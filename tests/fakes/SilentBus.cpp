#include "fakes/SilentBus.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <vector>

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
    if (::pipe2(wakeFds, O_CLOEXEC) != 0) {
        Fail("pipe");
    }
    if (listener == Listener::Accepting) {
        thread = std::thread([this] { Serve(); });
    }
}

SilentBus::~SilentBus() {
    if (thread.joinable()) {
        const char stop = 0;
        [[maybe_unused]] const ssize_t written = ::write(wakeFds[1], &stop, 1);
        thread.join();
    }
    ::close(wakeFds[0]);
    ::close(wakeFds[1]);
    ::close(listenFd);
    if (!directory.empty()) {
        ::unlink((directory + "/bus").c_str());
        ::rmdir(directory.c_str());
    }
}

// Takes connections and swallows what they send; answers nothing, closes nothing until the
// end, so that a client sees a peer that is there and silent.
void SilentBus::Serve() {
    std::vector<pollfd> watched{{wakeFds[0], POLLIN, 0}, {listenFd, POLLIN, 0}};
    char sink[4096];
    for (;;) {
        if (::poll(watched.data(), watched.size(), -1) < 0) {
            continue;
        }
        if (watched[0].revents != 0) {
            break;
        }
        if ((watched[1].revents & POLLIN) != 0) {
            const int client = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
            if (client >= 0) {
                watched.push_back({client, POLLIN, 0});
                ++accepted;
            }
        }
        for (std::size_t i = 2; i < watched.size();) {
            const ssize_t got = watched[i].revents == 0
                                    ? 1
                                    : ::recv(watched[i].fd, sink, sizeof sink, MSG_DONTWAIT);
            if (got == 0 || (got < 0 && errno != EAGAIN && errno != EWOULDBLOCK)) {
                // The client went away; its end would report a hang-up at every poll.
                ::close(watched[i].fd);
                watched.erase(watched.begin() + static_cast<std::ptrdiff_t>(i));
            } else {
                ++i;
            }
        }
    }
    for (std::size_t i = 2; i < watched.size(); ++i) {
        ::close(watched[i].fd);
    }
}

}  // namespace Vexlor::Testing
