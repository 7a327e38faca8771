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
    SilentBus();
    ~SilentBus();
    SilentBus(const SilentBus&) = delete;
    SilentBus& operator=(const SilentBus&) = delete;

    // A D-Bus address for it, "unix:abstract=...": no file to clean up.
    const std::string& Address() const { return address; }
    // Connections taken so far.
    int Accepted() const { return accepted.load(); }

private:
    std::string address;
    int listenFd = -1;
    std::vector<int> clients;  // the accepting thread's until it ends
    std::atomic<int> accepted{0};
    std::thread thread;
};

}  // namespace Vexlor::Testing
