#include "SignalRelay.h"

#include <errno.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace Vexlor::ScheduleTool {

namespace {

int relayFds[2] = {-1, -1};
struct sigaction previousInt;
struct sigaction previousTerm;

void WriteSignal(int signal) {
    const int savedErrno = errno;
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
    ::sigaction(SIGINT, &action, &previousInt);
    ::sigaction(SIGTERM, &action, &previousTerm);
}

SignalRelay::~SignalRelay() {
    ::sigaction(SIGINT, &previousInt, nullptr);
    ::sigaction(SIGTERM, &previousTerm, nullptr);
    notifier.reset();
    ::close(relayFds[0]);
    ::close(relayFds[1]);
    relayFds[0] = relayFds[1] = -1;
}

}  // namespace Vexlor::ScheduleTool
