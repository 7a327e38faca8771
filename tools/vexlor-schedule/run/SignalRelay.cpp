#include "run/SignalRelay.h"

#include <errno.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <iterator>
#include <stdexcept>

namespace Vexlor::ScheduleTool {

namespace {

constexpr int RELAYED[] = {SIGINT, SIGTERM, SIGHUP};

int relayFds[2] = {-1, -1};
pid_t relayOwner = 0;
struct sigaction previous[std::size(RELAYED)];
struct sigaction previousPipe;

void WriteSignal(int signal) {
    const int savedErrno = errno;
    if (::getpid() != relayOwner) {
        // A child forked by this process that has not run exec yet: the signal is its own
        // and must not reach the runner's relay. kill, not raise: a child made by a bare
        // clone has a stale thread id.
        ::signal(signal, SIG_DFL);
        ::kill(::getpid(), signal);
        errno = savedErrno;
        return;
    }
    const unsigned char byte = static_cast<unsigned char>(signal);
    // Nothing to do if the pipe is full: the reader is already due.
    [[maybe_unused]] const ssize_t written = ::write(relayFds[0], &byte, 1);
    errno = savedErrno;
}

}  // namespace

SignalRelay::SignalRelay(std::function<void(int)> onSignal) : onSignal(std::move(onSignal)) {
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, relayFds) != 0) {
        throw std::runtime_error("cannot create the signal socket pair");
    }
    relayOwner = ::getpid();
    notifier = std::make_unique<QSocketNotifier>(relayFds[1], QSocketNotifier::Read);
    QObject::connect(notifier.get(), &QSocketNotifier::activated, [this] {
        unsigned char byte = 0;
        while (::read(relayFds[1], &byte, 1) == 1) {
            this->onSignal(byte);
        }
    });
    struct sigaction action = {};
    action.sa_handler = WriteSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (std::size_t i = 0; i < std::size(RELAYED); ++i) {
        ::sigaction(RELAYED[i], &action, &previous[i]);
    }
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    ::sigaction(SIGPIPE, &ignore, &previousPipe);
}

SignalRelay::~SignalRelay() {
    for (std::size_t i = 0; i < std::size(RELAYED); ++i) {
        ::sigaction(RELAYED[i], &previous[i], nullptr);
    }
    ::sigaction(SIGPIPE, &previousPipe, nullptr);
    notifier.reset();
    ::close(relayFds[0]);
    ::close(relayFds[1]);
    relayFds[0] = relayFds[1] = -1;
}

}  // namespace Vexlor::ScheduleTool
