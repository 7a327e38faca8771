#pragma once

#include <atomic>
#include <string>
#include <thread>
#include <vector>

// A unix socket that looks like a bus to whoever connects and never says a word: what a
// dbus-daemon that is stopped (SIGSTOP), deadlocked or swapped out looks like to a client.
namespace Vexlor::Testing {

class SilentBus {
public:
    enum class Name { Path, Abstract };
    enum class Listener {
        Accepting,  // takes each connection and reads what it is sent
        Stuck,      // takes no connection: once the small backlog is full, connecting waits
    };

    explicit SilentBus(Name name = Name::Path, Listener listener = Listener::Accepting);
    ~SilentBus();
    SilentBus(const SilentBus&) = delete;
    SilentBus& operator=(const SilentBus&) = delete;

    // A D-Bus address for it ("unix:path=..." or "unix:abstract=...").
    const std::string& Address() const { return address; }
    // Connections taken so far.
    int Accepted() const { return accepted.load(); }

private:
    std::string address;
    std::string directory;  // holds the socket file, for Name::Path
    int listenFd = -1;
    std::vector<int> clients;  // the accepting thread's until it ends
    std::atomic<int> accepted{0};
    std::thread thread;
};

}  // namespace Vexlor::Testing
